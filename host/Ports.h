#pragma once

#include <string>
#include <vector>

namespace host {

/// A process that has a port open.
struct PortHolder {
  int pid;
  std::string name;
};

/// Whether a modem manager, which talks to ports on its own account, may disturb an update.
enum class ModemManagerRisk {
  NotRunning,
  KeptAway,  ///< a udev rule exempts the port
  Unlikely,  ///< the port is on no bus on which modems come and go
  Likely,
};

/// A serial port of this machine, as far as it can be known without opening it.
struct Port {
  std::string device;                    ///< such as /dev/ttyUSB0
  std::vector<std::string> stableNames;  ///< links to it that stay the same when adapters are plugged anew
  std::string adapter;                   ///< for people: what it is, and its driver if nothing else is known
  std::vector<PortHolder> holders;       ///< those that the user may see
  bool mayBeOpened;                      ///< by the user, as far as permissions go
  std::string group;                     ///< whom the device belongs to
  ModemManagerRisk modemManager;
  std::string howToGainAccess = {};  ///< for people, an order; empty when it may be opened
  std::string howToKeepAway = {};    ///< a modem manager, likewise; empty when it is not likely to disturb
};

/// The serial ports of this machine, by name. `root` stands before every path that is looked at.
std::vector<Port> FindPorts(const std::string& root = "");

/// The other processes that have a port open, as far as the user may see them. `port` may be a link to it.
/// Whoever plays the device on a pseudo-terminal is none of them.
std::vector<PortHolder> HoldersOf(const std::string& port, const std::string& root = "");

/// The holders in words, such as "minicom (process 12), cat (process 13)"; `nobody` if there are none.
std::string Describe(const std::vector<PortHolder>& holders, const char* nobody);

/// The ports for people, with a line break at the end.
std::string DescribePorts(const std::vector<Port>& ports);

}  // namespace host
