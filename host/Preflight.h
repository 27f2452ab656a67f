#pragma once

#include "Configuration.h"

namespace host {

/// Checks the module's properties before the module sees them, as a person wants them checked: the update
/// list, the keys that its entries need, the files, the speed, the port, the addresses. Returns all faults at
/// once, none when the module may be asked. Opens the files for reading; opens the port as the module will,
/// sends nothing, leaves its settings as they are and closes it again, which may move its modem lines.
Faults CheckProperties(const PropertyMap& properties);

}  // namespace host
