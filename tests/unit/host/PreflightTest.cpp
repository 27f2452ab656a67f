// Goal: a person learns of every mistake before the module is asked, with file, key or port and the cure.
// Method: a set of good properties; a table of changes to it, each with the one message it earns.
#include "Preflight.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <spawn.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <csignal>
#include <cstring>
#include <filesystem>

#include "Files.h"
#include "IoctlDouble.h"
#include "PseudoTerminal.h"
#include "Texts.h"

namespace {

using host::PropertyMap;
using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::StartsWith;

std::vector<std::string> CheckedTexts(const PropertyMap& properties, const host::CheckRules& rules = {}) {
  return Texts(host::CheckProperties(properties, rules).faults);
}

class Preflight : public testing::Test {
 protected:
  Preflight() {
    iGood = {{"updatelist", "xmodem"},
             {"xmodemsource-image", iFolder.Write("image", "i")},
             {"xmodemsource-loader", iFolder.Write("loader", "l")},
             {"xmodemspeed", "115200"},
             {"xmodemportname", iPort.Name()},
             {"xmodemramaddress", "20000000"},
             {"xmodemflashaddress", "0x0800C0DE"}};
  }

  PropertyMap With(const std::string& key, const std::string& value) const {
    PropertyMap properties = iGood;
    properties[key] = value;
    return properties;
  }

  TemporaryFolder iFolder;
  PseudoTerminal iPort;
  PropertyMap iGood;
};

TEST_F(Preflight, GoodPropertiesHaveNoFault) {
  EXPECT_THAT(CheckedTexts(iGood), IsEmpty());
}

TEST_F(Preflight, GoodVariantsHaveNoFault) {
  for (const auto& [key, value] : PropertyMap{{"updatelist", "xmodem;xmodem;sanyoxmodem"},
                                              {"xmodemspeed", "75"},
                                              {"xmodemramaddress", "Zz9"},
                                              {"xmodemflashaddress", "1000h"}}) {
    EXPECT_THAT(CheckedTexts(With(key, value)), IsEmpty()) << key << " = " << value;
  }
}

TEST_F(Preflight, AnEmptyListNeedsNothing) {
  EXPECT_THAT(CheckedTexts({{"updatelist", ""}}), IsEmpty());
}

TEST_F(Preflight, ALargeImageIsFine) {
  std::filesystem::resize_file(iGood["xmodemsource-image"], 17u << 20);
  EXPECT_THAT(CheckedTexts(iGood), IsEmpty());
}

TEST_F(Preflight, TheLargestFileIsTheOneWhoseSizeHas31Bits) {
  for (const char* key : {"xmodemsource-image", "xmodemsource-loader"}) {
    const std::string path = iGood[key];
    std::filesystem::resize_file(path, 2147483647u);
    EXPECT_THAT(CheckedTexts(iGood), IsEmpty());
    std::filesystem::resize_file(path, 2147483648u);
    EXPECT_THAT(
        CheckedTexts(iGood),
        ElementsAre(key + std::string(": the file '") + path +
                    "' is too large: 2147483648 bytes; at most 2147483647 can be sent. Is it the right "
                    "file?"));
    std::filesystem::resize_file(path, 1);
  }
}

TEST_F(Preflight, ASanyoDeviceNeedsThreeKeysOnlyAndTheOthersMayBeAnything) {
  const PropertyMap properties = {{"updatelist", "sanyoxmodem"},
                                  {"xmodemsource-image", iGood["xmodemsource-image"]},
                                  {"xmodemsource-loader", "/nowhere"},
                                  {"xmodemspeed", "115200"},
                                  {"xmodemportname", iPort.Name()}};
  EXPECT_THAT(CheckedTexts(properties), IsEmpty());
}

struct Fault {
  const char* key;
  const char* value;  ///< "~" stands for the test's folder
  const char* message;
};

constexpr Fault kFaults[] = {
    {"updatelist", "foo",
     "updatelist: unknown peripheral \"foo\"; known are \"xmodem\" (CAN controller) and \"sanyoxmodem\" "
     "(Sanyo "
     "device)."},
    {"updatelist", "XMODEM", "unknown peripheral \"XMODEM\""},
    {"updatelist", ";",
     "updatelist \";\": entries must be neither empty nor have blanks around them; write \"xmodem\"."},
    {"updatelist", " xmodem", "write \"xmodem\"."},
    {"updatelist", "xmodem ;sanyoxmodem", "write \"xmodem;sanyoxmodem\"."},
    {"updatelist", "xmodem;;xmodem", "updatelist \"xmodem;;xmodem\": entries must be neither empty"},
    {"updatelist", "xmodem;", "write \"xmodem\"."},
    {"updatelist", ";xmodem", "write \"xmodem\"."},
    {"updatelist", "xmodem, xmodem", "unknown peripheral \"xmodem, xmodem\""},
    {"xmodemspeed", "", "xmodemspeed \"\": must be a whole number of bit/s, digits only, from 75 up"},
    {"xmodemspeed", "74", "xmodemspeed \"74\": must be"},
    {"xmodemspeed", "9600 ", "xmodemspeed \"9600 \": must be"},
    {"xmodemspeed", "9600;", "xmodemspeed \"9600;\": must be"},
    {"xmodemspeed", "+9600", "must be a whole number"},
    {"xmodemspeed", "2147483648", "must be a whole number"},
    {"xmodemspeed", "99999999999999999999", "must be a whole number"},
    {"xmodemsource-image", "", "xmodemsource-image: the file name is empty"},
    {"xmodemsource-image", "~/missing", "xmodemsource-image: cannot find the file '~/missing': No such file"},
    {"xmodemsource-image", "~/a b;c", "xmodemsource-image: cannot find the file '~/a b;c'"},
    {"xmodemsource-image", "~", "xmodemsource-image: '~' is a folder; name the file in it."},
    {"xmodemsource-image", "~/empty", "xmodemsource-image: the file '~/empty' is empty"},
    {"xmodemsource-loader", "~/fifo", "xmodemsource-loader: '~/fifo' is not a regular file"},
    {"xmodemsource-loader", "/dev/null", "xmodemsource-loader: '/dev/null' is not a regular file"},
    {"xmodemsource-loader", "~/missing", "xmodemsource-loader: cannot find the file '~/missing'"},
    {"xmodemsource-loader", "a\nb", "xmodemsource-loader: the value holds a control character"},
    {"xmodemportname", "", "xmodemportname: the port name is empty"},
    {"xmodemportname", "/dev/tty nope",
     "cannot find the port \"/dev/tty nope\": No such file or directory. The name "
     "holds a blank or a semicolon"},
    {"xmodemportname", "/dev/nope;/dev/null", "The name holds a blank or a semicolon"},
    {"xmodemportname", "/dev/nope", "\"/dev/nope\": No such file or directory. Is the adapter plugged in?"},
    {"xmodemportname", "/dev/null", "xmodemportname: '/dev/null' is no serial port; name the serial device"},
    {"xmodemportname", "/dev/ptmx", "xmodemportname: '/dev/ptmx' is no serial port"},
    {"xmodemportname", "~/image", "xmodemportname: '~/image' is no serial port"},
    {"xmodemportname", "~", "xmodemportname: '~' is no serial port"},
    {"xmodemramaddress", "",
     "xmodemramaddress \"\": must be an address of letters and digits only, as the device reads it"},
    {"xmodemramaddress", "10 00", "xmodemramaddress \"10 00\": must be"},
    {"xmodemflashaddress", "1000;", "xmodemflashaddress \"1000;\": must be"},
};

TEST_F(Preflight, EachFaultIsNamedWithItsCure) {
  iFolder.Write("empty", "");
  ASSERT_EQ(mkfifo(iFolder.Path("fifo").c_str(), 0600), 0);
  const std::string folder = std::filesystem::path(iFolder.Path("x")).parent_path();
  const auto expand = [&](std::string text) {
    for (std::size_t at = text.find('~'); at != std::string::npos; at = text.find('~')) {
      text.replace(at, 1, folder);
    }
    return text;
  };
  for (const Fault& fault : kFaults) {
    EXPECT_THAT(CheckedTexts(With(fault.key, expand(fault.value))),
                ElementsAre(AllOf(HasSubstr(expand(fault.message)), HasSubstr(fault.key))))
        << fault.key << " = " << fault.value;
  }
}

TEST_F(Preflight, AMissingListIsNamedWithTheKnownEntries) {
  iGood.erase("updatelist");
  EXPECT_THAT(
      CheckedTexts(iGood),
      ElementsAre(StartsWith("updatelist: missing; say which peripherals to update, known are \"xmodem\"")));
}

TEST_F(Preflight, AllMissingKeysAreNamedInOneGo) {
  EXPECT_THAT(
      CheckedTexts({{"updatelist", "xmodem"}}),
      ElementsAre(StartsWith("missing properties: xmodemsource-image, xmodemsource-loader, xmodemspeed, "
                             "xmodemportname, xmodemramaddress, xmodemflashaddress. Add them")));
  EXPECT_THAT(
      CheckedTexts({{"updatelist", "sanyoxmodem"}}),
      ElementsAre(StartsWith("missing properties: xmodemsource-image, xmodemspeed, xmodemportname. Add")));
}

// What sha256sum prints for the one letter that the files hold.
constexpr const char* kDigestOfI = "de7d1b721a1e0632b7cf04edf5032c8ecffa9f9a08492152b926f1a5a7e765d7";
constexpr const char* kDigestOfL = "acac86c0e609ca906f632b0e2dacccb2b77d22b0621f20ebece1a4835b93f6f0";

TEST_F(Preflight, FilesThatAreWhatTheirDigestsStandForHaveNoFault) {
  EXPECT_THAT(CheckedTexts(iGood, {{{"xmodemsource-image", kDigestOfI}}}), IsEmpty());
  EXPECT_THAT(
      CheckedTexts(iGood, {{{"xmodemsource-image", kDigestOfI}, {"xmodemsource-loader", kDigestOfL}}, true}),
      IsEmpty());
}

TEST_F(Preflight, AFileThatIsNotWhatItsDigestStandsForIsNamedWithBoth) {
  EXPECT_THAT(CheckedTexts(iGood, {{{"xmodemsource-image", kDigestOfL}}}),
              ElementsAre("xmodemsource-image: the file '" + iGood["xmodemsource-image"] +
                          "' is not the right one: its SHA-256 is " + kDigestOfI + ", but [sha256] says " +
                          kDigestOfL + ". Fetch it again, or correct the digest."));
}

TEST_F(Preflight, EachFileThatIsSentMustHaveADigestWhenThatIsRequired) {
  EXPECT_THAT(
      CheckedTexts(iGood, {{{"xmodemsource-image", kDigestOfI}}, true}),
      ElementsAre("xmodemsource-loader: the file '" + iGood["xmodemsource-loader"] +
                  "' has no digest. Add xmodemsource-loader under [sha256] in the configuration file."));
  iGood["updatelist"] = "sanyoxmodem";
  EXPECT_THAT(CheckedTexts(iGood, {{{"xmodemsource-image", kDigestOfI}}, true}), IsEmpty());
}

TEST_F(Preflight, WhatWasToldOfTheConfigurationIsNotToldAgain) {
  EXPECT_THAT(CheckedTexts({{"xmodemspeed", "9600"}}, {{}, false, {"updatelist"}}), IsEmpty());
  iGood.erase("xmodemspeed");
  EXPECT_THAT(CheckedTexts(iGood, {{}, false, {"xmodemspeed"}}), IsEmpty());
  iGood["xmodemspeed"] = "9600";
  EXPECT_THAT(CheckedTexts(iGood, {{{"xmodemsource-loader", kDigestOfL}}, true, {}, {"xmodemsource-image"}}),
              IsEmpty());
}

TEST_F(Preflight, FilesAreKnownWithOrWithoutADigest) {
  const host::Findings found = host::CheckProperties(iGood, {{{"xmodemsource-image", kDigestOfI}}});
  EXPECT_EQ(host::Describe(found.files),
            "xmodemsource-image: the file '" + iGood["xmodemsource-image"] +
                "' was compared with its digest.\nxmodemsource-loader: the file '" +
                iGood["xmodemsource-loader"] + "' has no digest.\n");
}

TEST_F(Preflight, AFileWithAFaultOfItsDigestIsNotAmongThoseThatWereCompared) {
  const host::CheckRules rules[] = {
      {{{"xmodemsource-image", kDigestOfL}}}, {{}, true}, {{}, false, {}, {"xmodemsource-image"}}};
  for (const host::CheckRules& rule : rules) {
    EXPECT_THAT(host::Describe(host::CheckProperties(iGood, rule).files),
                Not(HasSubstr("xmodemsource-image")));
  }
}

TEST_F(Preflight, AllFaultsAreReportedAtOnce) {
  PropertyMap properties = {{"updatelist", "foo"}, {"xmodemspeed", "x"}, {"xmodemportname", "/dev/nope"}};
  EXPECT_THAT(CheckedTexts(properties),
              ElementsAre(HasSubstr("foo"), HasSubstr("xmodemspeed"), HasSubstr("/dev/nope")));
}

// The superuser may read and use everything: as root the test becomes somebody else for the check.
class SomebodyElse {
 public:
  SomebodyElse() : iRoot(geteuid() == 0) { EXPECT_EQ(iRoot ? seteuid(65534) : 0, 0); }
  ~SomebodyElse() { EXPECT_EQ(iRoot ? seteuid(0) : 0, 0); }

 private:
  const bool iRoot;
};

TEST_F(Preflight, WhatMayNotBeReadOrUsedIsNamed) {
  using std::filesystem::perms;
  std::filesystem::permissions(iPort.Name(), perms::none);
  std::filesystem::permissions(iGood["xmodemsource-image"], perms::none);
  std::filesystem::permissions(iFolder.Path(""), perms::all);
  std::vector<std::string> faults;
  {
    const SomebodyElse somebodyElse;
    faults = CheckedTexts(iGood);
  }
  EXPECT_THAT(faults, ElementsAre(HasSubstr("image': Permission denied. Check its permissions."),
                                  "xmodemportname: no permission to use the port '" + iPort.Name() +
                                      "': Permission denied. To get it, use another port, or have a udev "
                                      "rule give it to a group of yours (GROUP=\"dialout\", MODE=\"0660\"): "
                                      "it is open to no group that users belong to."));
}

TEST_F(Preflight, APortThatAnotherProgramHoldsIsNamedAndFreeAfterwards) {
  const int holder = open(iPort.Name().c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC);
  ASSERT_EQ(flock(holder, LOCK_EX), 0);
  EXPECT_THAT(CheckedTexts(iGood), ElementsAre("xmodemportname: the port '" + iPort.Name() +
                                               "' is in use by another program; close that and try again."));
  ASSERT_EQ(flock(holder, LOCK_UN), 0);
  EXPECT_THAT(CheckedTexts(iGood), IsEmpty());
  EXPECT_EQ(flock(holder, LOCK_EX | LOCK_NB), 0);
  close(holder);
}

TEST_F(Preflight, ASpeedThatThePortsDriverDoesNotDoIsNamedAndTheSettingsArePutBack) {
  const int port = open(iPort.Name().c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC);
  termios before = {};
  ASSERT_EQ(tcgetattr(port, &before), 0);
  {
    const OneSpeedDriver driver(9600);
    EXPECT_THAT(
        CheckedTexts(With("xmodemspeed", "921601")),
        ElementsAre("xmodemportname: the port '" + iPort.Name() +
                    "' cannot do 921601 bit/s, its driver offers 9600; choose another speed or another "
                    "adapter."));
    EXPECT_THAT(CheckedTexts(With("xmodemspeed", "9700")), IsEmpty());
  }
  termios after = {};
  ASSERT_EQ(tcgetattr(port, &after), 0);
  EXPECT_EQ(std::memcmp(&before, &after, sizeof(before)), 0);
  close(port);
}

// A program that has a port open, with its lock or without.
class Listener {
 public:
  Listener(const std::string& port, bool locks) {
    const int line = open(port.c_str(), O_RDWR | O_NOCTTY);
    EXPECT_EQ(locks ? flock(line, LOCK_EX) : 0, 0);
    std::string words[] = {"sleep", "60"};
    char* const arguments[] = {words[0].data(), words[1].data(), nullptr};
    EXPECT_EQ(posix_spawnp(&iPid, "sleep", nullptr, nullptr, arguments, environ), 0);
    close(line);
  }
  Listener(const Listener&) = delete;
  Listener& operator=(const Listener&) = delete;
  ~Listener() {
    kill(iPid, SIGKILL);
    waitpid(iPid, nullptr, 0);
  }

  std::string Name() const { return "sleep (process " + std::to_string(iPid) + ")"; }

 private:
  pid_t iPid = -1;
};

TEST_F(Preflight, WhoHasLockedThePortIsNamed) {
  const Listener listener(iPort.Name(), true);
  EXPECT_THAT(CheckedTexts(iGood),
              ElementsAre("xmodemportname: the port '" + iPort.Name() + "' is in use by " + listener.Name() +
                          "; close that and try again."));
}

TEST_F(Preflight, WhoHasThePortOpenWithoutALockIsWarnedOf) {
  // The test itself plays the device.
  EXPECT_THAT(host::CheckProperties(iGood).warnings, IsEmpty());
  const Listener listener(iPort.Name(), false);
  const std::string link = iFolder.Path("link");
  std::filesystem::create_symlink(iPort.Name(), link);
  const host::Findings found = host::CheckProperties(With("xmodemportname", link));
  EXPECT_THAT(Texts(found.faults), IsEmpty());
  EXPECT_THAT(Texts(found.warnings),
              ElementsAre("xmodemportname: " + listener.Name() + " has the port '" + link +
                          "' open, too, and may take the device's bytes away; close that."));
}

TEST_F(Preflight, NoSpeedIsTriedOnAPortThatAnotherProgramUses) {
  const Listener listener(iPort.Name(), false);
  const OneSpeedDriver driver(9600);
  EXPECT_THAT(CheckedTexts(With("xmodemspeed", "921601")), IsEmpty());
}

TEST_F(Preflight, ThePortsSettingsStayAsTheyAre) {
  const int port = open(iPort.Name().c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC);
  termios before = {};
  ASSERT_EQ(tcgetattr(port, &before), 0);
  EXPECT_THAT(CheckedTexts(iGood), IsEmpty());
  termios after = {};
  ASSERT_EQ(tcgetattr(port, &after), 0);
  EXPECT_EQ(std::memcmp(&before, &after, sizeof(before)), 0);
  close(port);
}

}  // namespace
