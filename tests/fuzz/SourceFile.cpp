#include "SourceFile.h"

#include "Target.h"

namespace fuzz {

const TemporaryFolder& Scratch() {
  static const TemporaryFolder folder;
  return folder;
}

SourceFile::SourceFile(const std::string& name) : iPath(Scratch().Path(name)) {}

const std::string& SourceFile::Resize(int size) {
  if (!iWritten || iContent.size() != static_cast<std::size_t>(size)) {
    iWritten = true;
    iContent = Pattern(size);
    Scratch().Write(iPath.substr(iPath.rfind('/') + 1), iContent);
  }
  return iContent;
}

}  // namespace fuzz
