#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace proving {

/// What goes wrong at a byte. The first five happen to the byte on the wire, the others to the host, the line
/// or the device in the moment in which the host writes the byte or is about to read it.
enum class FaultKind : std::uint8_t {
  kDrop,
  kFlip,  ///< value: the bit
  kDouble,
  kInsert,  ///< value: the stray byte before it
  kDelay,   ///< value: milliseconds, for it and all behind it
  kReadError,
  kWriteError,
  kGone,     ///< the line is broken from here on
  kReset,    ///< the device starts anew
  kAbort,    ///< the controller asks for an abort
  kInstall,  ///< the controller asks for a second installation
  kDelete,   ///< the host deletes the module
};

enum class Direction : std::uint8_t { kOut, kIn };  ///< as the host sees it

struct Fault {
  FaultKind kind;
  Direction direction;
  std::uint32_t index;  ///< position among the bytes of its direction, from 0
  std::uint32_t value = 0;
};

/// One of each: what is done to every byte of an update.
const std::vector<Fault>& EveryFault();

/// "out:317:flip3", and back. Nothing if the text is none.
std::string Text(const Fault& fault);
std::optional<Fault> ParseFault(const std::string& text);

}  // namespace proving
