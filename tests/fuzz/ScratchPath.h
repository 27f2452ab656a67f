#pragma once

#include <algorithm>
#include <string>

#include "Peripherals.h"
#include "SourceFile.h"

namespace fuzz {

/// `value`, or, if the property `key` is a path, one that lies in the scratch folder and cannot leave it. An
/// empty path stays empty.
inline std::string InScratch(const std::string& key, std::string value) {
  const host::PropertyKey* known = host::FindPropertyKey(key);
  const bool isPath =
      known != nullptr && (known->kind == host::ValueKind::File || known->kind == host::ValueKind::Port);
  if (!isPath || value.empty()) {
    return value;
  }
  std::replace(value.begin(), value.end(), '/', '_');
  return Scratch().Path(value);
}

}  // namespace fuzz
