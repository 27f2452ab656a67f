#pragma once

#include <sys/stat.h>

#include <string>
#include <vector>

#include "PropertyStore.h"

namespace host {

/// Remembers what the files of an update are like before anybody reads them, so that one that is rewritten or
/// replaced while it is sent does not pass for sent.
class SourceFiles {
 public:
  /// Looks at the files that the listed peripherals are sent.
  explicit SourceFiles(const PropertyMap& properties);

  /// Messages for people, one for each file that is not what it was; none when all are.
  std::vector<std::string> Changes() const;

  /// The path leads to one of these files, by whatever name.
  bool Holds(const std::string& path) const;

 private:
  struct File {
    std::string key;
    std::string path;
    struct stat status;  ///< all zero when the file was not there
  };

  std::vector<File> iFiles;
};

}  // namespace host
