#pragma once

#include <optional>
#include <string>

namespace host {

/// Tells who else than root could change what a path leads to: the file itself, a folder or a link on the
/// way. A sentence for people that names the place and the reason, or nothing when root alone can, and when
/// there is no such file.
std::optional<std::string> WhyUntrusted(const std::string& path);

}  // namespace host
