// Input through the plug-in's channel.
#pragma once

#include "apps/common/input_sink.h"
#include "apps/common/pointer_map.h"
#include "host/channel_client.h"

namespace mirn {

// Bound to the main thread; the client must outlive it.
class ChannelInput final : public InputSink {
 public:
  explicit ChannelInput(ChannelClient& channel) : channel_(channel) {}

  void keyDown(int virtual_key) override;
  void keyUp(int virtual_key) override;
  void mouseMove(int x, int y) override;
  void mouseButton(const char* type, int x, int y) override;
  void mouseWheel(int x, int y, int delta) override;

  // Where the pointer was put last, 0..32767; the middle before that.
  int x() const { return x_; }
  int y() const { return y_; }

 private:
  void pointerAt(int x, int y);

  ChannelClient& channel_;
  int x_ = kFullScale / 2;
  int y_ = kFullScale / 2;
};

}  // namespace mirn
