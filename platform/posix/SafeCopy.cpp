#include "SafeCopy.h"

#include <cstring>

void platSafecopy(char* destination, std::size_t capacity, const char* source, std::size_t size) {
  if (capacity == 0 || size == 0) {
    return;
  }
  // A text that fills the array goes the other way, which ends it even if its last byte is none.
  if (size < capacity) {
    std::memcpy(destination, source, size);
    return;
  }
  std::memcpy(destination, source, capacity - 1);
  destination[capacity - 1] = '\0';
}
