// Goal: the loader of a CAN controller wants two files and two addresses, hands them to its session, and says
// nothing of its own when a part of its chain cannot be made. What it has in common with other loaders is
// tested with them.
// Method: the loader over the fixture's chain of fakes.
#include "LoaderFixture.h"

namespace {

class CanLoader : public LoaderFixture {
 protected:
  CanLoader() : LoaderFixture(kCanLoader) {}
};

TEST_F(CanLoader, HandsFilesAndAddressesToItsSession) {
  Make().Prepare();
  iLoader->Install();
  EXPECT_EQ(iChain.journal.Take(),
            (Lines{"create port \"" + iFolder.Path("port") + "\" 9600 0 1", "create engine",
                   "create session \"" + iFolder.Path("loader") + "\" \"" + iFolder.Path("image") +
                       "\" \"1000\" \"2000\"",
                   "session 1 started"}));
}

TEST_F(CanLoader, WhatWasReadBeforeTheMissingPropertyIsKept) {
  iProperties.Remove("xmodemflashaddress");
  EXPECT_EQ(Make().Prepare(), EFalse);
  iLoader->Install();
  EXPECT_EQ(iChain.journal.Take()[2], "create session \"" + iFolder.Path("loader") + "\" \"" +
                                          iFolder.Path("image") + "\" \"1000\" \"\"");
}

TEST_F(CanLoader, FilesThatAreNotThereAreNamed) {
  iProperties.Set("xmodemsource-loader", "/no/loader");
  EXPECT_EQ(MessagesOfPrepare(Make(), EFalse), (Lines{BadLoader("/no/loader"), kNotOk}));
  iProperties.Set("xmodemsource-image", "/no/image");
  EXPECT_EQ(MessagesOfPrepare(Make(), EFalse),
            (Lines{BadImage("/no/image"), BadLoader("/no/loader"), kNotOk}));
}

TEST_F(CanLoader, AllFaultsAreToldInOnePass) {
  iProperties.Set("xmodemsource-image", "/no/image");
  iProperties.Set("xmodemsource-loader", "/no/loader");
  iProperties.Set("xmodemspeed", "slow");
  iProperties.Set("xmodemportname", "/no/port");
  iProperties.Remove("xmodemramaddress");
  EXPECT_EQ(MessagesOfPrepare(Make(), EFalse), (Lines{kNotAll, SlowSpeed("0"), BadImage("/no/image"),
                                                      BadLoader("/no/loader"), BadPort("/no/port"), kNotOk}));
}

TEST_F(CanLoader, WithoutAPortItFailsOnceAndSilently) {
  iChain.makesPort = false;
  Make();
  const JournalLog log(iChain.journal);
  iLoader->Install();
  EXPECT_EQ(iChain.journal.Take(), (Lines{"Info CCanXModemLoader::Install (CanXModemLoader)",
                                          "create port \"\" 115200 0 1", "completed 0"}));
}

TEST_F(CanLoader, WithoutAnEngineItFailsOnceAndSilently) {
  iChain.makesEngine = false;
  Make();
  const JournalLog log(iChain.journal);
  iLoader->Install();
  EXPECT_EQ(iChain.journal.Take(), (Lines{"Info CCanXModemLoader::Install (CanXModemLoader)",
                                          "create port \"\" 115200 0 1", "create engine", "completed 0"}));
}

TEST_F(CanLoader, WithoutASessionItFailsOnceAndReleasesNothing) {
  iChain.makesSession = false;
  Make();
  {
    const JournalLog log(iChain.journal);
    iLoader->Install();
    iLoader.reset();
  }
  EXPECT_EQ(iChain.journal.Take(),
            (Lines{"Info CCanXModemLoader::Install (CanXModemLoader)", "create port \"\" 115200 0 1",
                   "create engine", "create session \"\" \"\" \"\" \"\"", "completed 0",
                   "Interface CCanXModemLoader::~CCanXModemLoader ()"}));
  delete iChain.engines.front();
}

}  // namespace
