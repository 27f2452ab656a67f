#pragma once

#include <cstddef>
#include <string>
#include <vector>

/// Lines of a log or of a journal.
using Lines = std::vector<std::string>;

/// The lines of all parts, one part behind the other.
inline Lines Join(const std::vector<Lines>& parts) {
  Lines joined;
  for (const Lines& part : parts) {
    joined.insert(joined.end(), part.begin(), part.end());
  }
  return joined;
}

/// `lines` as often as `times`.
inline Lines Repeated(int times, const Lines& lines) {
  return Join(std::vector<Lines>(static_cast<std::size_t>(times), lines));
}
