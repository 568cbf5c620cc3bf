#include "apps/common/utf8.h"

namespace mirn {
namespace {

// Length that a lead byte announces, 0 for a byte that can't lead.
size_t lengthOfLead(unsigned char lead) {
  if (lead < 0x80) {
    return 1;
  }
  if (lead >= 0xC2 && lead <= 0xDF) {
    return 2;
  }
  if (lead >= 0xE0 && lead <= 0xEF) {
    return 3;
  }
  return lead >= 0xF0 && lead <= 0xF4 ? 4 : 0;
}

bool allowed(char32_t code, size_t length) {
  constexpr char32_t kSmallest[] = {0, 0, 0x80, 0x800, 0x10000};
  return code >= kSmallest[length] && code <= 0x10FFFF && !(code >= 0xD800 && code <= 0xDFFF);
}

// Decodes the character at the start of `text`; its length, 0 when it is no UTF-8.
size_t decodeOne(std::string_view text, char32_t& code) {
  auto lead = static_cast<unsigned char>(text[0]);
  size_t length = lengthOfLead(lead);
  if (length == 0 || length > text.size()) {
    return 0;
  }
  if (length == 1) {
    code = lead;
    return 1;
  }
  code = lead & (0x7FU >> length);
  for (size_t i = 1; i < length; ++i) {
    auto byte = static_cast<unsigned char>(text[i]);
    if ((byte & 0xC0) != 0x80) {
      return 0;
    }
    code = (code << 6) | (byte & 0x3FU);
  }
  return allowed(code, length) ? length : 0;
}

}  // namespace

std::vector<Utf8Character> utf8Characters(std::string_view text) {
  std::vector<Utf8Character> characters;
  characters.reserve(text.size());
  while (!text.empty()) {
    char32_t code = 0;
    size_t length = decodeOne(text, code);
    if (length == 0) {
      characters.push_back({static_cast<unsigned char>(text[0]), false});
      length = 1;
    } else {
      characters.push_back({code, true});
    }
    text.remove_prefix(length);
  }
  return characters;
}

std::string utf8Of(char32_t code) {
  if (code > 0x10FFFF || (code >= 0xD800 && code <= 0xDFFF)) {
    code = 0xFFFD;
  }
  auto byte = [](char32_t value) { return static_cast<char>(static_cast<unsigned char>(value)); };
  if (code < 0x80) {
    return {byte(code)};
  }
  if (code < 0x800) {
    return {byte(0xC0 | (code >> 6)), byte(0x80 | (code & 0x3F))};
  }
  if (code < 0x10000) {
    return {byte(0xE0 | (code >> 12)), byte(0x80 | ((code >> 6) & 0x3F)), byte(0x80 | (code & 0x3F))};
  }
  return {byte(0xF0 | (code >> 18)), byte(0x80 | ((code >> 12) & 0x3F)), byte(0x80 | ((code >> 6) & 0x3F)),
          byte(0x80 | (code & 0x3F))};
}

NameCheck checkDeviceName(std::string_view name) {
  NameCheck check;
  check.bytes = name.size();
  if (name.empty()) {
    check.reason = "The name is empty.";
    return check;
  }
  for (const Utf8Character& character : utf8Characters(name)) {
    if (!character.valid) {
      check.reason = "The name is not valid UTF-8.";
      return check;
    }
    if (character.code < 0x20 || (character.code >= 0x7F && character.code < 0xA0)) {
      check.reason = "The name holds a control character.";
      return check;
    }
  }
  if (check.bytes > kDeviceNameBytes) {
    check.reason = "The name has " + std::to_string(check.bytes) + " bytes in UTF-8; the device takes at most " +
                   std::to_string(kDeviceNameBytes) + ".";
    return check;
  }
  check.ok = true;
  return check;
}

}  // namespace mirn
