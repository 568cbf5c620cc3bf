// A second decoder of the standard codec, written the plain recursive way and sharing nothing with the real one: tests
// and fuzzers compare the two. Slow, and without care for large messages.
#pragma once

#include <cstdint>
#include <cstring>
#include <optional>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "embedding/value.h"

namespace mirn::test {

class PlainDecoder {
 public:
  static constexpr int kDeepest = 64;

  explicit PlainDecoder(std::span<const uint8_t> message) : message_(message) {}

  // The value at the cursor, duplicate keys and all; nothing when the message is bad.
  std::optional<Value> value(int depth = 0) {
    if (at_ >= message_.size()) return {};
    switch (message_[at_++]) {
      case 0:
        return Value();
      case 1:
        return Value(true);
      case 2:
        return Value(false);
      case 3:
        return fixed<int32_t>(1);
      case 4:
        return fixed<int64_t>(1);
      case 6:
        return fixed<double>(8);
      case 7:
        return text();
      case 8:
        return elements<uint8_t>();
      case 9:
        return elements<int32_t>();
      case 10:
        return elements<int64_t>();
      case 11:
        return elements<double>();
      case 12:
        return list(depth);
      case 13:
        return map(depth);
      case 14:
        return elements<float>();
      default:
        return {};
    }
  }

  bool atEnd() const { return at_ == message_.size(); }

 private:
  bool pad(size_t to) {
    while (at_ % to != 0) {
      if (at_ >= message_.size()) return false;
      ++at_;
    }
    return true;
  }

  template <typename T>
  bool read(T* out) {
    if (message_.size() - at_ < sizeof(T)) return false;
    std::memcpy(out, message_.data() + at_, sizeof(T));
    at_ += sizeof(T);
    return true;
  }

  template <typename T>
  std::optional<Value> fixed(size_t alignment) {
    T number{};
    if (!pad(alignment) || !read(&number)) return {};
    return Value(number);
  }

  std::optional<uint64_t> count() {
    uint8_t first = 0;
    if (!read(&first)) return {};
    if (first < 254) return first;
    uint16_t two = 0;
    uint32_t four = 0;
    if (first == 254) return read(&two) ? std::optional<uint64_t>(two) : std::nullopt;
    return read(&four) ? std::optional<uint64_t>(four) : std::nullopt;
  }

  std::optional<Value> text() {
    const auto size = count();
    if (!size || *size > message_.size() - at_) return {};
    std::string result(reinterpret_cast<const char*>(message_.data()) + at_, *size);
    at_ += *size;
    return Value(std::move(result));
  }

  template <typename T>
  std::optional<Value> elements() {
    const auto size = count();
    if (!size || !pad(sizeof(T)) || *size * sizeof(T) > message_.size() - at_) return {};
    std::vector<T> result(*size);
    for (T& element : result) read(&element);
    return Value(std::move(result));
  }

  std::optional<Value> list(int depth) {
    const auto size = count();
    if (!size || depth >= kDeepest) return {};
    ValueList result;
    for (uint64_t i = 0; i < *size; ++i) {
      auto element = value(depth + 1);
      if (!element) return {};
      result.push_back(std::move(*element));
    }
    return Value(std::move(result));
  }

  std::optional<Value> map(int depth) {
    const auto size = count();
    if (!size || depth >= kDeepest) return {};
    ValueMap result;
    for (uint64_t i = 0; i < *size; ++i) {
      auto key = value(depth + 1);
      auto held = key ? value(depth + 1) : std::nullopt;
      if (!held) return {};
      put(&result, std::move(*key), std::move(*held));
    }
    return Value(std::move(result));
  }

  static void put(ValueMap* map, Value key, Value held) {
    for (auto& pair : *map) {
      if (!sameKey(pair.first, key)) continue;
      pair.second = std::move(held);
      return;
    }
    map->emplace_back(std::move(key), std::move(held));
  }

  std::span<const uint8_t> message_;
  size_t at_ = 0;
};

}  // namespace mirn::test
