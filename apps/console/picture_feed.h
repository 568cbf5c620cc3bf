// From the engine's raster thread to the window: only pictures that changed travel on.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>

#include "apps/common/input_echo.h"
#include "apps/common/session.h"

namespace mirn {

// Bound to the main thread, except that pictures arrive on the raster thread inside.
class PictureFeed {
 public:
  // `taker` runs on the main thread: the newest changed picture and the rows that changed since the last call. Several
  // pictures that come before the main thread looks are one call.
  using Taker = std::function<void(const PixelBufferRef& picture, const ChangedRows& rows)>;

  PictureFeed(Session& session, Taker taker);
  ~PictureFeed();
  PictureFeed(const PictureFeed&) = delete;
  PictureFeed& operator=(const PictureFeed&) = delete;

  InputEcho& echo();
  // The next picture counts as changed as a whole, whatever came before it: what was shown is shown no more.
  void forget();

  uint64_t pictures() const;  // seen on the raster thread
  uint64_t changed() const;   // of these, those that differed

 private:
  struct Shared;

  Session& session_;
  std::shared_ptr<Shared> shared_;
};

}  // namespace mirn
