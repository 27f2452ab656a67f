/// @file
/// Copies of text that stay within their bounds.
#pragma once

#include <cstddef>

/// Copies `size` bytes of text, the terminating zero counted, from `source` to `destination`. A text that
/// does not fit `capacity` is cut so that `destination` stays zero-terminated. Bytes behind the copy are
/// untouched.
void platSafecopy(char* destination, std::size_t capacity, const char* source, std::size_t size);

/// The same for an array, whose size is its capacity.
template <std::size_t kCapacity>
void platSafecopy(char (&destination)[kCapacity], const char* source, std::size_t size) {
  platSafecopy(destination, kCapacity, source, size);
}
