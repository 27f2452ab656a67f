#pragma once

#include "Configuration.h"

namespace host {

/// Which digests files must have.
struct DigestRules {
  DigestMap expected;
  bool required = false;  ///< each file that is sent must have one
};

/// Checks the module's properties before the module sees them, as a person wants them checked: the update
/// list (an empty one is fine), the keys that its entries need, the files, the speed, the port, the
/// addresses, and that each file is the one that its digest stands for. Returns all faults at once, none when
/// the module may be asked. Reads the files that have a digest; opens the port as the module will, sends
/// nothing, leaves its settings as they are and closes it again, which may move its modem lines.
Faults CheckProperties(const PropertyMap& properties, const DigestRules& digests = {});

}  // namespace host
