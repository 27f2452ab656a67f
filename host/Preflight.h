#pragma once

#include <set>
#include <string>
#include <vector>

#include "Configuration.h"
#include "Fault.h"

namespace host {

/// A file that can be sent: it is what its digest stands for, or has none.
struct CheckedFile {
  std::string key;
  std::string path;
  bool isCompared;  ///< with its digest
};

/// The files in sentences for people, one a line.
std::string Describe(const std::vector<CheckedFile>& files);

/// What a check knows besides the properties.
struct CheckRules {
  DigestMap expected = {};                    ///< digests
  bool required = false;                      ///< each file that is sent must have one
  std::set<std::string> misread = {};         ///< properties with a value that was told of as none
  std::set<std::string> misreadDigests = {};  ///< files with a digest that was told of as none
};

/// What a check has found.
struct Findings {
  Faults faults;
  std::vector<CheckedFile> files;
  Faults warnings;  ///< what may spoil an update, for people
};

/// Checks the module's properties before the module sees them, as a person wants them checked: the update
/// list (an empty one is fine), the keys that its entries need, the files, the speed, the port, the
/// addresses, and that each file is the one that its digest stands for. Finds all faults at once, none when
/// the module may be asked. Reads the files that have a digest; opens the port as the module will, has its
/// driver try the speed, sends nothing, puts its settings back and closes it again, which may move its modem
/// lines.
Findings CheckProperties(const PropertyMap& properties, const CheckRules& rules = {});

}  // namespace host
