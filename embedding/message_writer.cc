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
  std::vector<uint8_t> larger(wanted);
  if (size_ > 0) std::memcpy(larger.data(), data_, size_);
  heap_ = std::move(larger);
  data_ = heap_.data();
  capacity_ = wanted;
}

void MessageWriter::reserve(size_t bytes) {
  if (capacity_ - size_ < bytes) grow(bytes);
}

void MessageWriter::append(const void* data, size_t bytes) {
  if (bytes == 0) return;
  reserve(bytes);
  std::memcpy(data_ + size_, data, bytes);
  size_ += bytes;
}

void MessageWriter::byte(uint8_t value) {
  reserve(1);
  data_[size_++] = value;
}

void MessageWriter::size(size_t count) {
  if (count < 254) {
    byte(static_cast<uint8_t>(count));
  } else if (count <= 0xffff) {
    byte(254);
    const auto shorter = static_cast<uint16_t>(count);
    append(&shorter, sizeof(shorter));
  } else {
    byte(255);
    const auto longer = static_cast<uint32_t>(std::min(count, kMostElements));
    append(&longer, sizeof(longer));
  }
}

// Offsets count from the first byte of the message.
void MessageWriter::align(size_t to) {
  while (size_ % to != 0) byte(0);
}

void MessageWriter::null() {
  tag(0);
}

void MessageWriter::boolean(bool value) {
  tag(value ? 1 : 2);
}

void MessageWriter::int32(int32_t value) {
  tag(3);
  append(&value, sizeof(value));
}

void MessageWriter::int64(int64_t value) {
  tag(4);
  append(&value, sizeof(value));
}

void MessageWriter::float64(double value) {
  tag(6);
  align(8);
  append(&value, sizeof(value));
}

void MessageWriter::text(std::string_view value) {
  value = value.substr(0, kMostElements);
  tag(7);
  size(value.size());
  append(value.data(), value.size());
}

void MessageWriter::byteList(Bytes value) {
  value = value.first(std::min(value.size(), kMostElements));
  tag(8);
  size(value.size());
  append(value.data(), value.size());
}

void MessageWriter::int32List(std::span<const int32_t> value) {
  value = value.first(std::min(value.size(), kMostElements));
  tag(9);
  size(value.size());
  align(4);  // also when the list is empty
  append(value.data(), value.size_bytes());
}

void MessageWriter::int64List(std::span<const int64_t> value) {
  value = value.first(std::min(value.size(), kMostElements));
  tag(10);
  size(value.size());
  align(8);
  append(value.data(), value.size_bytes());
}

void MessageWriter::float64List(std::span<const double> value) {
  value = value.first(std::min(value.size(), kMostElements));
  tag(11);
  size(value.size());
  align(8);
  append(value.data(), value.size_bytes());
}

void MessageWriter::float32List(std::span<const float> value) {
  value = value.first(std::min(value.size(), kMostElements));
  tag(14);
  size(value.size());
  align(4);
  append(value.data(), value.size_bytes());
}

void MessageWriter::listHead(size_t elements) {
  tag(12);
  size(elements);
}

void MessageWriter::mapHead(size_t pairs) {
  tag(13);
  size(pairs);
}

void MessageWriter::value(const Value& value) {
  valueAtDepth(value, 0);
}

// `depth` lists and maps are open around the value.
void MessageWriter::valueAtDepth(const Value& value, int depth) {
  const auto write = [this, depth](const auto& held) {
    using T = std::decay_t<decltype(held)>;
    if constexpr (std::is_same_v<T, std::monostate>) {
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
