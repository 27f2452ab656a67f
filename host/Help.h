#pragma once

#include <string>

namespace host {

/// The text of --help in lines of at most so many columns, as far as its words allow. What people copy, the
/// paragraphs of examples and of a file, stays as it is.
std::string WrapHelp(const std::string& help, int columns);

}  // namespace host
