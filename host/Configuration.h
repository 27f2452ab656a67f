#pragma once

#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "Fault.h"
#include "PropertyStore.h"

namespace host {

/// The SHA-256 that a file must have, in lower-case hexadecimal digits, by the property that names the file.
using DigestMap = std::map<std::string, std::string>;

/// What the host is told from outside: which module to load, under which feature id, with which properties.
struct Configuration {
  std::optional<std::string>
      library;  ///< module's shared library; without a slash the dynamic loader searches
  std::optional<std::string> featureId;
  PropertyMap properties;
  DigestMap digests;
  bool isKnown = true;                 ///< false: there is a file, of which nothing could be read
  std::set<std::string> misread = {};  ///< properties that are given, but not in a way that can be read
  std::set<std::string> misreadDigests = {};  ///< files whose digest is given like that

  /// The same is said; what could not be understood of it does not count.
  bool operator==(const Configuration& other) const {
    return library == other.library && featureId == other.featureId && properties == other.properties &&
           digests == other.digests;
  }
};

/// Reads a configuration file (TOML): `library` and `feature-id` at the top or in [module], and the module's
/// properties in [properties], digests in [sha256]; at most 1 MiB. Relative paths in it are taken relative to
/// the file's folder. What is wrong is appended to `faults`, with line and column where they are known; the
/// result then holds the rest.
Configuration ReadConfiguration(const std::string& path, Faults& faults);

/// As ReadConfiguration, for a text that stands for the content of the file `path`.
Configuration ParseConfiguration(const std::string& text, const std::string& path, Faults& faults);

/// Applies one "key=value" from the command line. Paths in it stay as they are, that is, relative to the
/// working directory. An unknown key or a missing "=" is appended to `faults`.
void ApplySetting(const std::string& setting, Configuration& configuration, Faults& faults);

}  // namespace host
