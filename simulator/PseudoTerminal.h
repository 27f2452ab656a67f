#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <string>

namespace simulator {

/// A raw pseudo-terminal whose other side a host opens as its serial port, any number of times, and a
/// symbolic link to it. Both go when the object goes.
class PseudoTerminal {
 public:
  PseudoTerminal() = default;
  PseudoTerminal(const PseudoTerminal&) = delete;
  PseudoTerminal& operator=(const PseudoTerminal&) = delete;
  ~PseudoTerminal();

  /// Makes the pseudo-terminal. False, after a complaint on stderr, if there is none to be had.
  bool Open();
  /// Makes the link, in place of one that an earlier run has left but of nothing else. False, after a
  /// complaint on stderr, if it cannot be made.
  bool Link(const std::string& path);
  /// The port's path for the host.
  const std::string& Name() const { return iName; }
  /// The descriptor to wait on for bytes from the host.
  int Descriptor() const { return iMaster; }
  /// Takes up to `capacity` bytes from the host; 0 if there are none. Never blocks.
  std::size_t Read(std::uint8_t* buffer, std::size_t capacity);
  /// Sends bytes to the host. What the host's full input buffer has no room for is lost, as on a real line.
  void Write(const std::uint8_t* data, std::size_t count);
  /// Holds the line up no longer, so that HostHasClosed() can tell. Writing and reading are over.
  void LetGo();
  /// After LetGo(): true if no host has the port open.
  bool HostHasClosed() const;
  /// Closes the port under the host.
  void Unplug();

 private:
  bool IsInUse(const std::string& link) const;

  int iMaster = -1;
  int iSlave = -1;
  std::string iName;
  std::string iLink;
};

}  // namespace simulator
