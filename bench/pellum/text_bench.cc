// Text conversions against iconv. iconv gets a ready descriptor and a buffer that is large enough and reused; ours
// allocates its result at every call, as its interface has it.
#include <benchmark/benchmark.h>
#include <iconv.h>

#include <memory>
#include <random>
#include <string>
#include <vector>

#include "deps/pellum/text_conversions.h"

namespace {

enum class Kind { kAscii, kMixed, kCjk };

constexpr size_t kCharacters = 16 << 10;

// Words that are drawn by chance, so that no branch predictor learns the text by heart: Latin with accents, Cyrillic,
// CJK and now and then a sign beyond the basic plane.
constexpr const wchar_t* kMixedWords[] = {L"the ",
                                          L"quick ",
                                          L"Gr\u00f6\u00dfe ",
                                          L"\u00dcberflu\u00df ",
                                          L"d\u00e9j\u00e0 ",
                                          L"se\u00f1or ",
                                          L"100 \u20ac ",
                                          L"keyboard ",
                                          L"ok. ",
                                          L"\u0441\u044a\u0435\u0448\u044c ",
                                          L"\u0435\u0449\u0451 ",
                                          L"\u0431\u0443\u043b\u043e\u043a, ",
                                          L"\u952e\u76d8",
                                          L"\u548c\u9f20\u6807",
                                          L"\u30ad\u30fc\u30dc\u30fc\u30c9",
                                          L"\u3002",
                                          L"\U0001F600 "};
constexpr const wchar_t* kCjkWords[] = {
    L"\u952e\u76d8", L"\u548c\u9f20\u6807", L"\u901a\u8fc7\u4e00\u4e2a", L"\u30ad\u30fc\u30dc\u30fc\u30c9",
    L"\u3002",       L"\u753b\u9762\u306f"};
constexpr const wchar_t* kAsciiWords[] = {L"Plain ", L"text ", L"of letters, ", L"digits ",
                                          L"0123 ",  L"and ",  L"spaces. "};

template <size_t N>
std::wstring drawWords(const wchar_t* const (&words)[N]) {
  std::minstd_rand random(1);
  std::wstring text;
  while (text.size() < kCharacters) {
    text += words[random() % N];
  }
  return text;
}

std::wstring wideText(Kind kind) {
  return kind == Kind::kAscii   ? drawWords(kAsciiWords)
         : kind == Kind::kMixed ? drawWords(kMixedWords)
                                : drawWords(kCjkWords);
}

class Iconv {
 public:
  Iconv(const char* to, const char* from) : handle_(iconv_open(to, from)) {}
  ~Iconv() { iconv_close(handle_); }
  Iconv(const Iconv&) = delete;
  Iconv& operator=(const Iconv&) = delete;

  // Returns the bytes written.
  size_t convert(const void* in, size_t in_bytes, std::vector<char>& out) {
    auto* from = const_cast<char*>(static_cast<const char*>(in));
    char* to = out.data();
    size_t left = out.size();
    return iconv(handle_, &from, &in_bytes, &to, &left) == static_cast<size_t>(-1) ? 0 : out.size() - left;
  }

 private:
  iconv_t handle_;
};

void encodeOurs(benchmark::State& state, Kind kind) {
  const std::wstring text = wideText(kind);
  for (auto _ : state) {
    char* out = nullptr;
    unsigned long length = 0;
    mirn::W2UTF8(text.c_str(), &out, &length);
    const std::unique_ptr<char[]> owner(out);
    benchmark::DoNotOptimize(out[length]);
    state.SetBytesProcessed(state.bytes_processed() + static_cast<int64_t>(length));
  }
}

void encodePeer(benchmark::State& state, Kind kind) {
  const std::wstring text = wideText(kind);
  std::vector<char> out(text.size() * 6);
  Iconv converter("UTF-8", "WCHAR_T");
  for (auto _ : state) {
    const size_t length = converter.convert(text.data(), text.size() * sizeof(wchar_t), out);
    benchmark::DoNotOptimize(out.data());
    if (length == 0) {
      state.SkipWithError("iconv failed");
    }
    state.SetBytesProcessed(state.bytes_processed() + static_cast<int64_t>(length));
  }
}

void decodeOurs(benchmark::State& state, Kind kind) {
  const std::string text = mirn::W2UTF8(wideText(kind).c_str());
  for (auto _ : state) {
    wchar_t* out = nullptr;
    unsigned long length = 0;
    mirn::UTF82W(text.c_str(), &out, &length);
    const std::unique_ptr<wchar_t[]> owner(out);
    benchmark::DoNotOptimize(out[length]);
    state.SetBytesProcessed(state.bytes_processed() + static_cast<int64_t>(text.size()));
  }
}

void decodePeer(benchmark::State& state, Kind kind) {
  const std::string text = mirn::W2UTF8(wideText(kind).c_str());
  std::vector<char> out(text.size() * sizeof(wchar_t));
  Iconv converter("WCHAR_T", "UTF-8");
  for (auto _ : state) {
    const size_t length = converter.convert(text.data(), text.size(), out);
    benchmark::DoNotOptimize(out.data());
    if (length == 0) {
      state.SkipWithError("iconv failed");
    }
    state.SetBytesProcessed(state.bytes_processed() + static_cast<int64_t>(text.size()));
  }
}

}  // namespace

#define TEXT_BENCH(kind, label)                                                     \
  BENCHMARK_CAPTURE(encodeOurs, label, kind)->Name("W2UTF8 " #label "/ours");       \
  BENCHMARK_CAPTURE(encodePeer, label, kind)->Name("W2UTF8 " #label "/peer:iconv"); \
  BENCHMARK_CAPTURE(decodeOurs, label, kind)->Name("UTF82W " #label "/ours");       \
  BENCHMARK_CAPTURE(decodePeer, label, kind)->Name("UTF82W " #label "/peer:iconv")

TEXT_BENCH(Kind::kAscii, ASCII);
TEXT_BENCH(Kind::kMixed, mixed);
TEXT_BENCH(Kind::kCjk, CJK);

BENCHMARK_MAIN();
