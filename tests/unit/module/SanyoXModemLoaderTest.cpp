// Goal: the loader of a Sanyo device wants one file and no addresses, opens its port without either flag, and
// says which part of its chain could not be made. What it has in common with other loaders is tested with
// them.
// Method: the loader over the fixture's chain of fakes.
#include "LoaderFixture.h"

namespace {

class SanyoLoader : public LoaderFixture {
 protected:
  SanyoLoader() : LoaderFixture(kSanyoLoader) {}
};

const std::string kInstalls = "Info CSanyoXModemLoader::Install (SanyoXModemLoader)";

std::string Fails(const std::string& message) {
  return "Error CSanyoXModemLoader::StartSession (" + message + ")";
}

TEST_F(SanyoLoader, HandsItsImageToItsSession) {
  Make().Prepare();
  iLoader->Install();
  EXPECT_EQ(iChain.journal.Take(),
            (Lines{"create port \"" + iFolder.Path("port") + "\" 9600 0 0", "create engine",
                   "create session \"" + iFolder.Path("image") + "\"", "session 1 started"}));
}

TEST_F(SanyoLoader, NeitherAsksForNorNeedsALoaderAndAddresses) {
  for (const char* key : {"xmodemsource-loader", "xmodemramaddress", "xmodemflashaddress"}) {
    iProperties.Remove(key);
  }
  EXPECT_EQ(MessagesOfPrepare(Make(), ETrue), kGood);
  EXPECT_EQ(iProperties.asked, (Lines{"xmodemsource-image", "xmodemspeed", "xmodemportname"}));
}

TEST_F(SanyoLoader, ALoaderThatIsNotThereIsNoFault) {
  iProperties.Set("xmodemsource-loader", "/no/loader");
  EXPECT_EQ(MessagesOfPrepare(Make(), ETrue), kGood);
}

TEST_F(SanyoLoader, WithoutAnyPropertyItNamesAllThatFollows) {
  iProperties = FakeProperties();
  EXPECT_EQ(MessagesOfPrepare(Make(), EFalse),
            (Lines{"Error (Not all required properties found!)",
                   "Error (Serial port speed too low! Speed is 0)", "Error (Invalid source image: )",
                   "Error (Invalid serial port name: )", "Info (All properties are not ok)"}));
  EXPECT_EQ(iProperties.asked, (Lines{"xmodemsource-image"}));
}

TEST_F(SanyoLoader, AllFaultsAreToldInOnePass) {
  iProperties.Set("xmodemsource-image", "/no/image");
  iProperties.Set("xmodemspeed", "slow");
  iProperties.Set("xmodemportname", "/no/port");
  EXPECT_EQ(MessagesOfPrepare(Make(), EFalse),
            (Lines{SlowSpeed("0"), BadImage("/no/image"), BadPort("/no/port"), kNotOk}));
}

TEST_F(SanyoLoader, WithoutAPortItSaysWhichOneAndFailsOnce) {
  iChain.makesPort = false;
  Make();
  const JournalLog log(iChain.journal);
  iLoader->Install();
  EXPECT_EQ(iChain.journal.Take(), (Lines{kInstalls, "create port \"\" 115200 0 0",
                                          Fails("Error creating serialport  115200"), "completed 0"}));
  iProperties.Set("xmodemspeed", "-3");
  iLoader->Prepare();
  iChain.journal.Take();
  iLoader->Install();
  const std::string port = iFolder.Path("port");
  EXPECT_EQ(iChain.journal.Take(),
            (Lines{kInstalls, "create port \"" + port + "\" -3 0 0",
                   Fails("Error creating serialport " + port + " -3"), "completed 0"}));
}

TEST_F(SanyoLoader, WithoutAnEngineItSaysSoAndFailsOnce) {
  iChain.makesEngine = false;
  Make();
  const JournalLog log(iChain.journal);
  iLoader->Install();
  EXPECT_EQ(iChain.journal.Take(), (Lines{kInstalls, "create port \"\" 115200 0 0", "create engine",
                                          Fails("Error creating XModem"), "completed 0"}));
}

TEST_F(SanyoLoader, WithoutASessionItNamesItselfFailsOnceAndReleasesNothing) {
  iChain.makesSession = false;
  Make();
  {
    const JournalLog log(iChain.journal);
    iLoader->Install();
    iLoader.reset();
  }
  EXPECT_EQ(iChain.journal.Take(),
            (Lines{kInstalls, "create port \"\" 115200 0 0", "create engine", "create session \"\"",
                   Fails("Error creating SanyoXModemLoader"), "completed 0",
                   "Interface CSanyoXModemLoader::~CSanyoXModemLoader ()"}));
  delete iChain.engines.front();
}

TEST_F(SanyoLoader, FailsOnceAtEveryPartOfItsChainWithTheLogOff) {
  LogCapture log;
  logging::SetLowestLevel(logging::EAlways);
  Make();
  for (bool* part : {&iChain.makesPort, &iChain.makesEngine, &iChain.makesSession}) {
    *part = false;
    iLoader->Install();
    *part = true;
    EXPECT_EQ(iChain.journal.Take().back(), "completed 0");
  }
  EXPECT_EQ(log.Trace(), Lines());
  delete iChain.engines.back();
}

}  // namespace
