#pragma once

#include <memory>
#include <ostream>
#include <string>

namespace host {

/// Opens a file to write to its end and creates it if there is none, for its owner to write and for nobody
/// else. A link that somebody else than the user or root has planted is not followed. Null, and `fault` then
/// tells people why, when it cannot be opened.
std::unique_ptr<std::ostream> OpenForAppending(const std::string& path, std::string& fault);

}  // namespace host
