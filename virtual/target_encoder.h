// Turns a screen into one picture format and keeps the result: each frame converts only the rows that changed.
#pragma once

#include <cstdint>
#include <memory>
#include <span>
#include <vector>

#include "virtual/target_screen.h"
#include "virtual/virtual_target.h"

namespace mirn {

// Bound to one thread at a time. The screen passed to encode() is always the same.
class TargetEncoder {
 public:
  virtual ~TargetEncoder() = default;
  // Rows that changed since the last encode(); cheap, may overlap.
  void touch(RowRange rows) { dirty_.push_back(rows); }
  // The whole frame; valid until the next call.
  virtual std::span<const uint8_t> encode(const TargetScreen& screen) = 0;

 protected:
  // Takes the touched rows, widened to multiples of `unit` and joined where they meet.
  std::vector<RowRange> takeDirty(int unit, int height);

 private:
  std::vector<RowRange> dirty_;
};

std::unique_ptr<TargetEncoder> makeTargetEncoder(TargetFormat format, int width, int height);

}  // namespace mirn
