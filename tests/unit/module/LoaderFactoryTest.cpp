// Goal: a list of peripherals becomes its loaders, in order, and whatever is unknown is skipped aloud.
// Method: lists in a table; the real factory makes the loaders, and one of them is run as far as its port.
#include "LoaderFactory.h"

#include <gtest/gtest.h>

#include <algorithm>

#include "CanXModemLoader.h"
#include "Files.h"
#include "InjectedFailures.h"
#include "Journal.h"
#include "SanyoXModemLoader.h"
#include "SerialPorts.h"
#include "VirtualClock.h"

namespace {

using Entries = std::vector<std::string>;

class CallbackInJournal : public ILoaderCallback {
 public:
  explicit CallbackInJournal(Journal& journal) : iJournal(journal) {}

  void Progress(TUint32 remainingSize, TUint32 totalSize) override {
    iJournal.Note("progress " + std::to_string(remainingSize) + " of " + std::to_string(totalSize));
  }
  void Completed(TBool successful) override { iJournal.Note("completed " + std::to_string(successful)); }
  void Aborted() override { iJournal.Note("aborted"); }

 private:
  Journal& iJournal;
};

class Factory : public testing::Test {
 protected:
  ~Factory() override {
    DeleteLoaders();
    SetPortFactory(nullptr);
  }

  void Create(const std::string& list) {
    CLoaderFactory factory;
    factory.Create(list, iLoaders, iFeatureId, iBroker, iProperties, iCallback);
  }

  void DeleteLoaders() {
    for (const ILoader* loader : iLoaders) {
      delete loader;
    }
    iLoaders.clear();
  }

  Journal iJournal;
  RecordingBroker iBroker;
  FakeProperties iProperties;
  CallbackInJournal iCallback{iJournal};
  TFeatureId iFeatureId = "feature";
  std::vector<ILoader*> iLoaders;
};

// Of a list: "C" for each CAN loader made, "S" for each Sanyo loader, and the entries complained about
// between brackets.
struct List {
  std::string list;
  std::string outcome;
};

const List kLists[] = {
    {"", ""},
    {"xmodem", "C"},
    {"xmodem;xmodem", "CC"},
    {"sanyo", "[sanyo]"},
    {"XMODEM", "[XMODEM]"},
    {" xmodem", "[ xmodem]"},
    {"xmodem ", "[xmodem ]"},
    {"xmodemx", "[xmodemx]"},
    {"xmode", "[xmode]"},
    {"xmodem\n", "[xmodem\n]"},
    {"xmodem,xmodem", "[xmodem,xmodem]"},
    {std::string("xmodem\0", 7), std::string("[xmodem\0]", 9)},
    {"xmodem;", "C"},
    {";xmodem", "[]C"},
    {";", "[]"},
    {";;", "[][]"},
    {"xmodem;;", "C[]"},
    {"xmodem;;xmodem", "C[]C"},
    {"xmodem;foo;bar", "C[foo][bar]"},
    {"foo;xmodem", "[foo]C"},
    {"sanyoxmodem", "S"},
    {"sanyoxmodem;sanyoxmodem", "SS"},
    {"xmodem;sanyoxmodem", "CS"},
    {"sanyoxmodem;xmodem", "SC"},
    {"xmodem;foo;sanyoxmodem", "C[foo]S"},
    {"foo;sanyoxmodem;;bar;xmodem;", "[foo]S[][bar]C"},
    {"SanyoXModem", "[SanyoXModem]"},
    {" sanyoxmodem", "[ sanyoxmodem]"},
    {"sanyoxmodem ", "[sanyoxmodem ]"},
    {"sanyoxmode", "[sanyoxmode]"},
    {"sanyoxmodemx", "[sanyoxmodemx]"},
    {"sanyo xmodem", "[sanyo xmodem]"},
    {"sanyo;xmodem", "[sanyo]C"},
};

struct Added {
  const char* line;
  const char* behind;  ///< the loader's own first line
  const char* sign;
};

const Added kAdded[] = {
    {"Info CLoaderFactory::Create (Added Can xmodem loader: xmodem)",
     "Interface CCanXModemLoader::CCanXModemLoader ()", "C"},
    {"Info CLoaderFactory::Create (Added Sanyo xmodem loader: sanyoxmodem)",
     "Interface CSanyoXModemLoader::CSanyoXModemLoader ()", "S"},
};

// The sign of the loader whose addition these two lines tell, or nothing.
std::string SignOf(const std::string& line, const std::string& behind) {
  for (const Added& added : kAdded) {
    if (line == added.line && behind == added.behind) {
      return added.sign;
    }
  }
  return "";
}

std::string OutcomeOf(const Entries& journal) {
  const std::string unknown = "Error CLoaderFactory::Create (Unknown peripheral found and ignored: ";
  std::string outcome;
  for (auto entry = journal.begin(); entry != journal.end(); ++entry) {
    const std::string sign = entry + 1 == journal.end() ? "" : SignOf(*entry, *(entry + 1));
    if (!sign.empty()) {
      outcome += sign;
      ++entry;
    } else if (entry->compare(0, unknown.size(), unknown) == 0) {
      outcome += "[" + entry->substr(unknown.size(), entry->size() - unknown.size() - 1) + "]";
    } else {
      outcome += "<" + *entry + ">";
    }
  }
  return outcome;
}

std::string SignsOf(const std::vector<ILoader*>& loaders) {
  std::string signs;
  for (ILoader* loader : loaders) {
    signs += dynamic_cast<CCanXModemLoader*>(loader) != nullptr     ? "C"
             : dynamic_cast<CSanyoXModemLoader*>(loader) != nullptr ? "S"
                                                                    : "?";
  }
  return signs;
}

// What is outside of brackets.
std::string WithoutComplaints(const std::string& outcome) {
  std::string signs;
  bool inside = false;
  for (const char c : outcome) {
    inside = c == '[' || (inside && c != ']');
    if (!inside && c != ']') {
      signs += c;
    }
  }
  return signs;
}

TEST_F(Factory, MakesALoaderForEachKnownEntryAndComplainsOfTheOthersInOrder) {
  for (const List& list : kLists) {
    SCOPED_TRACE("list \"" + list.list + "\"");
    {
      const JournalLog log(iJournal);
      Create(list.list);
    }
    EXPECT_EQ(OutcomeOf(iJournal.Take()), list.outcome);
    EXPECT_EQ(SignsOf(iLoaders), WithoutComplaints(list.outcome));
    DeleteLoaders();
  }
}

TEST_F(Factory, SkipsAndAddsAlikeWithTheLogOff) {
  LogCapture log;
  logging::SetLowestLevel(logging::EAlways);
  Create("foo;xmodem;sanyoxmodem");
  EXPECT_EQ(SignsOf(iLoaders), "CS");
  EXPECT_EQ(log.Messages(), Entries());
}

TEST_F(Factory, KeepsThePlaceOfALoaderForWhichThereIsNoMemory) {
  for (const char* list : {"xmodem", "sanyoxmodem"}) {
    injected_failures::FailMalloc(1);
    Create(list);
  }
  EXPECT_EQ(iLoaders, std::vector<ILoader*>(2, nullptr));
}

TEST_F(Factory, LogsForTheFeaturesModule) {
  LogCapture log;
  Create("xmodem;sanyoxmodem;foo");
  EXPECT_EQ(log.Lines().size(), 5U);
  for (const LogCapture::Line& line : log.Lines()) {
    EXPECT_EQ(line.module, logging::PeripheralLoader);
  }
}

TEST_F(Factory, AppendsBehindWhatTheVectorHolds) {
  Create("xmodem");
  ILoader* const first = iLoaders.front();
  Create("xmodem");
  ASSERT_EQ(iLoaders.size(), 2U);
  EXPECT_EQ(iLoaders.front(), first);
  EXPECT_NE(iLoaders.back(), first);
}

TEST_F(Factory, AsksNothingAndTouchesNothingWhileItMakesLoaders) {
  Create("xmodem;sanyoxmodem;xmodem;foo");
  EXPECT_EQ(iProperties.asked, Entries());
  EXPECT_EQ(iBroker.Summary(), Entries());
  EXPECT_EQ(iJournal.Take(), Entries());
  EXPECT_EQ(iFeatureId, "feature");
}

TEST(FactoryObject, HoldsNoData) {
  EXPECT_EQ(sizeof(CLoaderFactory), sizeof(void*));
}

TEST_F(Factory, LoadersAskTheSamePropertiesOfTheSameFeature) {
  iProperties.Set("xmodemsource-image", "/none");
  Create("xmodem;sanyoxmodem;xmodem");
  const Entries asked[] = {{"xmodemsource-image", "xmodemsource-loader"},
                           {"xmodemsource-image", "xmodemspeed"},
                           {"xmodemsource-image", "xmodemsource-loader"}};
  for (std::size_t i = 0; i < iLoaders.size(); ++i) {
    iProperties.asked.clear();
    iProperties.askedFeatures.clear();
    EXPECT_EQ(iLoaders[i]->Prepare(), EFalse);
    EXPECT_EQ(iProperties.asked, asked[i]);
    EXPECT_EQ(iProperties.askedFeatures, (Entries{"feature", "feature"}));
  }
}

TEST_F(Factory, LoadersGetThePlatformsPortsAndReportToTheCallback) {
  Entries requests;
  SetPortFactory([&](const PortRequest& request) {
    requests.push_back(request.name + " " + std::to_string(request.speed) + " " +
                       std::to_string(request.hardwareFlowControl) + " " +
                       std::to_string(request.lowLatency));
    return nullptr;
  });
  Create("xmodem;sanyoxmodem");
  for (ILoader* loader : iLoaders) {
    loader->Install();
    loader->Abort();
    EXPECT_EQ(iJournal.Take(), (Entries{"completed 0", "aborted"}));
  }
  EXPECT_EQ(requests, (Entries{" 115200 0 1", " 115200 0 0"}));
}

struct RealChain {
  const char* list;
  Entries made;  ///< lines that a start leaves once each
};

const RealChain kRealChains[] = {
    {"xmodem",
     {"Interface CXModem::CXModem ()", "Interface CCanXModemSwl::Create ()",
      "Interface CCanXModemSwl::CCanXModemSwl ()", "Interface CCanXModemSwl::Upload ()",
      "Interface CXModem::ReceiveBuffer ()"}},
    {"sanyoxmodem",
     {"Interface CXModem::CXModem ()", "Interface CSanyoXModemSwl::Create ()",
      "Interface CSanyoXModemSwl::CSanyoXModemSwl ()", "Interface CSanyoXModemSwl::Upload ()",
      "Interface CXModem::SendFile ()"}},
};

TEST_F(Factory, LoadersRunTheRealEngineAndTheirOwnSession) {
  for (const RealChain& chain : kRealChains) {
    SCOPED_TRACE(chain.list);
    virtual_clock::Reset();
    iBroker.Clear();
    ScriptedPort port;
    SetPortFactory([&](const PortRequest&) { return &port; });
    LogCapture log;
    Create(chain.list);
    iLoaders.front()->Install();
    DeleteLoaders();
    EXPECT_EQ(iBroker.Summary().front(), "subscribe 0/0");
    const Entries trace = log.Trace();
    for (const std::string& made : chain.made) {
      EXPECT_EQ(std::count(trace.begin(), trace.end(), made), 1) << made;
    }
  }
}

}  // namespace
