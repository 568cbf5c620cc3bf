// Input through the plug-in's channel.
#pragma once

#include "apps/common/input_sink.h"
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

 private:
  ChannelClient& channel_;
};

}  // namespace mirn
