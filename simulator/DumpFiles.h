#pragma once

#include <cstddef>
#include <set>
#include <string>

namespace simulator {

/// The file for a memory of the device at `index`, of so many: PATH itself for an only one, else PATH.1,
/// PATH.2 …
std::string DumpFile(const std::string& path, std::size_t index, std::size_t devices);

/// Adds the files of a dump of so many devices to `files`. False if one was among them already, whichever way
/// it was named. An empty path means no dump.
bool AddDumpFiles(const std::string& path, std::size_t devices, std::set<std::string>& files);

}  // namespace simulator
