// Hostile text through every conversion; the quick ways of the codec must agree with the plain one, and what was
// encoded must come back.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "deps/pellum/text_conversions.h"
#include "deps/pellum/utf8_codec.h"

namespace {

void require(bool holds, const char* what) {
  if (!holds) {
    std::fprintf(stderr, "does not hold: %s\n", what);
    std::abort();
  }
}

std::vector<wchar_t> decode(const std::vector<char>& text, mirn::Utf8Way way) {
  const size_t bytes = text.size() - 1;
  std::vector<wchar_t> out(mirn::utf8CountSteps(text.data(), bytes));
  require(mirn::utf8Decode(text.data(), bytes, out.data(), out.size(), way) == out.size(), "steps are counted right");
  return out;
}

void checkNarrow(const std::vector<char>& text) {
  const auto quick = decode(text, mirn::Utf8Way::kBest);
  require(quick == decode(text, mirn::Utf8Way::kPlain), "both ways decode alike");
  const size_t bytes = text.size() - 1;
  require(mirn::utf8CountLeads(text.data(), bytes) == mirn::utf8CountLeads(text.data(), bytes, mirn::Utf8Way::kPlain),
          "both ways count alike");
  wchar_t* out = nullptr;
  unsigned long length = 0;
  require(mirn::UTF82W(text.data(), &out, &length), "UTF82W takes any text");
  const std::unique_ptr<wchar_t[]> owner(out);
  require(std::equal(out, out + length, quick.begin(), quick.end()) && out[length] == 0, "UTF82W");
  static_cast<void>(mirn::UTF82W(text.data()));
  static_cast<void>(mirn::CA2W_(text.data()));
  static_cast<void>(mirn::Is_GBK(text.data()));
  static_cast<void>(mirn::Is_UTF8(text.data()));
}

void checkWide(const std::vector<wchar_t>& text) {
  const size_t units = text.size() - 1;
  std::vector<char> quick(mirn::utf8Size(text.data(), units));
  std::vector<char> plain(mirn::utf8Size(text.data(), units, mirn::Utf8Way::kPlain));
  require(quick.size() == plain.size(), "both ways size alike");
  mirn::utf8Encode(text.data(), units, quick.data());
  mirn::utf8Encode(text.data(), units, plain.data(), mirn::Utf8Way::kPlain);
  require(quick == plain, "both ways encode alike");
  char* out = nullptr;
  unsigned long length = 0;
  require(mirn::W2UTF8(text.data(), &out, &length), "W2UTF8 takes any text");
  const std::unique_ptr<char[]> owner(out);
  require(std::equal(out, out + length, quick.begin(), quick.end()) && out[length] == '\0', "W2UTF8");
  bool negative = false;
  for (const wchar_t unit : text) {
    negative = negative || static_cast<int32_t>(unit) < 0;
  }
  if (!negative) {
    wchar_t* back = nullptr;
    unsigned long characters = 0;
    require(mirn::UTF82W(out, &back, &characters), "UTF82W");
    const std::unique_ptr<wchar_t[]> back_owner(back);
    require(std::equal(back, back + characters, text.begin(), text.end() - 1), "text comes back");
    require(mirn::Is_UTF8(out), "what is encoded is UTF-8");
  }
  static_cast<void>(mirn::CW2A_(text.data()));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  // Up to the first NUL, in blocks of their exact sizes: the address sanitizer sees every step too far.
  std::vector<char> narrow(data, data + strnlen(reinterpret_cast<const char*>(data), size));
  narrow.push_back('\0');
  narrow.shrink_to_fit();
  checkNarrow(narrow);

  std::vector<wchar_t> wide(size / sizeof(wchar_t));
  if (!wide.empty()) {
    std::memcpy(wide.data(), data, wide.size() * sizeof(wchar_t));
  }
  for (size_t i = 0; i < wide.size(); ++i) {
    if (wide[i] == 0) {
      wide.resize(i);
    }
  }
  wide.push_back(0);
  wide.shrink_to_fit();
  checkWide(wide);
  return 0;
}
