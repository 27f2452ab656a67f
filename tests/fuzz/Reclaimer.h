#pragma once

#include <cstddef>

namespace fuzz {

/// Between its construction and its end on the same thread it takes note of every malloc and every fopen, and
/// in the end gives back what was not given back: the engine keeps a buffer and a file on purpose when a
/// file's receiver never starts, which no process could afford some thousand times a second. Linked with
/// --wrap=malloc,free,fopen,fclose. One exists at a time.
class Reclaimer {
 public:
  Reclaimer();
  ~Reclaimer();
  Reclaimer(const Reclaimer&) = delete;
  Reclaimer& operator=(const Reclaimer&) = delete;

  /// What has not been given back so far.
  std::size_t Buffers() const;
  std::size_t Files() const;
};

}  // namespace fuzz
