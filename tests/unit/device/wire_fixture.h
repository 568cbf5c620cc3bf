// A virtual Mirn on a virtual clock, and the command layer on top of it.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "device/hard_key_mouse.h"
#include "device/protocol.h"
#include "platform/mirn_identity.h"
#include "virtual/virtual_clock.h"
#include "virtual/virtual_hid.h"
#include "virtual/virtual_mirn.h"

namespace mirn {

// The decoder belongs to the process: brings it to "between frames", whatever an earlier test left behind.
inline void settleDecoder() {
  circle_data* const ring = circle_data_create(16);
  for (const uint8_t byte : {0x00, 0xAA, 0xCC, 0x00}) {
    circle_data_push(ring, byte);
  }
  uint8_t command = 0;
  uint16_t index = 0;
  const uint8_t* payload = nullptr;
  protocol_parse(ring, &command, &index, &payload);
  circle_data_destroy(ring);
}

// The command layer with its protected parts open.
class OpenHardKeyMouse : public hard_key_mouse {
 public:
  using hard_key_mouse::_inc_pack_index;
  using hard_key_mouse::_send_msg_to_hid;
  using hard_key_mouse::Answer;
  using hard_key_mouse::hard_key_mouse;
  using hard_key_mouse::pack_index;
};

class WireTest : public ::testing::Test {
 protected:
  explicit WireTest(VirtualMirnSettings settings = {}) : mirn_(std::make_shared<VirtualMirn>(std::move(settings))) {
    settleDecoder();
  }

  OpenHardKeyMouse& device() {
    if (!device_) {
      device_ = makeRef<OpenHardKeyMouse>(g_vid, g_pid);
      mirn_->clearReceived();
    }
    return *device_;
  }

  // From the next exchange on.
  void faults(const std::string& text) {
    device();
    FaultPlan plan;
    std::string error;
    ASSERT_TRUE(FaultPlan::parse(text, &plan, &error)) << error;
    mirn_->setFaultPlan(plan);
  }

  std::vector<VirtualRecord> records() const {
    std::vector<VirtualRecord> records;
    for (const VirtualReceived& received : mirn_->received()) {
      records.push_back(received.record);
    }
    return records;
  }

  std::chrono::milliseconds elapsed(std::chrono::nanoseconds since) {
    return std::chrono::duration_cast<std::chrono::milliseconds>(clock().now() - since);
  }

  ScopedVirtualClock clock_;
  std::shared_ptr<VirtualMirn> mirn_;
  ScopedVirtualHid hid_{{mirn_}};
  CRefObj<OpenHardKeyMouse> device_;
};

}  // namespace mirn
