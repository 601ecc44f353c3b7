// UTF-8 and Base64 conversions.
//
// Invalid UTF-8 decodes to one U+FFFD per bad sequence (the longest prefix of a valid sequence
// counts as one), and nothing past the given length is read. An unpaired surrogate encodes to
// U+FFFD. Base64 decoding takes the standard alphabet (and '-' '_' of the URL form), skips every
// other character, stops at the first '=', decodes a final group of 2 or 3 characters without
// padding to 1 or 2 bytes and drops a lone final character. It never writes more than
// CalculateRequiredDecodeOutputBufferSize gave for the same text.
//
// Nothing here is inline: every operation lives in the library.
#pragma once

#include <qorxmlu/Export.h>
#include <qorxmlu/foundation/String.h>

#include <cstddef>

namespace QOR {

// With buffer null: the bytes the UTF-8 text needs, its NUL and the mark included. Otherwise writes
// them there and returns the same count. addMark puts EF BB BF in front.
QORXMLU_API std::size_t EncodeToUTF8(const String& text, char* buffer, bool addMark);
// Decodes zero-terminated UTF-8 (a null text gives an empty String). skipMark drops a leading
// EF BB BF.
QORXMLU_API String DecodeFromUTF8(const char* text, bool skipMark);
QORXMLU_API String DecodeFromUTF8(const char* text, std::size_t length, bool skipMark);

// Raw forms: output must hold length units (decode) or 3 bytes a unit (encode); return the count.
QORXMLU_API std::size_t DecodeUtf8Units(const char* input, std::size_t length, char16_t* output);
QORXMLU_API std::size_t EncodeUtf8Units(const char16_t* input, std::size_t length, char* output);

// The bytes that decoding this Base64 text can need at most.
QORXMLU_API std::size_t CalculateRequiredDecodeOutputBufferSize(const char* text);
QORXMLU_API std::size_t CalculateRequiredDecodeOutputBufferSize(std::size_t textLength);
// Decodes zero-terminated Base64 text into output and returns the byte count.
QORXMLU_API std::size_t Base64DecodeBuffer(const char* text, void* output);
QORXMLU_API std::size_t Base64DecodeBuffer(const char* text, std::size_t length, void* output);

} // namespace QOR
