#pragma once

#include <string>

#include "simulator/DeviceList.h"

namespace simulator {

/// Writes what the devices' RAM and flash hold into the two files, or into PATH.1, PATH.2 … if there are
/// several devices. A new file is for its owner alone; a symbolic link is not followed, and what is no
/// regular file is not written to. An empty path means no dump. False, after a complaint on stderr, if a file
/// cannot be written.
bool DumpMemories(const DeviceList& devices, const std::string& ram_path, const std::string& flash_path);

/// What is known before anything is written: false, after a complaint on stderr, if a file is a symbolic
/// link or no regular file.
bool MayBeDumped(const DeviceList& devices, const std::string& ram_path, const std::string& flash_path);

}  // namespace simulator
