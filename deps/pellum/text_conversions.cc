#include "deps/pellum/text_conversions.h"

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <cwchar>
#include <memory>

#include "deps/pellum/utf8_codec.h"

namespace mirn {

bool W2UTF8(const wchar_t* text, char** out, unsigned long* length) {
  if (!text || !out) {
    return false;
  }
  const size_t units = std::wcslen(text);
  const size_t bytes = utf8Size(text, units);
  auto* buffer = new char[bytes + 1];
  utf8Encode(text, units, buffer);
  buffer[bytes] = '\0';
  *out = buffer;
  if (length) {
    *length = bytes;
  }
  return true;
}

bool UTF82W(const char* text, wchar_t** out, unsigned long* length) {
  if (!text || !out) {
    return false;
  }
  const size_t bytes = std::strlen(text);
  size_t capacity = utf8CountLeads(text, bytes);
  auto buffer = std::make_unique_for_overwrite<wchar_t[]>(capacity + 1);
  size_t characters = utf8Decode(text, bytes, buffer.get(), capacity);
  if (characters == kTooManyCharacters) {
    // Malformed: stray continuation bytes are characters of their own.
    capacity = utf8CountSteps(text, bytes);
    buffer = std::make_unique_for_overwrite<wchar_t[]>(capacity + 1);
    characters = utf8Decode(text, bytes, buffer.get(), capacity);
  }
  buffer[characters] = L'\0';
  *out = buffer.release();
  if (length) {
    *length = characters;
  }
  return true;
}

std::string W2UTF8(const wchar_t* text) {
  char* buffer = nullptr;
  unsigned long length = 0;
  if (!W2UTF8(text, &buffer, &length)) {
    return {};
  }
  const std::unique_ptr<char[]> owner(buffer);
  // Up to the first NUL: a negative unit may have left one.
  return {buffer};
}

std::wstring UTF82W(const char* text) {
  if (!text) {
    return {};
  }
  if (!Is_UTF8(text)) {
    return CA2W_(text);
  }
  wchar_t* buffer = nullptr;
  unsigned long length = 0;
  if (!UTF82W(text, &buffer, &length)) {
    return {};
  }
  const std::unique_ptr<wchar_t[]> owner(buffer);
  // Up to the first 0 unit: an overlong form may have made one.
  return {buffer};
}

std::wstring CA2W_(const char* text) {
  if (!text) {
    return {};
  }
  if (Is_UTF8(text)) {
    return UTF82W(text);
  }
  const size_t bytes = std::strlen(text);
  const auto buffer = std::make_unique<wchar_t[]>(bytes + 1);
  if (std::mbstowcs(buffer.get(), text, bytes) == static_cast<size_t>(-1)) {
    return {};
  }
  return {buffer.get()};
}

std::string CW2A_(const wchar_t* text) {
  if (!text) {
    return {};
  }
  const size_t units = std::wcslen(text);
  const auto buffer = std::make_unique<char[]>(units + 1);
  // At most as many bytes as the text has characters. That is meant.
  if (std::wcstombs(buffer.get(), text, units) == static_cast<size_t>(-1)) {
    return {};
  }
  return {buffer.get()};
}

namespace {

// Continuation bytes that a byte calls for when none is expected; -1 when it can't stand there.
int continuationsAfter(uint8_t byte) {
  if (byte < 0x80) {
    return 0;
  }
  if ((byte & 0xFE) == 0xFC) {
    return 5;
  }
  if (byte > 0xF7) {
    return 4;  // 0xFE and 0xFF too. That is meant.
  }
  if (byte >= 0xF0) {
    return 3;
  }
  if (byte >= 0xE0) {
    return 2;
  }
  return byte >= 0xC0 ? 1 : -1;
}

}  // namespace

bool Is_UTF8(const char* text) {
  if (!text) {
    return false;
  }
  int expected = 0;
  for (; *text != '\0'; ++text) {
    const auto byte = static_cast<uint8_t>(*text);
    if (expected > 0) {
      if ((byte & 0xC0) != 0x80) {
        return false;
      }
      --expected;
      continue;
    }
    expected = continuationsAfter(byte);
    if (expected < 0) {
      return false;
    }
  }
  return expected == 0;
}

bool Is_GBK(const char* text) {
  if (!text) {
    return false;
  }
  bool trail = false;
  for (; *text != '\0'; ++text) {
    const auto byte = static_cast<uint8_t>(*text);
    if (trail) {
      if (byte < 0x40 || byte == 0xFF) {
        return false;
      }
      trail = false;
    } else if (byte >= 0x80) {
      if (byte == 0x80 || byte == 0xFF) {
        return false;
      }
      trail = true;
    }
  }
  return !trail;
}

}  // namespace mirn
