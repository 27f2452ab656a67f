#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <thread>

#include "trace/Dialogue.h"
#include "trace/LineTap.h"

namespace host::trace {

/// Plays the device's side of a trace on a pseudo-terminal: its bytes come at their place in the dialogue,
/// and each byte of the host is compared with what was recorded.
class Player final : public LineTap {
 public:
  /// How the replayed run compares with the recorded one.
  struct Verdict {
    bool departs = false;
    bool endedByPlayer = false;  ///< so that what the host made of its end tells nothing
    bool endedByUser = false;    ///< before anything departed, so that the rest is not known
    std::string text;            ///< for people, sentences
  };

  /// `trace` must outlive the player. `keepPauses`: the device takes the time that it took; else it answers
  /// at once.
  Player(const Trace& trace, bool keepPauses);
  Player(const Player&) = delete;
  Player& operator=(const Player&) = delete;
  ~Player() override;

  /// Makes the pseudo-terminal. Returns a fault for people, empty when all is well.
  std::string Open();

  /// The port for the host to open.
  const std::string& PortName() const { return iPortName; }

  /// Plays on a thread of its own. `abort` is called where the trace breaks off, or where the recorded run
  /// was aborted, since the host would otherwise wait for a device that says nothing more.
  void Start(std::function<void()> abort);

  /// Ends the playing; the run is over. Tells how it went; `exitCode` is what the replayed run came to.
  Verdict Finish(int exitCode);

  /// Ends the playing of a run that came to no end.
  void Stop();

  void OnOpened(const std::string& name, TUint32 speed) override;
  void OnReceived(const TUint8* bytes, std::size_t count) override;

 private:
  void Play();
  bool PlayRecord(const Record& record);
  bool AwaitOpening();
  bool Expect(const std::string& bytes);
  bool Compare(std::string_view expected);
  bool Say(const Record& record);
  bool WriteAll(std::string_view bytes);
  bool PauseUntil(std::chrono::steady_clock::time_point moment);
  void Fetch();
  void Unplug();
  bool AwaitRead();
  bool EndsEarly() const;
  void Depart(const std::string& how);
  std::string FrameAt(Side side, std::uint64_t offset) const;
  std::string Account(const char* extent) const;
  void JudgeEnd(int exitCode);

  const Trace& iTrace;
  const Dialogue iDialogue;
  const bool iKeepPauses;
  int iMaster = -1;
  int iSlave = -1;
  std::string iPortName;
  std::function<void()> iAbort;
  std::thread iThread;

  std::mutex iMutex;
  std::condition_variable iChanged;
  int iOpened = 0;              ///< how often the host has opened the port
  std::uint64_t iReceived = 0;  ///< bytes that the host has read
  bool iRunOver = false;

  // Of the playing thread, and of Finish() after it:
  std::string iPending;         ///< came from the host and is not compared yet
  std::uint64_t iCompared = 0;  ///< bytes of the host that were as recorded
  std::uint64_t iSaid = 0;      ///< bytes of the device
  int iExpectedOpenings = 0;
  std::uint64_t iSpoken_us = 0;                 ///< when the recorded sides spoke last
  std::uint64_t iSilence_us = 0;                ///< how long nobody had spoken before the device did
  std::uint64_t iLast_us = 0;                   ///< when the record at hand happened, then
  std::chrono::steady_clock::time_point iLast;  ///< and now
  bool iPlayedAll = false;
  std::string iDeparture;
};

}  // namespace host::trace
