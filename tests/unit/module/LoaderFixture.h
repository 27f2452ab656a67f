#pragma once

#include <gtest/gtest.h>

#include <condition_variable>
#include <cstddef>
#include <memory>
#include <mutex>
#include <ostream>
#include <string>
#include <vector>

#include "Files.h"
#include "IXModem.h"
#include "Journal.h"
#include "Lines.h"
#include "LoaderFactory.h"
#include "XModemSwl.h"

/// One kind of loader, and what is its own in the behaviour that all kinds share.
struct LoaderKind {
  using Make = ILoader* (*)(TFeatureId&, IEventBroker&, const IFeatureProperties&, ILoaderCallback&);

  std::string name;               ///< "Can", as in CCanXModemLoader
  std::vector<std::string> keys;  ///< of its properties, in the order of reading
  std::vector<Lines> complaints;  ///< by missing key: the rest of what a preparation says before its verdict
  std::vector<std::string> handed;  ///< keys of the properties that its session gets
  std::string flags;                ///< of its port, as in "0 1"
  std::string lastProgress;         ///< of a successful session, as in "0 of 145"
  int lastPercent;
  Make make;  ///< a loader whose creation functions are those of the running test's chain

  std::string LogName() const { return name + "XModemLoader"; }
  std::string Class() const { return "C" + LogName(); }
  std::string SessionClass() const { return "C" + name + "XModemSwl"; }
};

void PrintTo(const LoaderKind* kind, std::ostream* output);

extern const LoaderKind kCanLoader;
extern const LoaderKind kSanyoLoader;

/// The end of a session's sequence, for the test's thread to wait for.
class EndOfUpload {
 public:
  void Tell();
  void Await();

 private:
  std::mutex iMutex;
  std::condition_variable iChange;
  bool iTold = false;
};

/// What the creation functions do, and what they did. "create port "/dev/x" 9600 0 1", "create engine",
/// "create session "/image"", "session 1 started", "session 1 deleted", "engine 1 deleted": so it stands in
/// the journal.
struct LoaderChain {
  struct Session {
    CXModemSwl* session;
    EndOfUpload* end;  ///< of a session that works
  };

  Journal journal;
  bool makesPort = true;
  bool makesEngine = true;
  bool makesSession = true;
  bool sessionsWork = false;  ///< sessions run for real, over an engine that answers at once
  bool succeeds = true;       ///< what the engine answers
  std::mutex gate;            ///< the engine answers while nobody holds it
  std::vector<IXModem*> engines;
  std::vector<Session> sessions;
};

/// What loaders say about a property that is no good.
inline std::string SlowSpeed(const std::string& number) {
  return "Error (Serial port speed too low! Speed is " + number + ")";
}
inline std::string BadImage(const std::string& path) {
  return "Error (Invalid source image: " + path + ")";
}
inline std::string BadLoader(const std::string& path) {
  return "Error (Invalid source loader: " + path + ")";
}
inline std::string BadPort(const std::string& name) {
  return "Error (Invalid serial port name: " + name + ")";
}
const Lines kGood = {"Info (All properties are ok)"};
constexpr char kNotAll[] = "Error (Not all required properties found!)";
constexpr char kNotOk[] = "Info (All properties are not ok)";

/// A loader with good properties, between files of the test and a chain of fakes.
class LoaderFixture : public testing::Test {
 protected:
  explicit LoaderFixture(const LoaderKind& kind);
  ~LoaderFixture() override;

  /// Makes the loader, in place of one that was made before.
  ILoader& Make();

  /// What one preparation says, from Info up.
  Lines MessagesOfPrepare(ILoader& loader, TBool expected);

  /// What must stand in the journal when the chain is asked for something, with the properties as they are.
  std::string PortRequest(const std::string& name, TInt32 speed) const;
  std::string SessionRequest() const;
  /// The same without any preparation.
  std::string UnpreparedPortRequest() const { return PortRequest("", 115200); }
  std::string UnpreparedSessionRequest() const;

  /// What the loader asks for a port: it tells what was read.
  std::string PortRequestOf(ILoader& loader);

  /// The loader's log line at the beginning of an operation: "Info CCanXModemLoader::Abort
  /// (CanXModemLoader)".
  std::string Begins(const std::string& operation) const;
  /// "Interface CCanXModemLoader::Prepare ()"
  std::string Enters(const std::string& operation) const;

  /// No session comes to its end while `action` runs, so that none completes from within its own start.
  template <typename TAction>
  void WithoutAnswers(TAction action) {
    const std::lock_guard<std::mutex> closed(iChain.gate);
    action();
  }

  CXModemSwl& Session(std::size_t index) { return *iChain.sessions.at(index).session; }
  void AwaitEndOfUpload(std::size_t index) { iChain.sessions.at(index).end->Await(); }

  const LoaderKind& iKind;
  LoaderChain iChain;
  TemporaryFolder iFolder;
  RecordingBroker iBroker;
  FakeProperties iProperties;
  std::unique_ptr<ILoaderCallback> iCallback;
  TFeatureId iFeatureId = "feature";
  std::unique_ptr<ILoader> iLoader;
};
