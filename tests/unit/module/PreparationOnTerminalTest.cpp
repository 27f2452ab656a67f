// Goal: the check of the port during preparation gets on with a real terminal, also while a port that an
// installation has made on it is still open.
// Method: the loader on the real platform, with a pseudo-terminal's slave for its device; as an ordinary
// user, since a superuser may open what is held exclusively.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <stdexcept>

#include "CanXModemLoader.h"
#include "Files.h"
#include "LogCapture.h"
#include "RecordingBroker.h"

namespace {

using Entries = std::vector<std::string>;

class Terminal {
 public:
  Terminal() : iMaster(posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC)) {
    char name[64] = "";
    if (iMaster == -1 || grantpt(iMaster) != 0 || unlockpt(iMaster) != 0 ||
        ptsname_r(iMaster, name, sizeof name) != 0) {
      throw std::runtime_error("no pseudo-terminal");
    }
    iName = name;
  }
  ~Terminal() { close(iMaster); }
  Terminal(const Terminal&) = delete;
  Terminal& operator=(const Terminal&) = delete;

  const std::string& Name() const { return iName; }

 private:
  int iMaster;
  std::string iName;
};

class SilentCallback : public ILoaderCallback {
 public:
  void Progress(TUint32 /*remainingSize*/, TUint32 /*totalSize*/) override {}
  void Completed(TBool /*successful*/) override { ++completed; }
  void Aborted() override {}

  int completed = 0;
};

int enginesAsked = 0;

// The chain ends behind the port, which stays open as the platform's.
IXModem* NoEngine(ISerialPort* /*port*/) {
  ++enginesAsked;
  return nullptr;
}

TEST(PreparationOnATerminal, PassesBeforeAndAfterAnInstallationHasOpenedIt) {
  enginesAsked = 0;
  const OrdinaryUser user;
  const TemporaryFolder folder;
  const Terminal terminal;
  RecordingBroker broker;
  FakeProperties properties;
  properties.Set("xmodemsource-image", folder.Write("image", ""));
  properties.Set("xmodemsource-loader", folder.Write("loader", ""));
  properties.Set("xmodemspeed", "115200");
  properties.Set("xmodemportname", terminal.Name());
  properties.Set("xmodemramaddress", "1000");
  properties.Set("xmodemflashaddress", "2000");
  SilentCallback callback;
  TFeatureId featureId = "feature";
  CCanXModemLoader loader(featureId, broker, properties, callback, ISerialPort::Create, NoEngine,
                          CCanXModemSwl::Create);
  for (int installations = 0; installations < 3; ++installations) {
    const LogCapture log;
    EXPECT_EQ(loader.Prepare(), ETrue);
    EXPECT_EQ(log.Messages(), (Entries{"Info (All properties are ok)"}));
    loader.Install();
    EXPECT_EQ(enginesAsked, installations + 1) << "the port has been opened";
  }
  EXPECT_EQ(callback.completed, 3);
}

}  // namespace
