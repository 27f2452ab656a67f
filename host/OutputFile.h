// Files that a run leaves behind. All of them are opened in the same way: for their owner to write and for
// nobody else; refused are symbolic links, other users' files, terminals, pipes and the like.
#pragma once

#include <sys/types.h>

#include <ostream>
#include <sstream>
#include <string>
#include <string_view>

namespace host {

/// What such a file is.
struct OutputKind {
  const char* name;    ///< for people
  const char* option;  ///< that names the file
  mode_t mode;         ///< its permissions; a file that is there loses others
  bool isContinued;    ///< what is there stays, and what is written follows it
};

constexpr OutputKind kLogFile = {"log file", "--log-file", 0644, true};
/// Holds the firmware.
constexpr OutputKind kTraceFile = {"trace", "--trace", 0600, false};
constexpr OutputKind kReportFile = {"report", "--report", 0644, false};

/// Writes all of it, and waits for room also where the descriptor is set not to wait. False, with errno, when
/// it takes no more.
bool WriteAll(int file, std::string_view bytes);

/// A file that is written piece by piece without a buffer, so that killing the program loses nothing that was
/// written. One thread at a time.
class OutputFile {
 public:
  OutputFile() = default;
  OutputFile(const OutputFile&) = delete;
  OutputFile& operator=(const OutputFile&) = delete;
  ~OutputFile();

  /// Makes the file, or takes the one that is there. Returns a fault for people, empty when all is well.
  std::string Open(const std::string& path, const OutputKind& kind);

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

/// Makes room for a file that comes as a whole: what is there, if it may be replaced, is removed, and it is
/// tried whether another could be made. Returns a fault for people, empty when all is well.
std::string MakeRoom(const std::string& path, const OutputKind& kind);

/// Writes such a file: beside its place first, so that it is there with all of its content or not at all,
/// also after a loss of power. Being killed meanwhile leaves the file beside, with eight digits more in its
/// name. Returns a fault for people, empty when all is well.
std::string WriteWhole(const std::string& path, const OutputKind& kind, const std::string& content);

/// Tells whether the file is missing, empty, no regular file, or begins like that: whether it is one that an
/// earlier run has left behind, or has nothing to lose.
bool IsMissingOrBegins(const std::string& path, std::string_view beginning);

/// A stream into a file, which gets what was written whenever the stream is flushed.
class OutputStream final : private std::stringbuf, public std::ostream {
 public:
  /// `file` must outlive it.
  explicit OutputStream(OutputFile& file) : std::ostream(this), iFile(file) {}

 private:
  int sync() override;

  OutputFile& iFile;
};

}  // namespace host
