// Messages, formatted as printf does. The conversions that log lines are made of take a short way here (a third of the
// time); a format with anything else goes to vsnprintf as a whole.
#include <algorithm>
#include <charconv>
#include <cstdint>
#include <cstdio>
#include <cstring>

#include "deps/pellum/logger/filelog_line.h"

namespace mirn {
namespace {

// A text of bounded size that goes on counting nothing once it is full.
class MessageWriter {
 public:
  explicit MessageWriter(char* out) : start_(out), at_(out), end_(out + kMessageBytes - 1) {}

  void put(const char* text, size_t length) {
    const size_t fitting = std::min(length, static_cast<size_t>(end_ - at_));
    std::memcpy(at_, text, fitting);
    at_ += fitting;
  }
  template <typename Number>
  void putNumber(Number number, int base = 10) {
    constexpr size_t kLongestNumber = 24;
    char digits[kLongestNumber];
    const bool fits = room() >= kLongestNumber;
    char* const first = fits ? at_ : digits;
    char* const last = std::to_chars(first, first + kLongestNumber, number, base).ptr;
    if (fits) {
      at_ = last;
    } else {
      put(digits, static_cast<size_t>(last - first));
    }
  }
  // Up to the next '%' or the end, to which it returns a pointer. The pieces are short: a loop beats two calls.
  const char* putLiteral(const char* format) {
    for (; *format != '%' && *format != '\0'; ++format) {
      if (at_ != end_) {
        *at_++ = *format;
      }
    }
    return format;
  }
  size_t finish() {
    *at_ = '\0';
    return static_cast<size_t>(at_ - start_);
  }
  size_t room() const { return static_cast<size_t>(end_ - at_); }

 private:
  char* start_;
  char* at_;
  char* end_;
};

// A va_list that can be handed on by reference on every platform.
struct Arguments {
  va_list list;
};

enum class Step { kDone, kMessageEnds, kNotHere };

// `conversion` stands behind the '%' and is moved behind the conversion.
Step putConversion(MessageWriter& out, const char*& conversion, Arguments& arguments) {
  const bool is_long = *conversion == 'l' || *conversion == 'z';  // size_t is as wide as unsigned long
  conversion += is_long ? 1 : 0;
  switch (*conversion++) {
    case 'd':
      out.putNumber(is_long ? va_arg(arguments.list, long) : long{va_arg(arguments.list, int)});
      return Step::kDone;
    case 'u':
      out.putNumber(is_long ? va_arg(arguments.list, unsigned long) : va_arg(arguments.list, unsigned));
      return Step::kDone;
    case 'x':
      out.putNumber(is_long ? va_arg(arguments.list, unsigned long) : va_arg(arguments.list, unsigned), 16);
      return Step::kDone;
    case 's': {
      if (is_long) {
        return Step::kNotHere;  // wide text
      }
      const char* text = va_arg(arguments.list, const char*);
      text = text ? text : "(null)";
      out.put(text, strnlen(text, out.room()));
      return Step::kDone;
    }
    case 'c': {
      const auto character = static_cast<char>(va_arg(arguments.list, int));
      if (is_long || character == '\0') {
        return is_long ? Step::kNotHere : Step::kMessageEnds;
      }
      out.put(&character, 1);
      return Step::kDone;
    }
    case '%':
      out.put("%", 1);
      return is_long ? Step::kNotHere : Step::kDone;
    default:
      return Step::kNotHere;
  }
}

// False when the format needs vsnprintf.
bool formatShortWay(MessageWriter& out, const char* format, Arguments& arguments) {
  while (true) {
    const char* const percent = out.putLiteral(format);
    if (*percent == '\0') {
      return true;
    }
    format = percent + 1;
    const Step step = putConversion(out, format, arguments);
    if (step != Step::kDone) {
      return step == Step::kMessageEnds;
    }
  }
}

}  // namespace

size_t formatMessage(char* out, const char* format, va_list arguments) {
  out[0] = '\0';
  if (!format) {
    return 0;
  }
  Arguments copy;
  va_copy(copy.list, arguments);
  MessageWriter writer(out);
  const bool done = formatShortWay(writer, format, copy);
  va_end(copy.list);
  if (done) {
    return writer.finish();
  }
  const int length = std::vsnprintf(out, kMessageBytes, format, arguments);
  if (length < 0) {
    out[0] = '\0';
    return 0;
  }
  // Not the returned length: a "%c" may have printed a NUL, and the message is the text before it.
  return strnlen(out, kMessageBytes - 1);
}

}  // namespace mirn
