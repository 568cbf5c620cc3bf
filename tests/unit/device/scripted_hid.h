// A HID back end that does what a test says: it keeps every write and hands out prepared reads.
#pragma once

#include <algorithm>
#include <cstdint>
#include <deque>
#include <string>
#include <utility>
#include <vector>

#include "platform/hid_functions.h"

namespace mirn {

class ScriptedHid {
 public:
  struct Read {
    int result = 64;             // what the call returns
    std::vector<uint8_t> bytes;  // what stands in the buffer, zeros behind
  };
  struct Open {
    unsigned short vendor;
    unsigned short product;
    bool operator==(const Open&) const = default;
  };

  ScriptedHid() {
    current_ = this;
    setHidFunctions(&functions());
  }
  ~ScriptedHid() {
    setHidFunctions(nullptr);
    current_ = nullptr;
  }
  ScriptedHid(const ScriptedHid&) = delete;
  ScriptedHid& operator=(const ScriptedHid&) = delete;

  static const HidFunctions& functions() {
    static constexpr HidFunctions kFunctions{
        [] { return 0; },
        [](unsigned short vendor, unsigned short product, const wchar_t* serial) {
          return current_->open(vendor, product, serial);
        },
        [](hid_device* device, const unsigned char* data, size_t length) {
          return current_->write(device, data, length);
        },
        [](hid_device* device, unsigned char* data, size_t length, int milliseconds) {
          return current_->read(device, data, length, milliseconds);
        },
        [](hid_device* /*device*/) { ++current_->closes; },
        [](hid_device* /*device*/) { return std::string("9-9"); }};
    return kFunctions;
  }

  // An answer: one frame whose payload is `payload`, as the device would frame it.
  void answer(const std::vector<uint8_t>& frame) { reads.push_back({64, frame}); }
  void timeout() { reads.push_back({0, {}}); }

  std::vector<Open> opens;
  std::deque<Open> present;  // what open() finds
  int closes = 0;
  std::vector<std::vector<uint8_t>> writes;  // report number included
  std::deque<int> write_results;             // of the next writes; empty: the length
  std::deque<Read> reads;                    // empty: the time runs out
  std::vector<int> read_timeouts;
  std::vector<size_t> read_lengths;

 private:
  hid_device* open(unsigned short vendor, unsigned short product, const wchar_t* serial) {
    opens.push_back({vendor, product});
    serial_given = serial_given || serial != nullptr;
    for (const Open& device : present) {
      if (device == opens.back()) {
        return reinterpret_cast<hid_device*>(this);
      }
    }
    return nullptr;
  }

  int write(hid_device* /*device*/, const unsigned char* data, size_t length) {
    writes.emplace_back(data, data + length);
    if (write_results.empty()) {
      return static_cast<int>(length);
    }
    const int result = write_results.front();
    write_results.pop_front();
    return result;
  }

  int read(hid_device* /*device*/, unsigned char* data, size_t length, int milliseconds) {
    read_timeouts.push_back(milliseconds);
    read_lengths.push_back(length);
    if (reads.empty()) {
      return 0;
    }
    const Read next = std::move(reads.front());
    reads.pop_front();
    std::copy_n(next.bytes.begin(), std::min(length, next.bytes.size()), data);
    return next.result;
  }

  static inline ScriptedHid* current_ = nullptr;

 public:
  bool serial_given = false;
};

}  // namespace mirn
