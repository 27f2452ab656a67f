/// @file
/// The platform's integer and character types.
#pragma once

#include <cstdint>
#include <string>

using TInt = int;               ///< as wide as the processor likes
using TInt32 = std::int32_t;    ///< with sign, 32 bits
using TUint32 = std::uint32_t;  ///< without sign, 32 bits
using TUint64 = std::uint64_t;  ///< without sign, 64 bits
using TUint16 = std::uint16_t;  ///< without sign, 16 bits
using TUint8 = std::uint8_t;    ///< a byte

/// A truth value of 32 bits. Every non-zero value counts as true; operations answer ETrue or EFalse.
using TBool = TInt32;
constexpr TBool EFalse = 0;  ///< no
constexpr TBool ETrue = 1;   ///< yes

/// A byte of text; `const TChr*` is a zero-terminated byte string.
using TChr = unsigned char;

/// A feature's id: a byte string, which may hold any byte.
using TFeatureId = std::string;

/// The same characters as a platform string. The result lives as long as `text`.
inline const TChr* AsTChr(const char* text) {
  return reinterpret_cast<const TChr*>(text);
}
/// The same of a string.
inline const TChr* AsTChr(const std::string& text) {
  return AsTChr(text.c_str());
}

/// The same characters as a C string. The result lives as long as `text`.
inline const char* AsChar(const TChr* text) {
  return reinterpret_cast<const char*>(text);
}
