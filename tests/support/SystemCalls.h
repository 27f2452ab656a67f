#pragma once

#include <functional>
#include <string>
#include <vector>

/// Watches the commands that an executable's own objects hand to the C library's system(). Linking the
/// library of this name puts it in between; unarmed it hands every call on.
namespace system_calls {

/// Called with every command before it runs. Null takes it away.
void OnCall(std::function<void(const std::string& command)> hook);

/// The next calls, one for each, answer these raw wait statuses and run nothing.
void Answer(std::vector<int> statuses);

/// Nothing is armed.
void Reset();

}  // namespace system_calls
