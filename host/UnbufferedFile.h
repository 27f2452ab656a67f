#pragma once

#include <sys/types.h>

#include <string>
#include <string_view>

namespace host {

/// A file that a run leaves behind, written piece by piece without a buffer, so that killing the program
/// loses nothing that was written. One thread at a time.
class UnbufferedFile {
 public:
  UnbufferedFile() = default;
  UnbufferedFile(const UnbufferedFile&) = delete;
  UnbufferedFile& operator=(const UnbufferedFile&) = delete;
  ~UnbufferedFile();

  /// Makes the file with these permissions, or empties the one that is there and takes others from it.
  /// Refused are symbolic links, other users' files, terminals, pipes and the like.
  /// `what` it is called in faults. Returns a fault for people, empty when all is well.
  std::string Open(const std::string& path, const std::string& what, mode_t mode);

  /// Does nothing when the file was not opened, or has refused once: what would follow a gap is of no use.
  void Write(std::string_view bytes);

  /// Why the file is incomplete, for people; empty when it is not.
  const std::string& Fault() const { return iFault; }

 private:
  void Close();

  int iFile = -1;
  std::string iName;
  std::string iFault;
};

}  // namespace host
