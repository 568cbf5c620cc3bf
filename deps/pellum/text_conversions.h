// Conversions between wide text (wchar_t, 32 bits, one code point a unit), UTF-8 and the C library's multibyte
// encoding. Reentrant; CA2W_ and CW2A_ follow the process's C locale. Nothing throws on bad input.
#pragma once

#include <string>

namespace mirn {

// Out-buffer forms: `*out` is a new[] array that the caller releases with delete[]; `*length` (may be null) excludes
// the terminating NUL, which the buffer always holds. False, with the outputs untouched, for a null text or a null
// `out`.

// Up to six bytes a unit, as RFC 2279 has it; surrogates are encoded like any other value, a negative unit is stored as
// its low 8 bits.
bool W2UTF8(const wchar_t* text, char** out, unsigned long* length);
// Continuation bytes are not checked: the text should have passed Is_UTF8. A sequence that the terminating NUL cuts
// short reads as if its missing bytes were 0x80.
bool UTF82W(const char* text, wchar_t** out, unsigned long* length);

// The encoded bytes up to the first NUL; empty for a null text.
std::string W2UTF8(const wchar_t* text);
// UTF-8 if Is_UTF8 accepts the text, otherwise CA2W_; empty for a null text.
std::wstring UTF82W(const char* text);

// UTF-8 if Is_UTF8 accepts the text, otherwise in the current C locale; empty when that fails.
std::wstring CA2W_(const char* text);
// In the current C locale; empty when that fails. The output is limited to as many bytes as the text has characters:
// what needs more is cut off at a character boundary. That is meant.
std::string CW2A_(const wchar_t* text);

// Plausibility by lead and continuation bytes alone: overlong forms, surrogates and the leads 0xC0, 0xC1, 0xFE, 0xFF
// pass. True for an empty text, false for null.
bool Is_UTF8(const char* text);
// Pairs of lead 0x81..0xFE and trail 0x40..0xFE. True for an empty text, false for null.
bool Is_GBK(const char* text);

}  // namespace mirn
