#pragma once

#include <sys/stat.h>

#include <string>

namespace host {

/// The name of a group, or its number when it has none.
std::string GroupName(gid_t id);

/// What lets a user at a device that these properties keep shut, as an order: membership of its group where
/// that helps and is not that of root.
std::string HowToGainAccess(const struct stat& device);

}  // namespace host
