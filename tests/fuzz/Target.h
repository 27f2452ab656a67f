// What every fuzz target is made of. The fuzzer's entry points stand in Target.cpp.
#pragma once

#include <string>
#include <string_view>

namespace fuzz {

/// The target's own part: one execution with one input. Must leave nothing behind that the next one could
/// see.
void Run(std::string_view input);

/// Ends the process with `what` on standard error unless `kept`. For promises that a user of the code relies
/// on, so that an input that breaks one counts as a crash.
void Promise(bool kept, std::string_view what);

/// The number that `text` starts with, cut from it; `limit` where it is larger, 0 where there is none.
int TakeNumber(std::string_view& text, int limit);

/// What stands before the first `separator`; it is cut from `text`, together with the separator.
std::string_view TakeUntil(std::string_view& text, char separator);

/// `size` bytes in which no two blocks of a transfer are alike.
std::string Pattern(int size);

}  // namespace fuzz
