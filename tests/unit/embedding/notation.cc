#include "tests/unit/embedding/notation.h"

#include <bit>
#include <charconv>
#include <cmath>
#include <limits>
#include <stdexcept>

namespace mirn::test {
namespace {

class Parser {
 public:
  explicit Parser(std::string_view text) : text_(text) {}

  Value document() {
    Value result = value();
    if (at_ != text_.size()) fail("something follows the value");
    return result;
  }

 private:
  [[noreturn]] void fail(const std::string& why) const {
    throw std::runtime_error(why + " at offset " + std::to_string(at_) + " of " + std::string(text_.substr(0, 60)));
  }

  bool take(std::string_view word) {
    if (!text_.substr(at_).starts_with(word)) return false;
    at_ += word.size();
    return true;
  }

  void expect(std::string_view word) {
    if (!take(word)) fail("expected " + std::string(word));
  }

  Value value() {
    if (take("null")) return {};
    if (take("true")) return true;
    if (take("false")) return false;
    if (take("rawstring(")) return raw();
    if (take("u8[")) return typed<uint8_t>();
    if (take("i32[")) return typed<int32_t>();
    if (take("i64[")) return typed<int64_t>();
    if (take("f32[")) return typed<float>();
    if (take("f64[")) return typed<double>();
    if (take("[")) return list();
    if (take("{")) return map();
    if (take("\"")) return text();
    return number();
  }

  Value raw() {
    const size_t end = text_.find(')', at_);
    const std::vector<uint8_t> bytes = parseHex(text_.substr(at_, end - at_));
    at_ = end + 1;
    return std::string(bytes.begin(), bytes.end());
  }

  template <typename T>
  Value typed() {
    std::vector<T> result;
    while (!take("]")) {
      if (!result.empty()) expect(", ");
      const Value element = number();
      if (const auto* whole = std::get_if<int32_t>(&element)) {
        result.push_back(static_cast<T>(*whole));
      } else if (const auto* wide = std::get_if<int64_t>(&element)) {
        result.push_back(static_cast<T>(*wide));
      } else {
        result.push_back(static_cast<T>(std::get<double>(element)));
      }
    }
    return result;
  }

  Value list() {
    ValueList result;
    while (!take("]")) {
      if (!result.empty()) expect(", ");
      result.push_back(value());
    }
    return result;
  }

  Value map() {
    ValueMap result;
    while (!take("}")) {
      if (!result.empty()) expect(", ");
      Value key = value();
      expect(": ");
      result.emplace_back(std::move(key), value());
    }
    return result;
  }

  uint32_t fourDigits() {
    uint32_t unit = 0;
    const auto parsed = std::from_chars(text_.data() + at_, text_.data() + at_ + 4, unit, 16);
    if (parsed.ec != std::errc() || parsed.ptr != text_.data() + at_ + 4) fail("bad escape");
    at_ += 4;
    return unit;
  }

  static void appendUtf8(std::string* out, uint32_t code) {
    if (code < 0x80) {
      *out += static_cast<char>(code);
    } else if (code < 0x800) {
      *out += static_cast<char>(0xC0 | (code >> 6));
      *out += static_cast<char>(0x80 | (code & 0x3F));
    } else if (code < 0x10000) {
      *out += static_cast<char>(0xE0 | (code >> 12));
      *out += static_cast<char>(0x80 | ((code >> 6) & 0x3F));
      *out += static_cast<char>(0x80 | (code & 0x3F));
    } else {
      *out += static_cast<char>(0xF0 | (code >> 18));
      *out += static_cast<char>(0x80 | ((code >> 12) & 0x3F));
      *out += static_cast<char>(0x80 | ((code >> 6) & 0x3F));
      *out += static_cast<char>(0x80 | (code & 0x3F));
    }
  }

  Value text() {
    std::string result;
    while (!take("\"")) {
      if (at_ >= text_.size()) fail("open text");
      if (take("\\u")) {
        uint32_t code = fourDigits();
        if (code >= 0xD800 && code < 0xDC00) {
          expect("\\u");
          code = 0x10000 + ((code - 0xD800) << 10) + (fourDigits() - 0xDC00);
        }
        appendUtf8(&result, code);
      } else if (take("\\n")) {
        result += '\n';
      } else {
        take("\\");
        result += text_[at_++];
      }
    }
    return result;
  }

  Value number() {
    const size_t end = text_.find_first_of(",]}: ", at_);
    const std::string word(text_.substr(at_, end == std::string_view::npos ? end : end - at_));
    at_ += word.size();
    if (word == "NaN") return std::numeric_limits<double>::quiet_NaN();
    if (word == "Infinity") return std::numeric_limits<double>::infinity();
    if (word == "-Infinity") return -std::numeric_limits<double>::infinity();
    if (word.empty()) fail("expected a value");
    if (word.find_first_of(".e") != std::string::npos) return std::stod(word);
    const int64_t whole = std::stoll(word);
    if (whole >= std::numeric_limits<int32_t>::min() && whole <= std::numeric_limits<int32_t>::max()) {
      return static_cast<int32_t>(whole);
    }
    return whole;
  }

  std::string_view text_;
  size_t at_ = 0;
};

bool alikeNumbers(double left, double right) {
  if (std::isnan(left) || std::isnan(right)) return std::isnan(left) && std::isnan(right);
  return std::bit_cast<uint64_t>(left) == std::bit_cast<uint64_t>(right);
}

template <typename T>
bool alikeElements(const std::vector<T>& left, const std::vector<T>& right) {
  if (left.size() != right.size()) return false;
  for (size_t i = 0; i < left.size(); ++i) {
    if (!alikeNumbers(left[i], right[i])) return false;
  }
  return true;
}

}  // namespace

Value parseNotation(std::string_view text) {
  return Parser(text).document();
}

std::vector<uint8_t> parseHex(std::string_view hex) {
  std::vector<uint8_t> bytes;
  if (hex.size() % 2 != 0) throw std::runtime_error("odd number of hex digits");
  for (size_t i = 0; i < hex.size(); i += 2) {
    uint8_t byte = 0;
    const auto parsed = std::from_chars(hex.data() + i, hex.data() + i + 2, byte, 16);
    if (parsed.ptr != hex.data() + i + 2) throw std::runtime_error("bad hex digit");
    bytes.push_back(byte);
  }
  return bytes;
}

std::string toHex(const std::vector<uint8_t>& bytes) {
  constexpr char kDigits[] = "0123456789abcdef";
  std::string hex;
  for (const uint8_t byte : bytes) {
    hex += kDigits[byte >> 4];
    hex += kDigits[byte & 15];
  }
  return hex;
}

bool alike(const Value& left, const Value& right) {
  const auto integer = [](const Value& value, int64_t* out) {
    if (const auto* small = std::get_if<int32_t>(&value)) return *out = *small, true;
    if (const auto* large = std::get_if<int64_t>(&value)) return *out = *large, true;
    return false;
  };
  int64_t left_number = 0;
  int64_t right_number = 0;
  if (integer(left, &left_number) && integer(right, &right_number)) return left_number == right_number;
  if (left.index() != right.index()) return false;
  if (const auto* number = std::get_if<double>(&left)) return alikeNumbers(*number, std::get<double>(right));
  if (const auto* floats = std::get_if<std::vector<float>>(&left)) {
    return alikeElements(*floats, std::get<std::vector<float>>(right));
  }
  if (const auto* doubles = std::get_if<std::vector<double>>(&left)) {
    return alikeElements(*doubles, std::get<std::vector<double>>(right));
  }
  if (const ValueList* list = left.asList()) {
    const ValueList& other = *right.asList();
    if (list->size() != other.size()) return false;
    for (size_t i = 0; i < list->size(); ++i) {
      if (!alike((*list)[i], other[i])) return false;
    }
    return true;
  }
  if (const ValueMap* map = left.asMap()) {
    const ValueMap& other = *right.asMap();
    if (map->size() != other.size()) return false;
    for (size_t i = 0; i < map->size(); ++i) {
      if (!alike((*map)[i].first, other[i].first) || !alike((*map)[i].second, other[i].second)) return false;
    }
    return true;
  }
  return static_cast<const Value::Base&>(left) == static_cast<const Value::Base&>(right);
}

}  // namespace mirn::test
