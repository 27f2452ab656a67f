// Goal: a list of peripherals becomes its loaders, in order, and whatever is unknown is skipped aloud.
// Method: lists in a table; the real factory makes the loaders, and one of them is run as far as its port.
#include "LoaderFactory.h"

#include <gtest/gtest.h>

#include <algorithm>

#include "CanXModemLoader.h"
#include "Files.h"
#include "Journal.h"
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

// Of a list: "C" for each CAN loader made, and the entries complained about between brackets.
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
};

// The line before a loader's own first line.
std::string OutcomeOf(const Entries& journal) {
  const std::string added = "Info CLoaderFactory::Create (Added Can xmodem loader: xmodem)";
  const std::string unknown = "Error CLoaderFactory::Create (Unknown peripheral found and ignored: ";
  std::string outcome;
  for (auto entry = journal.begin(); entry != journal.end(); ++entry) {
    if (*entry == added && entry + 1 != journal.end() &&
        *(entry + 1) == "Interface CCanXModemLoader::CCanXModemLoader ()") {
      outcome += "C";
      ++entry;
    } else if (entry->compare(0, unknown.size(), unknown) == 0) {
      outcome += "[" + entry->substr(unknown.size(), entry->size() - unknown.size() - 1) + "]";
    } else {
      outcome += "<" + *entry + ">";
    }
  }
  return outcome;
}

TEST_F(Factory, MakesALoaderForEachKnownEntryAndComplainsOfTheOthersInOrder) {
  for (const List& list : kLists) {
    SCOPED_TRACE("list \"" + list.list + "\"");
    {
      const JournalLog log(iJournal);
      Create(list.list);
    }
    EXPECT_EQ(OutcomeOf(iJournal.Take()), list.outcome);
    EXPECT_EQ(iLoaders.size(),
              static_cast<std::size_t>(std::count(list.outcome.begin(), list.outcome.end(), 'C')));
    for (ILoader* loader : iLoaders) {
      EXPECT_NE(dynamic_cast<CCanXModemLoader*>(loader), nullptr);
    }
    DeleteLoaders();
  }
}

TEST_F(Factory, LogsForTheFeaturesModule) {
  LogCapture log;
  Create("xmodem;foo");
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
  Create("xmodem;xmodem;foo");
  EXPECT_EQ(iProperties.asked, Entries());
  EXPECT_EQ(iBroker.Summary(), Entries());
  EXPECT_EQ(iJournal.Take(), Entries());
  EXPECT_EQ(iFeatureId, "feature");
}

TEST(FactoryObject, HoldsNoData) {
  EXPECT_EQ(sizeof(CLoaderFactory), sizeof(void*));
}

TEST_F(Factory, LoadersAskTheSamePropertiesOfTheSameFeature) {
  Create("xmodem;xmodem");
  for (ILoader* loader : iLoaders) {
    iProperties.asked.clear();
    iProperties.askedFeatures.clear();
    iProperties.Set("xmodemsource-image", "/none");
    EXPECT_EQ(loader->Prepare(), EFalse);
    EXPECT_EQ(iProperties.asked, (Entries{"xmodemsource-image", "xmodemsource-loader"}));
    EXPECT_EQ(iProperties.askedFeatures, (Entries{"feature", "feature"}));
  }
}

TEST_F(Factory, LoadersGetThePlatformsPortsAndReportToTheCallback) {
  std::vector<PortRequest> requests;
  SetPortFactory([&](const PortRequest& request) {
    requests.push_back(request);
    return nullptr;
  });
  Create("xmodem");
  iLoaders.front()->Install();
  ASSERT_EQ(requests.size(), 1U);
  EXPECT_EQ(requests.front().speed, 115200);
  iLoaders.front()->Abort();
  EXPECT_EQ(iJournal.Take(), (Entries{"completed 0", "aborted"}));
}

TEST_F(Factory, LoadersRunTheRealEngineAndTheCanSession) {
  virtual_clock::Reset();
  ScriptedPort port;
  SetPortFactory([&](const PortRequest&) { return &port; });
  LogCapture log;
  Create("xmodem");
  iLoaders.front()->Install();
  DeleteLoaders();
  EXPECT_EQ(iBroker.Summary().front(), "subscribe 0/0");
  const Entries trace = log.Trace();
  for (const char* made : {"Interface CXModem::CXModem ()", "Interface CCanXModemSwl::CCanXModemSwl ()",
                           "Interface CCanXModemSwl::Upload ()", "Interface CXModem::ReceiveBuffer ()"}) {
    EXPECT_EQ(std::count(trace.begin(), trace.end(), made), 1) << made;
  }
}

}  // namespace
