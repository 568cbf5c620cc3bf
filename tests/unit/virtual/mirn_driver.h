// Speaks to a VirtualMirn as a host does, with frames put together by hand.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <optional>
#include <vector>

#include "virtual/virtual_mirn.h"
#include "virtual/wire.h"

namespace mirn {

class MirnDriver {
 public:
  using Bytes = std::vector<uint8_t>;

  explicit MirnDriver(VirtualMirn& mirn) : mirn_(mirn) {}

  VirtualWriteResult write(const Bytes& report) { return mirn_.hostWrite(report, now); }

  static Bytes frame(uint8_t command, const Bytes& payload) { return buildWireFrame(command, 256, payload); }

  // The payload of a firmware chunk: `data`, and zeros behind.
  static Bytes chunk(uint16_t id, uint16_t total, const Bytes& data = {}) {
    constexpr size_t kHeader = 4;
    Bytes payload(1028);
    payload[0] = static_cast<uint8_t>(id & 0xFF);
    payload[1] = static_cast<uint8_t>(id >> 8);
    payload[2] = static_cast<uint8_t>(total & 0xFF);
    payload[3] = static_cast<uint8_t>(total >> 8);
    std::copy_n(data.begin(), std::min(data.size(), payload.size() - kHeader), payload.begin() + kHeader);
    return payload;
  }

  // The payload of the answer; nothing when none came.
  std::optional<Bytes> ask(uint8_t command, const Bytes& payload = {}) {
    write(frame(command, payload));
    const std::vector<WireFrame> answers = takeAnswers();
    return answers.empty() ? std::nullopt : std::optional(answers.front().payload);
  }

  std::vector<WireFrame> takeAnswers() {
    std::vector<WireFrame> frames;
    for (const VirtualReport& report : mirn_.takeReports()) {
      reports.push_back(report);
      for (const uint8_t byte : report.bytes) {
        if (!report.read_error && parser.take(byte)) {
          frames.push_back(parser.frame());
        }
      }
    }
    return frames;
  }

  void faults(std::string_view text) {
    FaultPlan plan;
    std::string error;
    ASSERT_TRUE(FaultPlan::parse(text, &plan, &error)) << error;
    mirn_.setFaultPlan(plan);
  }

  std::chrono::nanoseconds now = std::chrono::seconds(1);
  WireParser parser;
  std::vector<VirtualReport> reports;  // all that takeAnswers() has seen

 private:
  VirtualMirn& mirn_;
};

}  // namespace mirn
