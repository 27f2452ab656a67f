// A serial port for one test: a pseudo-terminal with nobody at its other side.
#pragma once

#include <fcntl.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

class PseudoTerminal {
 public:
  PseudoTerminal() : iOther(posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC)) {
    if (iOther >= 0 && unlockpt(iOther) == 0) {
      iName = ptsname(iOther);
    }
  }
  PseudoTerminal(const PseudoTerminal&) = delete;
  PseudoTerminal& operator=(const PseudoTerminal&) = delete;
  ~PseudoTerminal() { close(iOther); }

  /// What the port gets to read.
  void Say(const std::string& bytes) const { (void)!write(iOther, bytes.data(), bytes.size()); }

  const std::string& Name() const { return iName; }

 private:
  int iOther;
  std::string iName;
};
