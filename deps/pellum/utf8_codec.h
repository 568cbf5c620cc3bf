// UTF-8 as RFC 2279 had it (up to six bytes), without checks: the arithmetic behind text_conversions.h. Reentrant.
#pragma once

#include <cstddef>
#include <cstdint>

namespace mirn {

// Whether a codec may use the processor's byte shuffles where it has them. kPlain is for other processors, and for
// tests that compare both.
enum class Utf8Way { kBest, kPlain };

// Bytes that `units` wide units take.
size_t utf8Size(const wchar_t* text, size_t units, Utf8Way way = Utf8Way::kBest);
// Writes exactly utf8Size bytes, no NUL.
void utf8Encode(const wchar_t* text, size_t units, char* out, Utf8Way way = Utf8Way::kBest);

// The bytes that are no continuation: for well-formed text the number of characters.
size_t utf8CountLeads(const char* text, size_t bytes, Utf8Way way = Utf8Way::kBest);
// Steps over the text by its lead bytes alone, never past its end.
size_t utf8CountSteps(const char* text, size_t bytes);

inline constexpr size_t kTooManyCharacters = static_cast<size_t>(-1);
// Returns the number of characters, or kTooManyCharacters when they don't fit (the output is then incomplete).
size_t utf8Decode(const char* text, size_t bytes, wchar_t* out, size_t capacity, Utf8Way way = Utf8Way::kBest);

// How much of a text has been done.
struct Utf8EncodeState {
  const wchar_t* text;
  const wchar_t* text_end;
  uint8_t* out;
};
struct Utf8DecodeState {
  const uint8_t* text;
  const uint8_t* text_end;
  wchar_t* out;
  wchar_t* out_end;
};

namespace utf8_shuffle {

// False on processors without byte shuffles; then nothing below may be called.
bool available();
// Both go on for as long as their way allows and leave the rest, at least the last units or bytes of a text.
void encode(Utf8EncodeState& state);
void decode(Utf8DecodeState& state);
size_t size(const wchar_t* text, size_t units);
size_t countLeads(const uint8_t* text, size_t bytes);

}  // namespace utf8_shuffle

namespace utf8_plain {

void encodeUnit(Utf8EncodeState& state);
// There must be a byte left, and room for a character.
void decodeCharacter(Utf8DecodeState& state);
size_t size(const wchar_t* text, size_t units);

}  // namespace utf8_plain

}  // namespace mirn
