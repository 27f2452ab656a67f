// Goal: whoever listened to the lines before a trace was recorded or played hears as much as without it.
#include "trace/LineTap.h"

#include <gtest/gtest.h>

#include "trace/Player.h"
#include "trace/Recorder.h"

namespace host::trace {
namespace {

class Listener final : public platform::ILineObserver {
 public:
  Listener() { platform::SetLineObserver(this); }
  ~Listener() override { platform::SetLineObserver(nullptr); }
  Listener(const Listener&) = delete;
  Listener& operator=(const Listener&) = delete;

  void OnOpened(const std::string& name, TUint32 speed) override {
    iHeard += "opened " + name + " " + std::to_string(speed) + ",";
  }
  void OnSent(const TUint8* /*bytes*/, std::size_t count) override {
    iHeard += "sent " + std::to_string(count) + ",";
  }
  void OnReceived(const TUint8* /*bytes*/, std::size_t count) override {
    iHeard += "received " + std::to_string(count) + ",";
  }
  void OnLost(const std::string& reason) override { iHeard += "lost " + reason + ","; }
  void OnClosed() override { iHeard += "closed"; }

  // What was heard until the lines were given back, which they must be by now.
  std::string Heard() const {
    EXPECT_EQ(platform::SetLineObserver(nullptr), this);
    return iHeard;
  }

 private:
  std::string iHeard;
};

void Speak(LineTap& tap) {
  constexpr TUint8 kBytes[] = {1, 2, 3};
  tap.OnOpened("port", 9600);
  tap.OnSent(kBytes, 1);
  tap.OnReceived(kBytes, 3);
  tap.OnLost("why");
  tap.OnClosed();
}

constexpr const char* kAll = "opened port 9600,sent 1,received 3,lost why,closed";

TEST(LineTap, OfARecorderPassesEverythingOn) {
  const Listener listener;
  Recorder recorder;
  recorder.Start("");
  Speak(recorder);
  recorder.Stop();
  EXPECT_EQ(listener.Heard(), kAll);
}

TEST(LineTap, OfAPlayerPassesEverythingOn) {
  const Listener listener;
  const Trace trace;
  Player player(trace, false);
  player.Start([] {});
  Speak(player);
  player.Stop();
  EXPECT_EQ(listener.Heard(), kAll);
}

}  // namespace
}  // namespace host::trace
