#pragma once

#include <optional>
#include <string>

namespace host {

/// The SHA-256 of a file's content in lower-case hexadecimal digits. Nothing, and errno tells why, when it
/// cannot be read.
std::optional<std::string> Sha256Of(const std::string& path);

}  // namespace host
