// Goal: whatever a device does, an upload ends, reports its end once, and reports success only when the
// device was sent everything and has accepted it. Method: "c200,1500 [v1]E CAA ...": a CAN controller ("s": a
// Sanyo device), the loader's and the image's size, and what arrives, in the words of LineScript.h. The real
// engine and session run on the fuzzer's thread; the timer ticks from within the port's reads, as far as the
// virtual time has come.
#include <pthread.h>

#include <memory>
#include <string>
#include <vector>

#include "CanXModemSwl.h"
#include "Frames.h"
#include "IEventBroker.h"
#include "LineScript.h"
#include "Reclaimer.h"
#include "SanyoXModemSwl.h"
#include "SourceFile.h"
#include "Target.h"
#include "VirtualClock.h"
#include "XModem.h"

namespace {
// Whether a new thread's work is done at once, by the one that asks for it.
thread_local bool works_inline = false;
}  // namespace

extern "C" {

int __real_pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*entry)(void*),
                          void* argument);
int __real_pthread_join(pthread_t thread, void** result);
int __wrap_pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*entry)(void*),
                          void* argument);
int __wrap_pthread_join(pthread_t thread, void** result);

int __wrap_pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*entry)(void*),
                          void* argument) {
  if (!works_inline) {
    return __real_pthread_create(thread, attributes, entry, argument);
  }
  *thread = pthread_self();
  entry(argument);
  return 0;
}

int __wrap_pthread_join(pthread_t thread, void** result) {
  return works_inline ? 0 : __real_pthread_join(thread, result);
}

}  // extern "C"

namespace fuzz {
namespace {

constexpr int kLargestFile = 3000;
constexpr int kSilenceOfLastTick_ms = 500;
constexpr char kRamAddress[] = "1000";
constexpr char kFlashAddress[] = "8000";
constexpr TInt32 kInitialSteps = 1;
constexpr TInt32 kCanSteps = 145;
constexpr TInt32 kSanyoSteps = 150;

// The timer, and nothing else of a broker.
class Timer : public IEventBroker {
 public:
  void Subscribe(const TEvent& /*filter*/, IEventObserver& observer) override {
    Promise(iObserver == nullptr, "a second subscription");
    iObserver = &observer;
    iNext_ms = virtual_clock::Now_ms() + kPeriod_ms;
  }
  void Unsubscribe(const TEvent& /*filter*/, IEventObserver& /*observer*/) override { iObserver = nullptr; }
  void Post(const TEvent& /*event*/) override { Promise(false, "a session posts an event"); }

  /// The ticks that are due by now.
  void Tick() {
    while (iObserver != nullptr && iNext_ms <= virtual_clock::Now_ms()) {
      iNext_ms += kPeriod_ms;
      iObserver->OnEvent({ETimerEvent, 0, kPeriod_ms, nullptr});
    }
  }

  bool IsSubscribed() const { return iObserver != nullptr; }

 private:
  static constexpr TUint32 kPeriod_ms = 500;

  IEventObserver* iObserver = nullptr;
  std::uint64_t iNext_ms = 0;
};

class TickingPort : public ScriptedPort {
 public:
  explicit TickingPort(Timer& timer) : iTimer(timer) {}

  TInt32 Read(TUint8* buffer, TUint32 count, TUint32* received) override {
    const TInt32 result = ScriptedPort::Read(buffer, count, received);
    iTimer.Tick();
    return result;
  }

 private:
  Timer& iTimer;
};

// What the session reports.
class Reports : public ILoaderCallback {
 public:
  explicit Reports(TInt32 steps) : iSteps(steps) {}

  void Progress(TUint32 remaining, TUint32 total) override {
    const auto left = static_cast<TInt32>(remaining);
    const auto all = static_cast<TInt32>(total);
    Promise(all == kInitialSteps || all == iSteps, "progress of an unknown number of steps");
    // A Sanyo device's upload ends one step below zero.
    Promise(left >= -1 && left <= all, "progress runs out of the steps");
    Promise(iLeft == 0 || all != iSteps || left <= iLeft, "progress runs backwards");
    iLeft = all == iSteps ? left : 0;
  }

  void Completed(TBool successful) override {
    ++iCompletions;
    iSuccessful = successful != EFalse;
  }

  void Aborted() override { Promise(false, "a session aborts by itself"); }

  int Completions() const { return iCompletions; }
  bool IsSuccessful() const { return iSuccessful; }
  TInt32 Left() const { return iLeft; }

 private:
  const TInt32 iSteps;
  TInt32 iLeft = 0;
  int iCompletions = 0;
  bool iSuccessful = false;
};

// The data of every transfer that was sent to its end, repeated blocks left out.
std::vector<std::string> TransfersIn(const std::string& written) {
  std::vector<std::string> transfers;
  std::string data;
  int blocks = 0;
  for (const WrittenItem& item : WrittenItems(written, std::nullopt)) {
    if (item.kind == WrittenItem::kBlock && item.frame.number == static_cast<std::uint8_t>(blocks + 1)) {
      data += item.frame.data;
      ++blocks;
    } else if (item.kind == WrittenItem::kByte && item.byte == simulator::kEot && blocks > 0) {
      transfers.push_back(data);
      data.clear();
      blocks = 0;
    }
  }
  return transfers;
}

// How many sound blocks hold the answer that accepts a command.
int Acceptances(const std::string& arrived) {
  int count = 0;
  for (std::size_t at = 0; at < arrived.size(); ++at) {
    const std::optional<Frame> frame =
        FrameAt(std::string_view(arrived).substr(at), simulator::Trailer::kCrc);
    count += frame && frame->data.compare(0, 4, std::string("000\0", 4)) == 0 ? 1 : 0;
  }
  return count;
}

struct Upload {
  bool isCan;
  std::string loader;
  std::string image;
  LineScript script;
};

Upload Parse(std::string_view input, SourceFile& loader, SourceFile& image) {
  Upload upload;
  upload.isCan = input.substr(0, 1) != "s";
  input.remove_prefix(input.empty() ? 0 : 1);
  upload.loader = loader.Resize(1 + TakeNumber(input, kLargestFile));
  input.remove_prefix(input.substr(0, 1) == "," ? 1 : 0);
  upload.image = image.Resize(1 + TakeNumber(input, kLargestFile));
  upload.script = ParseLineScript(input);
  return upload;
}

void CheckSuccess(const Upload& upload, const std::string& written) {
  const std::vector<std::string> transfers = TransfersIn(written);
  if (!upload.isCan) {
    Promise(transfers == std::vector<std::string>{Padded(upload.image)},
            "success, but the device was not sent the image");
    return;
  }
  const std::string ram = kRamAddress;
  const std::string flash = kFlashAddress;
  const std::vector<std::string> expected = {Padded("wr " + ram),  Padded(upload.loader),
                                             Padded("gt " + ram),  Padded("wr " + flash),
                                             Padded(upload.image), Padded("ck " + flash)};
  Promise(transfers == expected, "success, but the device was not sent all of it");
  Promise(Acceptances(BytesOf(upload.script)) >= 4, "success, but the device has not accepted everything");
}

std::unique_ptr<CXModemSwl> MakeSession(const Upload& upload, ISerialPort& port, Timer& timer,
                                        Reports& reports, const std::string& loader,
                                        const std::string& image) {
  IXModem* engine = IXModem::Create(&port);
  if (upload.isCan) {
    return std::unique_ptr<CXModemSwl>(
        CCanXModemSwl::Create(engine, timer, reports, loader, image, kRamAddress, kFlashAddress));
  }
  return std::unique_ptr<CXModemSwl>(CSanyoXModemSwl::Create(engine, timer, reports, image));
}

}  // namespace

void Run(std::string_view input) {
  static SourceFile loader("loader");
  static SourceFile image("image");
  virtual_clock::Reset();
  const Upload upload = Parse(input, loader, image);
  Timer timer;
  TickingPort port(timer);
  Play(upload.script, port);
  Reports reports(upload.isCan ? kCanSteps : kSanyoSteps);
  works_inline = true;
  {
    const Reclaimer reclaimer;
    const auto session = MakeSession(upload, port, timer, reports, loader.Path(), image.Path());
    session->StartUpload();
    virtual_clock::Advance_ms(kSilenceOfLastTick_ms);
    timer.Tick();
    Promise(reports.Completions() == 1, "an upload must report its end once");
    Promise(!timer.IsSubscribed(), "an upload that has ended still watches the time");
  }
  works_inline = false;
  const std::string written(port.Written().begin(), port.Written().end());
  if (reports.IsSuccessful()) {
    Promise(reports.Left() == (upload.isCan ? 0 : -1), "success before the last step");
    CheckSuccess(upload, written);
  }
  static_cast<void>(WrittenItems(written, std::nullopt));
}

}  // namespace fuzz
