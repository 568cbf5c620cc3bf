// The engine's standard message codec and standard method codec, byte for byte.
// Two ways to read a message: into owning Values, and in place through ValueView, which looks at the bytes and copies
// nothing. Both go through the same walk, so they accept and refuse exactly the same messages.
// All functions are reentrant. Nothing here throws except std::bad_alloc.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "embedding/value.h"

namespace mirn {

using Bytes = std::span<const uint8_t>;

// Lists and maps inside each other. The stock codecs recurse without a limit and die at about 30,000 levels; no call of
// the channel needs more than two.
inline constexpr int kMaxDepth = 64;

enum class CodecError : uint8_t {
  kNone,
  kOutOfData,        // the message ends inside a value, or a length claims more bytes than are left
  kTrailingData,     // bytes remain after the last value
  kUnsupportedType,  // a tag that the codec does not know
  kTooDeep,          // more than kMaxDepth lists and maps inside each other
  kWrongType,        // a value that must be a text (method name, error code, error message) is something else
  kBadEnvelope,      // a reply begins with a byte that is neither 0 nor 1, or is empty where one must be
};

// One line of plain text for a log.
std::string_view describe(CodecError error);

// ---- reading in place ----------------------------------------------------------------------------------------------

enum class ValueKind : uint8_t {
  kAbsent,  // no such key
  kNull,
  kBool,
  kInt32,
  kInt64,
  kDouble,
  kText,
  kUint8List,
  kInt32List,
  kInt64List,
  kFloat32List,
  kFloat64List,
  kList,
  kMap,
};

// One value inside a message that has been walked and found whole. Borrows the message's bytes: valid as long as they
// are. Cheap to copy. Every reading of something that the value isn't yields the default named beside it.
class ValueView {
 public:
  ValueView() = default;

  ValueKind kind() const { return kind_; }
  bool isMap() const { return kind_ == ValueKind::kMap; }
  // An absent key and a null are the same to every command.
  bool isAbsent() const { return kind_ == ValueKind::kAbsent || kind_ == ValueKind::kNull; }

  // Elements of a list, bytes of a text, pairs of a map; 0 for the rest.
  uint32_t size() const { return size_; }

  bool boolean() const;           // false
  int64_t integer() const;        // 0; of an int32 or an int64
  double number() const;          // 0.0; of a double
  std::string_view text() const;  // empty; bytes as they came, not checked to be UTF-8

  // Element `index` of a list of any kind, as int64. False when this is no list of integers (bytes count as integers)
  // or the index is past its end. A generic list is walked from its head.
  bool integerAt(uint32_t index, int64_t* out) const;
  // Whether this is a list all of whose elements are integers.
  bool isIntegerList() const;

  // The value that a text key holds in this map; where a key occurs twice the last counts. kAbsent when there is none.
  ValueView find(std::string_view key) const;

  // Looks several keys up in one walk of the map: values[i] belongs to keys[i]. Same rule as find().
  void findAll(std::span<const std::string_view> keys, std::span<ValueView> values) const;

  // A deep copy that owns its memory.
  Value toValue() const;

 private:
  friend class MessageWalk;

  const uint8_t* message_ = nullptr;  // first byte of the message: paddings count from here
  uint32_t at_ = 0;                   // offset of the payload: after tag, size and padding
  uint32_t size_ = 0;
  uint32_t end_ = 0;  // offset after the value's last byte
  ValueKind kind_ = ValueKind::kAbsent;
};

// A method call in place: borrows the message.
struct MethodCallView {
  std::string_view method;
  ValueView arguments;
};

// Walks the whole message; `*out` is only set when the answer is kNone. Takes no memory. Messages of 4 GiB and more are
// refused as kOutOfData.
CodecError viewMessage(Bytes message, ValueView* out);
CodecError viewMethodCall(Bytes message, MethodCallView* out);

// ---- reading into owning values ------------------------------------------------------------------------------------

struct MethodCall {
  std::string method;
  Value arguments;
};

// A reply as a caller sees it.
struct Envelope {
  enum class Kind : uint8_t { kSuccess, kError, kNotImplemented };
  Kind kind = Kind::kNotImplemented;
  Value result;      // kSuccess
  std::string code;  // kError
  Value message;     // kError: a text or null
  Value details;     // kError
};

// `*out` is only set when the answer is kNone. A bare message of no bytes is the null value.
CodecError decodeMessage(Bytes message, Value* out);
CodecError decodeMethodCall(Bytes message, MethodCall* out);
CodecError decodeEnvelope(Bytes message, Envelope* out);

// ---- writing -------------------------------------------------------------------------------------------------------

// Appends encoded values to one message. The first `kInlineBytes` need no allocation. Bound to its creator's stack
// frame: neither copied nor moved.
class MessageWriter {
 public:
  static constexpr size_t kInlineBytes = 512;

  MessageWriter() = default;
  MessageWriter(const MessageWriter&) = delete;
  MessageWriter& operator=(const MessageWriter&) = delete;

  Bytes bytes() const { return {data_, size_}; }

  // Room for `bytes` more, so that a large payload is copied once.
  void reserve(size_t bytes);

  void byte(uint8_t value) { *take(1) = value; }  // raw: an envelope byte
  void null() { byte(0); }
  void boolean(bool value) { byte(value ? 1 : 2); }
  void int32(int32_t value) {
    uint8_t* at = take(1 + sizeof(value));
    *at = 3;
    std::memcpy(at + 1, &value, sizeof(value));
  }
  void int64(int64_t value) {
    uint8_t* at = take(1 + sizeof(value));
    *at = 4;
    std::memcpy(at + 1, &value, sizeof(value));
  }
  void float64(double value);
  void text(std::string_view value) {
    if (value.size() >= 254) return longText(value);
    uint8_t* at = take(2 + value.size());
    at[0] = 7;
    at[1] = static_cast<uint8_t>(value.size());
    if (!value.empty()) std::memcpy(at + 2, value.data(), value.size());
  }
  void byteList(Bytes value);
  void int32List(std::span<const int32_t> value);
  void int64List(std::span<const int64_t> value);
  void float32List(std::span<const float> value);
  void float64List(std::span<const double> value);
  void listHead(size_t elements);  // then that many values
  void mapHead(size_t pairs);      // then that many keys and values, alternating
  // A container of 2^32 elements and more can't be written: its head says 2^32-1 and no more elements follow.
  // Values nested deeper than kMaxDepth are written as null where they begin to be too deep.
  void value(const Value& value);

 private:
  // The next `bytes` bytes of the message, to be filled.
  uint8_t* take(size_t bytes) {
    if (capacity_ - size_ < bytes) grow(bytes);
    uint8_t* at = data_ + size_;
    size_ += bytes;
    return at;
  }
  void head(uint8_t tag, size_t count);
  void align(size_t to);
  void append(const void* data, size_t bytes);
  void longText(std::string_view value);
  void grow(size_t bytes);
  void valueAtDepth(const Value& value, int depth);

  std::array<uint8_t, kInlineBytes> inline_;
  std::unique_ptr<uint8_t[]> heap_;
  uint8_t* data_ = inline_.data();
  size_t size_ = 0;
  size_t capacity_ = kInlineBytes;
};

std::vector<uint8_t> encodeMessage(const Value& value);
std::vector<uint8_t> encodeMethodCall(std::string_view method, const Value& arguments);
std::vector<uint8_t> encodeSuccess(const Value& result);
// `message` is a text or null.
std::vector<uint8_t> encodeError(std::string_view code, const Value& message, const Value& details);

}  // namespace mirn
