#pragma once

#include <sys/types.h>

#include <string>

namespace host {

/// The name of a group, or its number when it has none.
std::string GroupName(gid_t id);

}  // namespace host
