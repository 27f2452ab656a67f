#pragma once

#include <string>
#include <vector>

#include "simulator/DeviceList.h"
#include "simulator/Options.h"

namespace simulator {

/// One line to be played: what hangs on it, what it is like, and what is written down about it.
struct Settings {
  std::string name;  ///< Told with what its devices say; empty: they stand alone.
  std::vector<DevicePlan> devices;
  LineOptions line;
  std::string link;        ///< Path of a symbolic link to the port; empty: none.
  std::string dump_ram;    ///< File for what RAM holds; empty: none.
  std::string dump_flash;  ///< The same for flash.
  bool once = false;       ///< The line ends after its last device's update, or a failure.
};

}  // namespace simulator
