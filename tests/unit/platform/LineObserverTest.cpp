// Goal: an observer of the lines learns of every byte in its order, of openings, losses and closings, and
// changes nothing for the ports. Method: pseudo-terminals, whose master is the device at the other end.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/wait.h>
#include <unistd.h>

#include <condition_variable>
#include <cstdlib>
#include <mutex>
#include <thread>

#include "LineObserver.h"
#include "PortCalls.h"
#include "Support.h"

namespace {

using testing::ElementsAre;

// Writes down what it is told, bytes of one direction in a row as one entry.
class Notes : public platform::ILineObserver {
 public:
  Notes() { platform::SetLineObserver(this); }
  ~Notes() override { Stop(); }

  void Stop() { platform::SetLineObserver(nullptr); }
  const std::vector<std::string>& Entries() const { return iEntries; }

  void OnOpened(const std::string& name, TUint32 speed) override {
    iEntries.push_back("opened " + name + " " + std::to_string(speed));
  }
  void OnSent(const TUint8* bytes, std::size_t count) override { AddBytes("sent ", bytes, count); }
  void OnReceived(const TUint8* bytes, std::size_t count) override { AddBytes("received ", bytes, count); }
  void OnLost(const std::string& reason) override { iEntries.push_back("lost: " + reason); }
  void OnClosed() override { iEntries.push_back("closed"); }

 private:
  void AddBytes(const std::string& what, const TUint8* bytes, std::size_t count) {
    const std::string text(reinterpret_cast<const char*>(bytes), count);
    if (iEntries.empty() || iEntries.back().rfind(what, 0) != 0) {
      iEntries.push_back(what);
    }
    iEntries.back() += text;
  }

  std::vector<std::string> iEntries;
};

TEST(LineObserver, LearnsOfOpeningBytesAndLossInTheirOrder) {
  Pty pty;
  Notes notes;
  ISerialPort* const port = MakePort(pty.Name(), 9600);
  ASSERT_NE(port, nullptr);
  EXPECT_TRUE(WritesOneByOne(*port, "question"));
  EXPECT_EQ(ReadOnce(*port), 0);
  pty.Send("answer");
  EXPECT_EQ(ReadBytes(*port, 6), "answer");
  EXPECT_TRUE(Writes(*port, "thanks"));
  EXPECT_EQ(ReadOnce(*port), 0);
  pty.Unplug();
  EXPECT_EQ(ReadOnce(*port), -1);
  EXPECT_THAT(notes.Entries(), ElementsAre("opened " + pty.Name() + " 9600", "sent question",
                                           "received answer", "sent thanks", testing::StartsWith("lost: ")));
}

TEST(LineObserver, SeesAPortThatIsMadeAnewCloseTheOlderOneAfterItsLastBytes) {
  Pty pty;
  Notes notes;
  ISerialPort* const older = MakePort(pty.Name());
  EXPECT_TRUE(Writes(*older, "last"));
  MakePort(pty.Name(), 19200);
  EXPECT_THAT(notes.Entries(), ElementsAre("opened " + pty.Name() + " 115200", "sent last", "closed",
                                           "opened " + pty.Name() + " 19200"));
}

TEST(LineObserver, MissesNothingThatWasGatheredBeforeItWasReplacedAndHearsNothingAfterwards) {
  Pty pty;
  ISerialPort* const port = MakePort(pty.Name());
  Notes notes;
  EXPECT_TRUE(Writes(*port, "before"));
  notes.Stop();
  EXPECT_TRUE(Writes(*port, "after"));
  EXPECT_EQ(ReadOnce(*port), 0);
  EXPECT_THAT(notes.Entries(), ElementsAre("sent before"));
  EXPECT_EQ(pty.Receive(11), "beforeafter");
}

// Takes its time when a port is opened.
class Slow : public platform::ILineObserver {
 public:
  Slow() { platform::SetLineObserver(this); }
  ~Slow() override { platform::SetLineObserver(nullptr); }

  void AwaitCall() { AwaitStage(1); }
  void LetGo() { Enter(2); }

  void OnOpened(const std::string& /*name*/, TUint32 /*speed*/) override {
    Enter(1);
    AwaitStage(2);
  }
  void OnSent(const TUint8* /*bytes*/, std::size_t /*count*/) override {}
  void OnReceived(const TUint8* /*bytes*/, std::size_t /*count*/) override {}
  void OnLost(const std::string& /*reason*/) override {}
  void OnClosed() override {}

 private:
  void Enter(int stage) {
    const std::lock_guard<std::mutex> lock(iMutex);
    iStage = stage;
    iChanged.notify_all();
  }
  void AwaitStage(int stage) {
    std::unique_lock<std::mutex> lock(iMutex);
    iChanged.wait(lock, [&] { return iStage >= stage; });
  }

  std::mutex iMutex;
  std::condition_variable iChanged;
  int iStage = 0;
};

// The thread that opens a port and tells of it holds locks, and the child has no such thread.
TEST(LineObserver, OfAParentAtWorkDoesNotKeepAChildProcessFromItsPorts) {
  SKIP_WHERE_PROCESSES_MAY_NOT_DIVIDE();
  constexpr unsigned kPatience_s = 5;
  Pty pty;
  Pty childs;
  Slow observer;
  std::thread opening([&] { EXPECT_NE(MakePort(pty.Name()), nullptr); });
  observer.AwaitCall();
  const int result = InChild([&] {
    alarm(kPatience_s);
    ISerialPort* const port = MakePort(childs.Name());
    return port != nullptr && Writes(*port, "x") && ReadOnce(*port) == 0 ? 0 : 1;
  });
  observer.LetGo();
  opening.join();
  EXPECT_EQ(result, 0);
  EXPECT_EQ(childs.Receive(1), "x");
}

TEST(LineObserver, AtWorkHoldsUpNoShellWhichInheritsNothingOfAPort) {
  Pty pty;
  Pty gathering;
  EXPECT_TRUE(WritesOneByOne(*MakePort(gathering.Name()), "x"));
  Slow observer;
  std::thread opening([&] { EXPECT_NE(MakePort(pty.Name()), nullptr); });
  observer.AwaitCall();
  constexpr int kNothingFound = 1;
  const int witness = open(pty.Name().c_str(), O_RDWR | O_NOCTTY);
  const auto look_for = [](const std::string& pattern) {
    return WEXITSTATUS(std::system(("ls -l /proc/self/fd | grep " + pattern).c_str()));
  };
  EXPECT_EQ(look_for("'" + pty.Name() + "$'"), 0) << "what is inherited is found";
  close(witness);
  const int found = look_for("-e timerfd -e '" + pty.Name() + "$' -e '" + gathering.Name() + "$'");
  observer.LetGo();
  opening.join();
  EXPECT_EQ(found, kNothingFound);
}

}  // namespace
