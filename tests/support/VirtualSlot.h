#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

/// The place of a virtual operation in its class's table, counted from 0; a virtual destructor takes two. For
/// the C++ ABIs of this system's processors, where a pointer to a virtual member starts with the offset, on
/// some with the lowest bit set.
template <typename TMember>
std::size_t VirtualSlot(TMember member) {
  std::uintptr_t offset = 0;
  static_assert(sizeof(member) == 2 * sizeof(offset));
  std::memcpy(&offset, &member, sizeof(offset));
  return (offset & ~std::uintptr_t{1}) / sizeof(void*);
}
