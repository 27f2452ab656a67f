#pragma once

#include <chrono>
#include <mutex>
#include <string>

#include "Logging.h"
#include "OutputFile.h"
#include "trace/LineTap.h"
#include "trace/Record.h"

namespace host::trace {

/// Writes a trace down: what crosses the serial lines, and the log. Each record goes to the system in one
/// piece as soon as it is known, so that killing the program loses none. Any thread.
class Recorder final : public LineTap, public logging::ISink {
 public:
  Recorder() = default;
  /// Stops if it was started.
  ~Recorder() override { Stop(); }
  Recorder(const Recorder&) = delete;
  Recorder& operator=(const Recorder&) = delete;

  /// Writes to that file from now on, which only its owner may read, since it holds the firmware; one that is
  /// there is emptied. Links, other users' files and what is no file are refused. Returns a fault for people,
  /// empty when all is well.
  std::string OpenFile(const std::string& path);

  /// Has Content() hold everything, with a file or without.
  void KeepContent() { iKeepsContent = true; }

  /// Takes the log and the lines over, until Stop. Whoever had them before goes on being told.
  void Start(const std::string& description);

  /// Gives the log and the lines back, if it has them.
  void Stop();

  /// Writes the record with which a trace ends: what comes later is only passed on.
  void End(int exitCode, const std::string& outcome);

  /// The trace so far.
  std::string Content();

  /// Why the file is incomplete, for people; empty when it is not.
  std::string Fault();

  void OnOpened(const std::string& name, TUint32 speed) override;
  void OnSent(const TUint8* bytes, std::size_t count) override;
  void OnReceived(const TUint8* bytes, std::size_t count) override;
  void OnLost(const std::string& reason) override;
  void OnClosed() override;
  void Write(const logging::TLine& line) override;

 private:
  void Append(Kind kind, std::string payload);
  void Put(const std::string& bytes);

  const std::chrono::steady_clock::time_point iBegin = std::chrono::steady_clock::now();
  std::mutex iMutex;
  OutputFile iFile;
  bool iKeepsContent = false;
  bool iStarted = false;
  bool iEnded = false;
  std::string iContent;
  logging::ISink* iFormerSink = nullptr;
  logging::TLevel iFormerLevel = logging::EWarning;
};

}  // namespace host::trace
