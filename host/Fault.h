#pragma once

#include <string>
#include <vector>

#include "ErrorCode.h"

namespace host {

/// What is wrong before anything was sent: the stable code for programs, and for people what, where, and what
/// to do.
struct Fault {
  ErrorCode code;
  std::string text;
};

using Faults = std::vector<Fault>;

}  // namespace host
