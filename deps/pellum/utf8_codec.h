// UTF-8 as RFC 2279 had it (up to six bytes), without checks: the arithmetic behind text_conversions.h. Reentrant.
#pragma once

#include <cstddef>

namespace mirn {

// Bytes that `units` wide units take.
size_t utf8Size(const wchar_t* text, size_t units);
// Writes exactly utf8Size bytes, no NUL.
void utf8Encode(const wchar_t* text, size_t units, char* out);

// `text` is `bytes` long and has a NUL behind that. Its bytes that are no continuation: for well-formed text
// the number of characters.
size_t utf8CountLeads(const char* text, size_t bytes);
// Steps over `text` by its lead bytes alone, never past its end.
size_t utf8CountSteps(const char* text, size_t bytes);

inline constexpr size_t kTooManyCharacters = static_cast<size_t>(-1);
// Returns the number of characters, or kTooManyCharacters when they don't fit (the output is then incomplete).
size_t utf8Decode(const char* text, size_t bytes, wchar_t* out, size_t capacity);

}  // namespace mirn
