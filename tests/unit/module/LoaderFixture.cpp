#include "LoaderFixture.h"

#include <algorithm>
#include <utility>

#include "CanXModemLoader.h"
#include "SanyoXModemLoader.h"

namespace {

LoaderChain* chain = nullptr;

struct FakePort : ISerialPort {
  TInt32 Write(const TUint8* /*buffer*/, TUint32 /*count*/, TUint32* /*written*/) override { return -1; }
  TInt32 Read(TUint8* /*buffer*/, TUint32 /*count*/, TUint32* /*received*/) override { return -1; }
};
FakePort port;

class FakeEngine : public IXModem {
 public:
  explicit FakeEngine(std::size_t number) : iNumber(number) {}
  ~FakeEngine() override { chain->journal.Note("engine " + std::to_string(iNumber) + " deleted"); }

  TXModemError SendFile(const TChr* /*name*/, IXModemCallback& callback) override {
    const TXModemError answer = Answer();
    if (answer == EXModemOk) {
      callback.IXModemProgress(0, 1);
    }
    return answer;
  }
  TXModemError SendBuffer(const TUint8* /*buffer*/, TInt32 /*size*/) override { return EXModemOk; }
  TXModemError ReceiveFile(const TChr* /*name*/) override { return EXModemFileError; }
  TXModemError ReceiveBuffer(TUint8* buffer, TInt32 /*capacity*/, TInt32* received) override {
    std::copy_n("000", 4, buffer);
    *received = 4;
    return Answer();
  }

 private:
  static TXModemError Answer() {
    const std::lock_guard<std::mutex> pass(chain->gate);
    return chain->succeeds ? EXModemOk : EXModemTimeout;
  }

  std::size_t iNumber;
};

// A session of which only the start and the end are seen.
template <typename TSession>
class IdleSession : public TSession {
 public:
  template <typename... TArguments>
  explicit IdleSession(std::size_t number, TArguments&&... arguments)
      : TSession(std::forward<TArguments>(arguments)...), iNumber(number) {}
  ~IdleSession() override { Did("deleted"); }

  void StartUpload() override { Did("started"); }

 private:
  void Did(const std::string& what) {
    chain->journal.Note("session " + std::to_string(iNumber) + " " + what);
  }

  std::size_t iNumber;
};

// A session that runs its whole sequence and tells when its worker has done so.
template <typename TSession>
class WorkingSession : public TSession {
 public:
  using TSession::TSession;
  ~WorkingSession() override { TSession::JoinWorker(); }

  void Upload() override {
    TSession::Upload();
    end.Tell();
  }

  EndOfUpload end;
};

ISerialPort* CreatePort(const TChr* name, TInt32 speed, TBool first, TBool second) {
  chain->journal.Note("create port \"" + std::string(AsChar(name)) + "\" " + std::to_string(speed) + " " +
                      std::to_string(first) + " " + std::to_string(second));
  return chain->makesPort ? &port : nullptr;
}

IXModem* CreateEngine(ISerialPort* given) {
  chain->journal.Note(given == &port ? "create engine" : "create engine on another port");
  if (!chain->makesEngine) {
    return nullptr;
  }
  chain->engines.push_back(new FakeEngine(chain->engines.size() + 1));
  return chain->engines.back();
}

template <typename TSession, typename... TTexts>
TSession* CreateSession(IXModem* engine, IEventBroker& broker, ILoaderCallback& callback,
                        const TTexts&... texts) {
  std::string request = "create session";
  ((request += " \"" + texts + "\""), ...);
  chain->journal.Note(request + (engine == chain->engines.back() ? "" : " on another engine"));
  if (!chain->makesSession) {
    return nullptr;
  }
  if (chain->sessionsWork) {
    auto* session = new WorkingSession<TSession>(engine, broker, callback, texts...);
    chain->sessions.push_back({session, &session->end});
    return session;
  }
  auto* session = new IdleSession<TSession>(chain->sessions.size() + 1, engine, broker, callback, texts...);
  chain->sessions.push_back({session, nullptr});
  return session;
}

ILoader* MakeCanLoader(TFeatureId& featureId, IEventBroker& broker, const IFeatureProperties& properties,
                       ILoaderCallback& callback) {
  using std::string;
  return new CCanXModemLoader(featureId, broker, properties, callback, CreatePort, CreateEngine,
                              CreateSession<CCanXModemSwl, string, string, string, string>);
}

ILoader* MakeSanyoLoader(TFeatureId& featureId, IEventBroker& broker, const IFeatureProperties& properties,
                         ILoaderCallback& callback) {
  return new CSanyoXModemLoader(featureId, broker, properties, callback, CreatePort, CreateEngine,
                                CreateSession<CSanyoXModemSwl, std::string>);
}

class NotingCallback : public ILoaderCallback {
 public:
  void Progress(TUint32 remainingSize, TUint32 totalSize) override {
    chain->journal.Note("progress " + std::to_string(remainingSize) + " of " + std::to_string(totalSize));
  }
  void Completed(TBool successful) override {
    chain->journal.Note("completed " + std::to_string(successful));
  }
  void Aborted() override { chain->journal.Note("aborted"); }
};

}  // namespace

const LoaderKind kCanLoader = {
    "Can",
    {"xmodemsource-image", "xmodemsource-loader", "xmodemspeed", "xmodemportname", "xmodemramaddress",
     "xmodemflashaddress"},
    {{SlowSpeed("0"), BadImage(""), BadLoader(""), BadPort("")},
     {SlowSpeed("0"), BadLoader(""), BadPort("")},
     {SlowSpeed("0"), BadPort("")},
     {BadPort("")},
     {},
     {}},
    {"xmodemsource-loader", "xmodemsource-image", "xmodemramaddress", "xmodemflashaddress"},
    "0 1",
    "0 of 145",
    100,
    MakeCanLoader};

const LoaderKind kSanyoLoader = {
    "Sanyo",
    {"xmodemsource-image", "xmodemspeed", "xmodemportname"},
    {{SlowSpeed("0"), BadImage(""), BadPort("")}, {SlowSpeed("0"), BadPort("")}, {BadPort("")}},
    {"xmodemsource-image"},
    "0 0",
    "4294967295 of 150",
    101,
    MakeSanyoLoader};

void PrintTo(const LoaderKind* kind, std::ostream* output) {
  *output << kind->name;
}

void EndOfUpload::Tell() {
  const std::lock_guard<std::mutex> lock(iMutex);
  iTold = true;
  iChange.notify_all();
}

void EndOfUpload::Await() {
  std::unique_lock<std::mutex> lock(iMutex);
  iChange.wait(lock, [this] { return iTold; });
}

LoaderFixture::LoaderFixture(const LoaderKind& kind)
    : iKind(kind), iCallback(std::make_unique<NotingCallback>()) {
  chain = &iChain;
  iProperties.Set("xmodemsource-image", iFolder.Write("image", "i"));
  iProperties.Set("xmodemsource-loader", iFolder.Write("loader", "l"));
  iProperties.Set("xmodemspeed", "9600");
  iProperties.Set("xmodemportname", iFolder.Write("port", "p"));
  iProperties.Set("xmodemramaddress", "1000");
  iProperties.Set("xmodemflashaddress", "2000");
}

LoaderFixture::~LoaderFixture() {
  iLoader.reset();
  chain = nullptr;
}

ILoader& LoaderFixture::Make() {
  iLoader.reset(iKind.make(iFeatureId, iBroker, iProperties, *iCallback));
  return *iLoader;
}

Lines LoaderFixture::MessagesOfPrepare(ILoader& loader, TBool expected) {
  LogCapture log;
  EXPECT_EQ(loader.Prepare(), expected);
  EXPECT_EQ(log.Trace().front(), Enters("Prepare"));
  EXPECT_EQ(log.Lines().size(), log.Messages().size() + 1) << "one line without a text";
  return log.Messages();
}

std::string LoaderFixture::PortRequest(const std::string& name, TInt32 speed) const {
  return "create port \"" + name + "\" " + std::to_string(speed) + " " + iKind.flags;
}

std::string LoaderFixture::SessionRequest() const {
  const FakeProperties properties = iProperties;
  std::string request = "create session";
  for (const std::string& key : iKind.handed) {
    std::string value;
    properties.Get(iFeatureId, key, value);
    request += " \"" + value + "\"";
  }
  return request;
}

std::string LoaderFixture::UnpreparedSessionRequest() const {
  std::string request = "create session";
  for (std::size_t i = 0; i < iKind.handed.size(); ++i) {
    request += " \"\"";
  }
  return request;
}

std::string LoaderFixture::PortRequestOf(ILoader& loader) {
  iChain.journal.Take();
  loader.Install();
  return iChain.journal.Take().front();
}

std::string LoaderFixture::Begins(const std::string& operation) const {
  return "Info " + iKind.Class() + "::" + operation + " (" + iKind.LogName() + ")";
}

std::string LoaderFixture::Enters(const std::string& operation) const {
  return "Interface " + iKind.Class() + "::" + operation + " ()";
}
