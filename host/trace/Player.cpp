#include "trace/Player.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <poll.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <system_error>
#include <utility>

#include "ExitCode.h"
#include "trace/Steps.h"

namespace host::trace {

namespace {

using std::chrono::steady_clock;

// A broken trace may name any time.
constexpr std::uint64_t kLongest_us = 3'600'000'000;
// A host that waits may have noticed a longer silence: such a one is always kept.
constexpr std::uint64_t kUnnoticed_us = 4'000'000;
// How soon the end of the run is noticed.
constexpr int kLook_ms = 20;

std::string Fault() {
  return fmt::format("cannot make a pseudo-terminal to replay on: {}. Is /dev/pts mounted?",
                     std::generic_category().message(errno));
}

bool MakeRaw(int descriptor) {
  termios settings = {};
  if (tcgetattr(descriptor, &settings) != 0) {
    return false;
  }
  cfmakeraw(&settings);
  return tcsetattr(descriptor, TCSANOW, &settings) == 0;
}

void CloseIfOpen(int& descriptor) {
  if (descriptor >= 0) {
    close(descriptor);
    descriptor = -1;
  }
}

std::string ByteText(char byte) {
  return fmt::format("{:02x}", static_cast<unsigned char>(byte));
}

}  // namespace

Player::Player(const Trace& trace, bool keepPauses)
    : iTrace(trace), iDialogue(Understand(trace)), iKeepPauses(keepPauses) {}

Player::~Player() {
  Stop();
  Unplug();
}

std::string Player::Open() {
  std::array<char, PATH_MAX> name = {};
  iMaster = posix_openpt(O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
  if (iMaster < 0 || grantpt(iMaster) != 0 || unlockpt(iMaster) != 0 ||
      ptsname_r(iMaster, name.data(), name.size()) != 0) {
    return Fault();
  }
  iPortName = name.data();
  // Held open, so that the line stays up while the host closes and opens the port again.
  iSlave = open(name.data(), O_RDWR | O_NOCTTY | O_CLOEXEC);
  return iSlave >= 0 && MakeRaw(iSlave) ? "" : Fault();
}

void Player::Start(std::function<void()> abort) {
  iAbort = std::move(abort);
  TakeLines();
  iThread = std::thread([this] { Play(); });
}

void Player::Stop() {
  if (!iThread.joinable()) {
    return;
  }
  GiveLinesBack();
  {
    const std::lock_guard<std::mutex> lock(iMutex);
    iRunOver = true;
    iChanged.notify_all();
  }
  iThread.join();
}

Player::Verdict Player::Finish(int exitCode) {
  Stop();
  const bool endedByPlayer = !iDeparture.empty() || (iPlayedAll && EndsEarly());
  if (!endedByPlayer && exitCode == static_cast<int>(ExitCode::Aborted)) {
    return {false, false, true, Account(", until you ended it")};
  }
  if (iDeparture.empty()) {
    JudgeEnd(exitCode);
  }
  const bool departs = !iDeparture.empty();
  return {departs, endedByPlayer, false,
          departs ? iDeparture : Account(EndsEarly() ? ", as far as the record goes" : "")};
}

std::string Player::Account(const char* extent) const {
  return fmt::format("The run went as recorded{}: {} bytes of the host and {} of the device.", extent,
                     iCompared, iSaid);
}

void Player::OnOpened(const std::string& name, TUint32 speed) {
  LineTap::OnOpened(name, speed);
  const std::lock_guard<std::mutex> lock(iMutex);
  ++iOpened;
  iChanged.notify_all();
}

void Player::OnReceived(const TUint8* bytes, std::size_t count) {
  LineTap::OnReceived(bytes, count);
  const std::lock_guard<std::mutex> lock(iMutex);
  iReceived += count;
  iChanged.notify_all();
}

// ---- On the playing thread ----

void Player::Play() {
  iLast = steady_clock::now();
  for (const Record& record : iTrace.records) {
    if (!PlayRecord(record)) {
      return;
    }
    iLast_us = record.time_us;
    iLast = steady_clock::now();
  }
  iPlayedAll = true;
  if (EndsEarly()) {
    iAbort();
  }
}

// False when there is nothing more to play: the run is over, or it departs.
bool Player::PlayRecord(const Record& record) {
  switch (record.kind) {
    case Kind::Opened:
      return AwaitOpening();
    case Kind::Sent:
      iSpoken_us = record.time_us;
      return Expect(record.payload);
    case Kind::Received:
      return Say(record);
    case Kind::Lost:
      return AwaitRead();
    default:
      return true;
  }
}

// Opening drops what the driver has, so that nothing may be said before.
bool Player::AwaitOpening() {
  ++iExpectedOpenings;
  std::unique_lock<std::mutex> lock(iMutex);
  iChanged.wait(lock, [this] { return iOpened >= iExpectedOpenings || iRunOver; });
  return iOpened >= iExpectedOpenings;
}

// Unplugs the line, which takes from the host what it has not read yet.
bool Player::AwaitRead() {
  {
    std::unique_lock<std::mutex> lock(iMutex);
    iChanged.wait(lock, [this] { return iReceived >= iSaid || iRunOver; });
  }
  Unplug();
  return true;
}

bool Player::Expect(const std::string& bytes) {
  std::string_view left = bytes;
  bool lastLook = false;
  while (!left.empty()) {
    Fetch();
    const std::size_t count = std::min(left.size(), iPending.size());
    if (!Compare(left.substr(0, count))) {
      return false;
    }
    left.remove_prefix(count);
    if (left.empty() || lastLook) {
      break;
    }
    // What was sent before the end of the run is there one look later.
    pollfd incoming = {iMaster, POLLIN, 0};
    poll(&incoming, 1, kLook_ms);
    const std::lock_guard<std::mutex> lock(iMutex);
    lastLook = iRunOver;
  }
  return left.empty();
}

bool Player::Compare(std::string_view expected) {
  for (std::size_t i = 0; i < expected.size(); ++i) {
    if (iPending[i] != expected[i]) {
      Depart(fmt::format("it was {}, and now is {}", ByteText(expected[i]), ByteText(iPending[i])));
      return false;
    }
    ++iCompared;
  }
  iPending.erase(0, expected.size());
  return true;
}

bool Player::Say(const Record& record) {
  const std::uint64_t pause_us = std::min(kLongest_us, record.time_us - std::min(iLast_us, record.time_us));
  const bool kept = iKeepPauses || pause_us > kUnnoticed_us;
  if (kept && !PauseUntil(iLast + std::chrono::microseconds(pause_us))) {
    return false;
  }
  iSilence_us = record.time_us - std::min(std::exchange(iSpoken_us, record.time_us), record.time_us);
  iSaid += record.payload.size();
  return WriteAll(record.payload);
}

bool Player::WriteAll(std::string_view bytes) {
  while (!bytes.empty() && iMaster >= 0) {
    const ssize_t count = write(iMaster, bytes.data(), bytes.size());
    bytes.remove_prefix(count > 0 ? static_cast<std::size_t>(count) : 0);
    if (!bytes.empty() && !PauseUntil(steady_clock::now() + std::chrono::milliseconds(kLook_ms))) {
      return false;
    }
  }
  return true;
}

bool Player::PauseUntil(steady_clock::time_point moment) {
  std::unique_lock<std::mutex> lock(iMutex);
  return !iChanged.wait_until(lock, moment, [this] { return iRunOver; });
}

void Player::Fetch() {
  std::array<char, 4096> bytes = {};
  ssize_t count = 0;
  while (iMaster >= 0 && (count = read(iMaster, bytes.data(), bytes.size())) > 0) {
    iPending.append(bytes.data(), static_cast<std::size_t>(count));
  }
}

void Player::Unplug() {
  CloseIfOpen(iMaster);
  CloseIfOpen(iSlave);
}

// ---- Judging ----

// Where the recorded run was given up by its host, the device's side does not tell how it would have ended.
bool Player::EndsEarly() const {
  const std::optional<int> code = iDialogue.exitCode;
  return !code || *code == static_cast<int>(ExitCode::Aborted) ||
         *code == static_cast<int>(ExitCode::NoResult);
}

// Also ends the run, which has no counterpart any more.
void Player::Depart(const std::string& how) {
  const std::string before = iSaid > 0 ? FrameAt(Side::Device, iSaid - 1) : "nothing";
  iDeparture = fmt::format(
      "The run departs from the trace at byte {} of the host: {}.\n  Recorded there: {}.\n  The device had "
      "said before: {}.",
      iCompared, how, FrameAt(Side::Host, iCompared), before);
  if (iSilence_us > kUnnoticed_us) {
    iDeparture += fmt::format(
        "\n  That had come after {} s of silence. If it was the recorded host that stood still then, the run "
        "cannot be repeated.",
        Seconds(iSilence_us));
  }
  Unplug();
}

std::string Player::FrameAt(Side side, std::uint64_t offset) const {
  for (std::size_t i = 0; i < iDialogue.frames.size(); ++i) {
    const Frame& frame = iDialogue.frames[i];
    if (frame.side == side && frame.offset <= offset && offset < frame.offset + frame.bytes.size()) {
      return fmt::format("byte {} of {}", offset - frame.offset, Describe(iDialogue, i));
    }
  }
  return "nothing more";
}

void Player::JudgeEnd(int exitCode) {
  Fetch();
  if (!iPlayedAll) {
    Depart(fmt::format("the run ended there, with exit code {}", exitCode));
  } else if (EndsEarly()) {
    return;
  } else if (!iPending.empty()) {
    Depart(fmt::format("it goes on, with {}", ByteText(iPending[0])));
  } else if (exitCode != *iDialogue.exitCode) {
    Depart(fmt::format("it ended with exit code {}, and the recorded one with {}", exitCode,
                       *iDialogue.exitCode));
  }
}

}  // namespace host::trace
