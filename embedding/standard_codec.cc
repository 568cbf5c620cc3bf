// Reading: one cursor with all the checks (MessageWalk), the views over what it has passed, and values made from views.
#include "embedding/standard_codec.h"

#include <cstring>
#include <limits>

#include "embedding/key_index.h"

namespace mirn {
namespace {

enum Tag : uint8_t {
  kTagNull = 0,
  kTagTrue = 1,
  kTagFalse = 2,
  kTagInt32 = 3,
  kTagInt64 = 4,
  kTagFloat64 = 6,
  kTagText = 7,
  kTagUint8List = 8,
  kTagInt32List = 9,
  kTagInt64List = 10,
  kTagFloat64List = 11,
  kTagList = 12,
  kTagMap = 13,
  kTagFloat32List = 14,
};

// How the payload of a tag is laid out.
struct Layout {
  ValueKind kind = ValueKind::kAbsent;  // kAbsent: the codec does not know the tag
  bool sized = false;                   // a size precedes it
  uint8_t alignment = 1;
  uint8_t element = 0;  // bytes of each element, or of the payload where there is no size
};

// By tag. Tag 5 (large integers as text) is obsolete: nothing writes it, and it is refused.
constexpr std::array<Layout, 15> kLayouts = {{
    {ValueKind::kNull, false, 1, 0},
    {ValueKind::kBool, false, 1, 0},
    {ValueKind::kBool, false, 1, 0},
    {ValueKind::kInt32, false, 1, 4},
    {ValueKind::kInt64, false, 1, 8},
    {},
    {ValueKind::kDouble, false, 8, 8},
    {ValueKind::kText, true, 1, 1},
    {ValueKind::kUint8List, true, 1, 1},
    {ValueKind::kInt32List, true, 4, 4},
    {ValueKind::kInt64List, true, 8, 8},
    {ValueKind::kFloat64List, true, 8, 8},
    {ValueKind::kList, true, 1, 0},
    {ValueKind::kMap, true, 1, 0},
    {ValueKind::kFloat32List, true, 4, 4},
}};

template <typename T>
T load(const uint8_t* at) {
  T value;
  std::memcpy(&value, at, sizeof(T));
  return value;
}

bool isContainer(ValueKind kind) {
  return kind == ValueKind::kList || kind == ValueKind::kMap;
}

// Values directly inside a container.
uint64_t childrenOf(const ValueView& container) {
  return container.kind() == ValueKind::kMap ? uint64_t{container.size()} * 2 : container.size();
}

}  // namespace

// The cursor over one message. Everything is read through head(); nothing else looks at an unchecked byte.
class MessageWalk {
 public:
  explicit MessageWalk(Bytes message, size_t at = 0) : begin_(message.data()), size_(message.size()), at_(at) {}

  // A cursor inside a message that was walked before.
  static MessageWalk inside(const ValueView& container) {
    return MessageWalk(Bytes(container.message_, std::numeric_limits<uint32_t>::max()), container.at_);
  }

  size_t remaining() const { return size_ - at_; }

  // Reads a value's tag, size and padding and steps over its payload; for a list or map it stops before the first
  // child.
  CodecError head(ValueView* view) {
    if (remaining() == 0) return CodecError::kOutOfData;
    const uint8_t tag = begin_[at_++];
    if (tag == kTagInt32) return int32(view);  // the most frequent ones have a way of their own
    if (tag == kTagText) return text(view);
    if (tag >= kLayouts.size()) return CodecError::kUnsupportedType;
    const Layout& layout = kLayouts[tag];
    if (layout.kind == ValueKind::kAbsent) return CodecError::kUnsupportedType;
    uint32_t size = tag == kTagTrue ? 1 : 0;
    if (layout.sized && !readSize(&size)) return CodecError::kOutOfData;
    const size_t padding = (0 - at_) & (layout.alignment - 1U);  // a power of two
    if (padding > remaining()) return CodecError::kOutOfData;
    at_ += padding;
    const uint64_t payload = uint64_t{layout.element} * (layout.sized ? size : 1);
    if (payload > remaining()) return CodecError::kOutOfData;
    place(view, layout.kind, size, payload);
    // Each child takes a byte at least.
    if (isContainer(layout.kind) && childrenOf(*view) > remaining()) return CodecError::kOutOfData;
    return CodecError::kNone;
  }

  // Steps over a whole value, children and all.
  CodecError whole(ValueView* view) {
    const CodecError error = head(view);
    if (error != CodecError::kNone || !isContainer(view->kind_)) return error;
    const CodecError inner = children(childrenOf(*view));
    view->end_ = static_cast<uint32_t>(at_);
    return inner;
  }

  // The same where the message was walked before: nothing can fail.
  ValueView next() {
    ValueView view;
    head(&view);
    for (uint64_t pending = isContainer(view.kind_) ? childrenOf(view) : 0; pending > 0; --pending) {
      ValueView child;
      head(&child);
      if (isContainer(child.kind_)) pending += childrenOf(child);
    }
    view.end_ = static_cast<uint32_t>(at_);
    return view;
  }

 private:
  CodecError int32(ValueView* view) {
    if (remaining() < sizeof(int32_t)) return CodecError::kOutOfData;
    place(view, ValueKind::kInt32, 0, sizeof(int32_t));
    return CodecError::kNone;
  }

  CodecError text(ValueView* view) {
    uint32_t size = 0;
    if (!readSize(&size) || size > remaining()) return CodecError::kOutOfData;
    place(view, ValueKind::kText, size, size);
    return CodecError::kNone;
  }

  // A value whose payload of `bytes` begins at the cursor.
  void place(ValueView* view, ValueKind kind, uint32_t size, size_t bytes) {
    view->message_ = begin_;
    view->kind_ = kind;
    view->size_ = size;
    view->at_ = static_cast<uint32_t>(at_);
    at_ += bytes;
    view->end_ = static_cast<uint32_t>(at_);
  }

  // 0..253 in one byte; 254 and 255 announce two and four bytes. Longer forms than needed are accepted.
  bool readSize(uint32_t* size) {
    if (remaining() == 0) return false;
    const uint8_t first = begin_[at_++];
    if (first < 254) {
      *size = first;
      return true;
    }
    const size_t bytes = first == 254 ? 2 : 4;
    if (remaining() < bytes) return false;
    *size = first == 254 ? load<uint16_t>(begin_ + at_) : load<uint32_t>(begin_ + at_);
    at_ += bytes;
    return true;
  }

  // The children of an outermost container, without recursion: what is left to read at each level.
  CodecError children(uint64_t count) {
    std::array<uint64_t, kMaxDepth> left;  // set as levels are entered
    int depth = 0;
    left[0] = count;
    while (depth >= 0) {
      if (left[depth] == 0) {
        --depth;
        continue;
      }
      --left[depth];
      ValueView child;
      const CodecError error = head(&child);
      if (error != CodecError::kNone) return error;
      if (!isContainer(child.kind_)) continue;
      if (depth + 1 >= kMaxDepth) return CodecError::kTooDeep;
      left[++depth] = childrenOf(child);
    }
    return CodecError::kNone;
  }

  const uint8_t* begin_;
  size_t size_;
  size_t at_;
};

std::string_view describe(CodecError error) {
  switch (error) {
    case CodecError::kNone:
      return "no error";
    case CodecError::kOutOfData:
      return "the message ends inside a value";
    case CodecError::kTrailingData:
      return "bytes remain after the last value";
    case CodecError::kUnsupportedType:
      return "unknown type tag";
    case CodecError::kTooDeep:
      return "lists and maps are nested more than 64 deep";
    case CodecError::kWrongType:
      return "a value that must be a text is something else";
    case CodecError::kBadEnvelope:
      return "a reply begins with neither 0 nor 1";
  }
  return "unknown error";
}

bool ValueView::boolean() const {
  return kind_ == ValueKind::kBool && size_ == 1;
}

int64_t ValueView::integer() const {
  if (kind_ == ValueKind::kInt32) return load<int32_t>(message_ + at_);
  if (kind_ == ValueKind::kInt64) return load<int64_t>(message_ + at_);
  return 0;
}

double ValueView::number() const {
  return kind_ == ValueKind::kDouble ? load<double>(message_ + at_) : 0.0;
}

std::string_view ValueView::text() const {
  if (kind_ != ValueKind::kText) return {};
  return {reinterpret_cast<const char*>(message_ + at_), size_};
}

bool ValueView::integerAt(uint32_t index, int64_t* out) const {
  if (index >= size_) return false;
  const uint8_t* payload = message_ + at_;
  switch (kind_) {
    case ValueKind::kUint8List:
      *out = payload[index];
      return true;
    case ValueKind::kInt32List:
      *out = load<int32_t>(payload + size_t{index} * 4);
      return true;
    case ValueKind::kInt64List:
      *out = load<int64_t>(payload + size_t{index} * 8);
      return true;
    case ValueKind::kList:
      break;
    default:
      return false;
  }
  MessageWalk walk = MessageWalk::inside(*this);
  ValueView element;
  for (uint64_t i = 0; i <= index; ++i) element = walk.next();
  if (element.kind() != ValueKind::kInt32 && element.kind() != ValueKind::kInt64) return false;
  *out = element.integer();
  return true;
}

bool ValueView::isIntegerList() const {
  switch (kind_) {
    case ValueKind::kUint8List:
    case ValueKind::kInt32List:
    case ValueKind::kInt64List:
      return true;
    case ValueKind::kList:
      break;
    default:
      return false;
  }
  MessageWalk walk = MessageWalk::inside(*this);
  for (uint32_t i = 0; i < size_; ++i) {
    const ValueView element = walk.next();
    if (element.kind() != ValueKind::kInt32 && element.kind() != ValueKind::kInt64) return false;
  }
  return true;
}

ValueView ValueView::find(std::string_view key) const {
  ValueView value;
  findAll({&key, 1}, {&value, 1});
  return value;
}

void ValueView::findAll(std::span<const std::string_view> keys, std::span<ValueView> values) const {
  for (ValueView& value : values) value = ValueView();
  if (kind_ != ValueKind::kMap) return;
  MessageWalk walk = MessageWalk::inside(*this);
  for (uint32_t pair = 0; pair < size_; ++pair) {
    const ValueView key = walk.next();
    const ValueView value = walk.next();
    if (key.kind_ != ValueKind::kText) continue;
    for (size_t i = 0; i < keys.size() && i < values.size(); ++i) {
      if (keys[i] == key.text()) values[i] = value;
    }
  }
}

namespace {

template <typename T>
std::vector<T> elements(const uint8_t* payload, uint32_t count) {
  std::vector<T> result(count);
  if (count > 0) std::memcpy(result.data(), payload, size_t{count} * sizeof(T));
  return result;
}

// Below this a plain search for a doubled key is quicker than an index.
constexpr uint32_t kSmallMap = 16;

// The last of several equal keys gives the value, the first the place.
ValueMap mapOf(MessageWalk walk, uint32_t pairs) {
  ValueMap map;
  map.reserve(pairs);
  KeyIndex index(map, pairs > kSmallMap);
  for (uint32_t pair = 0; pair < pairs; ++pair) {
    Value key = walk.next().toValue();
    Value value = walk.next().toValue();
    const size_t known = index.find(key);
    if (known != KeyIndex::kNone) {
      map[known].second = std::move(value);
      continue;
    }
    map.emplace_back(std::move(key), std::move(value));
    index.appended();
  }
  return map;
}

ValueList listOf(MessageWalk walk, uint32_t count) {
  ValueList list;
  list.reserve(count);
  for (uint32_t i = 0; i < count; ++i) list.push_back(walk.next().toValue());
  return list;
}

}  // namespace

// Recursive: the walk has limited the depth.
Value ValueView::toValue() const {
  const uint8_t* payload = message_ + at_;
  switch (kind_) {
    case ValueKind::kAbsent:
    case ValueKind::kNull:
      return {};
    case ValueKind::kBool:
      return boolean();
    case ValueKind::kInt32:
      return static_cast<int32_t>(integer());
    case ValueKind::kInt64:
      return integer();
    case ValueKind::kDouble:
      return number();
    case ValueKind::kText:
      return text();
    case ValueKind::kUint8List:
      return elements<uint8_t>(payload, size_);
    case ValueKind::kInt32List:
      return elements<int32_t>(payload, size_);
    case ValueKind::kInt64List:
      return elements<int64_t>(payload, size_);
    case ValueKind::kFloat32List:
      return elements<float>(payload, size_);
    case ValueKind::kFloat64List:
      return elements<double>(payload, size_);
    case ValueKind::kList:
      return listOf(MessageWalk::inside(*this), size_);
    case ValueKind::kMap:
      return mapOf(MessageWalk::inside(*this), size_);
  }
  return {};
}

namespace {

bool tooLong(Bytes message) {
  return message.size() > std::numeric_limits<uint32_t>::max();
}

CodecError lastValue(MessageWalk& walk, ValueView* out) {
  const CodecError error = walk.whole(out);
  if (error != CodecError::kNone) return error;
  return walk.remaining() == 0 ? CodecError::kNone : CodecError::kTrailingData;
}

CodecError textValue(MessageWalk& walk, bool or_null, ValueView* out) {
  const CodecError error = walk.whole(out);
  if (error != CodecError::kNone) return error;
  const bool fits = out->kind() == ValueKind::kText || (or_null && out->kind() == ValueKind::kNull);
  return fits ? CodecError::kNone : CodecError::kWrongType;
}

CodecError decodeErrorEnvelope(MessageWalk& walk, Envelope* out) {
  ValueView code;
  ValueView message;
  ValueView details;
  CodecError error = textValue(walk, false, &code);
  if (error == CodecError::kNone) error = textValue(walk, true, &message);
  if (error == CodecError::kNone) error = lastValue(walk, &details);
  if (error != CodecError::kNone) return error;
  *out = {Envelope::Kind::kError, Value(), std::string(code.text()), message.toValue(), details.toValue()};
  return CodecError::kNone;
}

}  // namespace

CodecError viewMessage(Bytes message, ValueView* out) {
  if (tooLong(message)) return CodecError::kOutOfData;
  MessageWalk walk(message);
  ValueView view;
  const CodecError error = lastValue(walk, &view);
  if (error == CodecError::kNone) *out = view;
  return error;
}

CodecError viewMethodCall(Bytes message, MethodCallView* out) {
  if (tooLong(message)) return CodecError::kOutOfData;
  MessageWalk walk(message);
  ValueView method;
  CodecError error = textValue(walk, false, &method);
  if (error != CodecError::kNone) return error;
  ValueView arguments;
  error = lastValue(walk, &arguments);
  if (error == CodecError::kNone) *out = {method.text(), arguments};
  return error;
}

CodecError decodeMessage(Bytes message, Value* out) {
  if (message.empty()) {
    *out = Value();
    return CodecError::kNone;
  }
  ValueView view;
  const CodecError error = viewMessage(message, &view);
  if (error == CodecError::kNone) *out = view.toValue();
  return error;
}

CodecError decodeMethodCall(Bytes message, MethodCall* out) {
  MethodCallView view;
  const CodecError error = viewMethodCall(message, &view);
  if (error == CodecError::kNone) *out = {std::string(view.method), view.arguments.toValue()};
  return error;
}

CodecError decodeEnvelope(Bytes message, Envelope* out) {
  if (message.empty()) {
    *out = Envelope();
    return CodecError::kNone;
  }
  if (tooLong(message)) return CodecError::kOutOfData;
  MessageWalk walk(message, 1);
  if (message[0] == 1) return decodeErrorEnvelope(walk, out);
  if (message[0] != 0) return CodecError::kBadEnvelope;
  ValueView result;
  const CodecError error = lastValue(walk, &result);
  if (error == CodecError::kNone) *out = {Envelope::Kind::kSuccess, result.toValue(), {}, {}, {}};
  return error;
}

}  // namespace mirn
