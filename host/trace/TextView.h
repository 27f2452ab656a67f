#pragma once

#include <string>

#include "trace/Dialogue.h"

namespace host::trace {

/// What a trace is shown with as text.
struct TextOptions {
  bool bytes = false;  ///< below each frame its bytes
  bool log = false;    ///< the log among the frames
};

/// A trace as text: what the run was, every frame with its time, the transfers, and how it ended.
std::string TextOf(const Dialogue& dialogue, const TextOptions& options);

}  // namespace host::trace
