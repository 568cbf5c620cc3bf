// Writing of messages and replies.
#include <algorithm>
#include <bit>
#include <cstring>
#include <limits>

#include "embedding/standard_codec.h"

static_assert(std::endian::native == std::endian::little,
              "the codec writes host order, which every engine reads as little-endian");

namespace mirn {
namespace {

constexpr size_t kMostElements = std::numeric_limits<uint32_t>::max();

}  // namespace

void MessageWriter::grow(size_t bytes) {
  const size_t wanted = std::max(size_ + bytes, capacity_ * 2);
  auto larger = std::make_unique_for_overwrite<uint8_t[]>(wanted);
  if (size_ > 0) std::memcpy(larger.get(), data_, size_);
  heap_ = std::move(larger);
  data_ = heap_.get();
  capacity_ = wanted;
}

void MessageWriter::reserve(size_t bytes) {
  if (capacity_ - size_ < bytes) grow(bytes);
}

void MessageWriter::append(const void* data, size_t bytes) {
  if (bytes > 0) std::memcpy(take(bytes), data, bytes);
}

// Tag and size.
void MessageWriter::head(uint8_t tag, size_t count) {
  if (count < 254) {
    uint8_t* at = take(2);
    at[0] = tag;
    at[1] = static_cast<uint8_t>(count);
  } else if (count <= 0xffff) {
    const auto shorter = static_cast<uint16_t>(count);
    uint8_t* at = take(2 + sizeof(shorter));
    at[0] = tag;
    at[1] = 254;
    std::memcpy(at + 2, &shorter, sizeof(shorter));
  } else {
    const auto longer = static_cast<uint32_t>(std::min(count, kMostElements));
    uint8_t* at = take(2 + sizeof(longer));
    at[0] = tag;
    at[1] = 255;
    std::memcpy(at + 2, &longer, sizeof(longer));
  }
}

// Offsets count from the first byte of the message; `to` is a power of two.
void MessageWriter::align(size_t to) {
  const size_t padding = (0 - size_) & (to - 1);
  if (padding > 0) std::memset(take(padding), 0, padding);
}

void MessageWriter::float64(double value) {
  byte(6);
  align(8);
  append(&value, sizeof(value));
}

void MessageWriter::longText(std::string_view value) {
  value = value.substr(0, kMostElements);
  head(7, value.size());
  append(value.data(), value.size());
}

void MessageWriter::byteList(Bytes value) {
  value = value.first(std::min(value.size(), kMostElements));
  head(8, value.size());
  append(value.data(), value.size());
}

void MessageWriter::int32List(std::span<const int32_t> value) {
  value = value.first(std::min(value.size(), kMostElements));
  head(9, value.size());
  align(4);  // also when the list is empty
  append(value.data(), value.size_bytes());
}

void MessageWriter::int64List(std::span<const int64_t> value) {
  value = value.first(std::min(value.size(), kMostElements));
  head(10, value.size());
  align(8);
  append(value.data(), value.size_bytes());
}

void MessageWriter::float64List(std::span<const double> value) {
  value = value.first(std::min(value.size(), kMostElements));
  head(11, value.size());
  align(8);
  append(value.data(), value.size_bytes());
}

void MessageWriter::float32List(std::span<const float> value) {
  value = value.first(std::min(value.size(), kMostElements));
  head(14, value.size());
  align(4);
  append(value.data(), value.size_bytes());
}

void MessageWriter::listHead(size_t elements) {
  head(12, elements);
}

void MessageWriter::mapHead(size_t pairs) {
  head(13, pairs);
}

void MessageWriter::value(const Value& value) {
  valueAtDepth(value, 0);
}

// `depth` lists and maps are open around the value.
void MessageWriter::valueAtDepth(const Value& value, int depth) {
  const auto write = [this, depth](const auto& held) {
    using T = std::decay_t<decltype(held)>;
    if constexpr (std::is_same_v<T, std::monostate>) {  // NOLINT(bugprone-branch-clone): not the same T
      null();
    } else if constexpr (std::is_same_v<T, bool>) {
      boolean(held);
    } else if constexpr (std::is_same_v<T, int32_t>) {
      int32(held);
    } else if constexpr (std::is_same_v<T, int64_t>) {
      int64(held);
    } else if constexpr (std::is_same_v<T, double>) {
      float64(held);
    } else if constexpr (std::is_same_v<T, std::string>) {
      text(held);
    } else if constexpr (std::is_same_v<T, std::vector<uint8_t>>) {
      byteList(held);
    } else if constexpr (std::is_same_v<T, std::vector<int32_t>>) {
      int32List(held);
    } else if constexpr (std::is_same_v<T, std::vector<int64_t>>) {
      int64List(held);
    } else if constexpr (std::is_same_v<T, std::vector<double>>) {
      float64List(held);
    } else if constexpr (std::is_same_v<T, std::vector<float>>) {
      float32List(held);
    } else if (depth >= kMaxDepth) {
      null();
    } else if constexpr (std::is_same_v<T, ValueList>) {
      const size_t count = std::min(held.size(), kMostElements);
      listHead(count);
      for (size_t i = 0; i < count; ++i) valueAtDepth(held[i], depth + 1);
    } else {
      const size_t count = std::min(held.size(), kMostElements);
      mapHead(count);
      for (size_t i = 0; i < count; ++i) {
        valueAtDepth(held[i].first, depth + 1);
        valueAtDepth(held[i].second, depth + 1);
      }
    }
  };
  std::visit(write, static_cast<const Value::Base&>(value));
}

namespace {

std::vector<uint8_t> copyOf(const MessageWriter& writer) {
  const Bytes bytes = writer.bytes();
  return {bytes.begin(), bytes.end()};
}

}  // namespace

std::vector<uint8_t> encodeMessage(const Value& value) {
  MessageWriter writer;
  writer.value(value);
  return copyOf(writer);
}

std::vector<uint8_t> encodeMethodCall(std::string_view method, const Value& arguments) {
  MessageWriter writer;
  writer.text(method);
  writer.value(arguments);
  return copyOf(writer);
}

std::vector<uint8_t> encodeSuccess(const Value& result) {
  MessageWriter writer;
  writer.byte(0);
  writer.value(result);
  return copyOf(writer);
}

std::vector<uint8_t> encodeError(std::string_view code, const Value& message, const Value& details) {
  MessageWriter writer;
  writer.byte(1);
  writer.text(code);
  writer.value(message);
  writer.value(details);
  return copyOf(writer);
}

}  // namespace mirn
