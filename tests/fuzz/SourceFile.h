#pragma once

#include <string>

#include "Files.h"

namespace fuzz {

/// A file of the pattern in a scratch folder, written again only when another size is asked for.
class SourceFile {
 public:
  explicit SourceFile(const std::string& name);

  /// Makes the file `size` bytes long and returns what it holds.
  const std::string& Resize(int size);
  const std::string& Path() const { return iPath; }

 private:
  std::string iPath;
  std::string iContent;
  bool iWritten = false;
};

/// The folder that everything lies in which a target reads or writes; removed when the process ends well.
const TemporaryFolder& Scratch();

}  // namespace fuzz
