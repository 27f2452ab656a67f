#pragma once

#include <algorithm>
#include <cstddef>
#include <iterator>
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

/// What of `lines` is left when the log is off: lines of level Always, and those that come from elsewhere.
inline Lines WithTheLogOff(const Lines& lines) {
  Lines left;
  std::copy_if(lines.begin(), lines.end(), std::back_inserter(left), [](const std::string& line) {
    const Lines levels = {"Interface ", "Info ", "Warning ", "Error "};
    return std::none_of(levels.begin(), levels.end(),
                        [&](const std::string& level) { return line.compare(0, level.size(), level) == 0; });
  });
  return left;
}

/// `lines` as often as `times`.
inline Lines Repeated(int times, const Lines& lines) {
  return Join(std::vector<Lines>(static_cast<std::size_t>(times), lines));
}
