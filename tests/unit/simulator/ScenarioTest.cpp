// Goal: a scenario says what the simulator plays, key by key, and what is wrong with one is told with its
// place. Method: texts are written to a file and read; the scenarios of the documents are read as they stand.
#include "simulator/Scenario.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>

#include "Files.h"

namespace simulator {

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class Scenario : public testing::Test {
 protected:
  std::vector<Settings> Read(const std::string& text) {
    faults.clear();
    return ReadScenario(folder.Write("s", text), faults);
  }

  // What is complained about, without the file's path.
  std::vector<std::string> FaultsOf(const std::string& text) {
    Read(text);
    for (std::string& fault : faults) {
      fault.erase(0, folder.Path("s").size() + 1);
    }
    return faults;
  }

  TemporaryFolder folder;
  std::vector<std::string> faults;
};

const std::string kCan = "[[line]]\n[[line.device]]\nkind = \"can\"\n";

TEST_F(Scenario, OfNothingButAKindIsWhatTheProgramPlaysWithoutOptions) {
  const std::vector<Settings> lines = Read(kCan);
  ASSERT_THAT(faults, IsEmpty());
  ASSERT_EQ(lines.size(), 1u);
  ASSERT_EQ(lines[0].devices.size(), 1u);
  EXPECT_EQ(lines[0].name + lines[0].link + lines[0].dump_ram + lines[0].dump_flash, "");
  EXPECT_FALSE(lines[0].once);
  EXPECT_EQ(lines[0].line.baud, 115200);
  EXPECT_EQ(lines[0].line.unplug_at_us, kNever);
  EXPECT_EQ(lines[0].devices[0].kind, "can");
  EXPECT_EQ(lines[0].devices[0].options.ram_base, 0x1000u);
}

TEST_F(Scenario, SaysEverythingAboutALine) {
  const std::vector<Settings> lines = Read(
      "[[line]]\nname = 'left'\nlink = 'port'\ndump-ram = '/abs/ram'\ndump-flash = 'sub/flash'\nonce = true\n"
      "baud = 9600\nnoise = 0.25\nseed = 42\nunplug-after = 7\nunplug-at = 1.5\n"
      "[[line.device]]\nkind = 'sanyo'\n");
  ASSERT_THAT(faults, IsEmpty());
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(lines[0].name, "left");
  EXPECT_EQ(lines[0].link, folder.Path("port"));
  EXPECT_EQ(lines[0].dump_ram, "/abs/ram");
  EXPECT_EQ(lines[0].dump_flash, folder.Path("sub/flash"));
  EXPECT_TRUE(lines[0].once);
  EXPECT_EQ(lines[0].line.baud, 9600);
  EXPECT_EQ(lines[0].line.noise_rate, 0.25);
  EXPECT_EQ(lines[0].line.noise_seed, 42u);
  EXPECT_EQ(lines[0].line.unplug_after_bytes, 7u);
  EXPECT_EQ(lines[0].line.unplug_at_us, 1'500'000);
}

TEST_F(Scenario, SaysEverythingAboutADevice) {
  const std::vector<Settings> lines = Read(
      kCan +
      "version-text = 'V'\nram-base = 0x20000000\nram-size = 1\nflash-base = 2\nflash-size = 3\n"
      "refuse = ['gt:2=007', 'ck']\nsilent-after = 1500\nslow = 4\ncorrupt-flash = true\nchecksum = true\n"
      "nak-every = 5\nnak-eot = true\ndamage-every = 6\ncancel-after = 8\npatience = 9\n");
  ASSERT_THAT(faults, IsEmpty());
  const Options& device = lines.at(0).devices.at(0).options;
  EXPECT_EQ(device.version_text, "V");
  EXPECT_EQ(device.ram_base, 0x20000000u);
  EXPECT_EQ(device.ram_size, 1u);
  EXPECT_EQ(device.flash_base, 2u);
  EXPECT_EQ(device.flash_size, 3u);
  EXPECT_EQ(device.patience_s, 9);
  const Faults& wrong = device.faults;
  ASSERT_EQ(wrong.refusals.size(), 2u);
  EXPECT_EQ(wrong.refusals[0].verb + wrong.refusals[0].answer, "gt007");
  EXPECT_EQ(wrong.refusals[0].occurrence, 2);
  EXPECT_EQ(wrong.refusals[1].verb, "ck");
  EXPECT_EQ(wrong.silent_after.stage, SilentStage::kBytes);
  EXPECT_EQ(wrong.silent_after.bytes, 1500u);
  EXPECT_EQ(wrong.slow_ms, 4);
  EXPECT_TRUE(wrong.corrupt_flash);
  EXPECT_TRUE(wrong.checksum);
  EXPECT_EQ(wrong.nak_every, 5);
  EXPECT_TRUE(wrong.nak_first_eot);
  EXPECT_EQ(wrong.damage_every, 6);
  EXPECT_EQ(wrong.cancel_after_bytes, 8u);
}

TEST_F(Scenario, TakesATextWhereThereMayBeAList) {
  const std::vector<Settings> lines = Read(kCan + "refuse = 'wr:0'\nsilent-after = 'gt'\n");
  ASSERT_THAT(faults, IsEmpty());
  const Faults& wrong = lines.at(0).devices.at(0).options.faults;
  ASSERT_EQ(wrong.refusals.size(), 1u);
  EXPECT_EQ(wrong.refusals[0].occurrence, 0);
  EXPECT_EQ(wrong.silent_after.stage, SilentStage::kGo);
}

TEST_F(Scenario, KeepsDevicesAndLinesApart) {
  const std::vector<Settings> lines =
      Read(kCan +
           "slow = 1\n[[line.device]]\nkind = 'sanyo'\n[[line]]\nbaud = 0\n[[line.device]]\nkind = 'can'\n");
  ASSERT_THAT(faults, IsEmpty());
  ASSERT_EQ(lines.size(), 2u);
  ASSERT_EQ(lines[0].devices.size(), 2u);
  EXPECT_EQ(lines[0].devices[0].options.faults.slow_ms, 1);
  EXPECT_EQ(lines[0].devices[1].options.faults.slow_ms, 0);
  EXPECT_EQ(lines[0].devices[1].kind, "sanyo");
  ASSERT_EQ(lines[1].devices.size(), 1u);
  EXPECT_EQ(lines[1].line.baud, 0);
}

TEST_F(Scenario, IsRefusedWithThePlaceOfWhatIsWrong) {
  struct Case {
    std::string text, fault;
  };
  const std::string count = "wants a whole number from 0 to 4294967295.";
  for (const Case& each :
       {Case{"", "1:1: there is no line. Begin with [[line]] and, below it, [[line.device]]."},
        Case{"lines = 1\n", "1:9: unknown key 'lines'. Known here: line."},
        Case{"line = 1\n", "1:8: write [[line]] on a line of its own, once for each."},
        Case{"[line]\n", "1:1: write [[line]] on a line of its own, once for each."},
        Case{"line = []\n", "1:8: write [[line]] on a line of its own, once for each."},
        Case{"line = [1]\n", "1:8: write [[line]] on a line of its own, once for each."},
        Case{"[[line]]\n", "1:1: there is no device on this line. Put [[line.device]] with a kind below it."},
        Case{"[[line]]\n[line.device]\n", "2:1: write [[line.device]] on a line of its own, once for each."},
        Case{"[[line]]\n[[line.device]]\n",
             "2:1: this device has no kind. Write kind = \"can\" or kind = \"sanyo\"."},
        Case{"[[line]]\n[[line.device]]\nkind = 'radio'\n", "3:8: 'kind' wants \"can\" or \"sanyo\"."},
        Case{"[[line]]\nbaud = -1\n[[line.device]]\nkind = 'can'\n",
             "2:8: 'baud' wants bits per second from 0 to 100000000."},
        Case{"[[line]]\nnoise = 1.1\n[[line.device]]\nkind = 'can'\n",
             "2:9: 'noise' wants a share from 0.0 to 1.0."},
        Case{"[[line]]\nunplug-at = 'x'\n[[line.device]]\nkind = 'can'\n",
             "2:13: 'unplug-at' wants seconds from 0 to 1000000."},
        Case{"[[line]]\nlink = 1\n[[line.device]]\nkind = 'can'\n", "2:8: 'link' wants a text in quotes."},
        Case{"[[line]]\nlink = 'a'\n[[line.device]]\nkind = 'can'\n[[line]]\nlink = './b/../a'\n"
             "[[line.device]]\nkind = 'can'\n",
             "6:8: another line has this link already. Each port needs its own."},
        Case{kCan + "checksum = 1\n", "4:12: 'checksum' wants true or false."},
        Case{kCan + "ram-size = 4294967296\n", "4:12: 'ram-size' " + count},
        Case{kCan + "ram-size = '1'\n", "4:12: 'ram-size' " + count},
        Case{kCan + "refuse = 'xx'\n",
             "4:10: 'refuse' wants a text wr|gt|ck[:N][=ANSWER], or a list of them."},
        Case{kCan + "refuse = [['wr']]\n",
             "4:10: 'refuse' wants a text wr|gt|ck[:N][=ANSWER], or a list of them."},
        Case{kCan + "silent-after = 'lunch'\n",
             "4:16: 'silent-after' wants one of start, version, wr-ram, gt, wr-flash, ck in quotes, or a "
             "number of "
             "bytes."},
        Case{kCan + "speed = 1\n",
             "4:9: unknown key 'speed'. Known here: kind, version-text, ram-base, ram-size, flash-base, "
             "flash-size, "
             "patience, refuse, silent-after, slow, corrupt-flash, checksum, nak-every, nak-eot, "
             "damage-every, "
             "cancel-after."}}) {
    EXPECT_THAT(FaultsOf(each.text), ElementsAre(each.fault)) << each.text;
  }
}

TEST_F(Scenario, DumpsNoTwoMemoriesIntoOneFile) {
  const std::string device = "[[line.device]]\nkind = 'can'\n";
  const std::string fault = "another memory goes into this file already. Each dump needs its own.";
  EXPECT_THAT(FaultsOf("[[line]]\ndump-ram = 'a'\ndump-flash = './b/../a'\n" + device),
              ElementsAre("3:14: " + fault));
  EXPECT_THAT(FaultsOf("[[line]]\ndump-ram = 'a'\n" + device + "[[line]]\ndump-ram = 'a'\n" + device),
              ElementsAre("6:12: " + fault));
  EXPECT_THAT(
      FaultsOf("[[line]]\ndump-ram = 'a.2'\n" + device + "[[line]]\ndump-flash = 'a'\n" + device + device),
      ElementsAre("6:14: " + fault));
  EXPECT_THAT(
      FaultsOf("[[line]]\ndump-ram = 'a'\n" + device + "[[line]]\ndump-flash = 'a'\n" + device + device),
      IsEmpty());
}

TEST_F(Scenario, ThatIsNoTomlIsTold) {
  EXPECT_THAT(FaultsOf("[[line]]\nbaud 1\n"),
              ElementsAre(testing::StartsWith("2:6: this is not valid TOML: ")));
}

TEST_F(Scenario, ThatCannotBeReadIsTold) {
  ReadScenario(folder.Path("none"), faults);
  ReadScenario(folder.Path(), faults);
  EXPECT_THAT(faults,
              ElementsAre(folder.Path("none") +
                              ": cannot be read: No such file or directory. Check the name after --scenario.",
                          folder.Path() + ": this is a folder; name the scenario in it."));
}

TEST_F(Scenario, OfMoreThanAMebibyteIsNotRead) {
  constexpr std::size_t kMost = 1 << 20;
  std::string text = kCan;
  text.resize(kMost, '\n');
  Read(text);
  EXPECT_THAT(faults, IsEmpty());
  EXPECT_THAT(FaultsOf(text + '\n'),
              ElementsAre(" more than 1024 KiB are no scenario. Check the name after --scenario."));
}

TEST_F(Scenario, WhoseReadingFailsIsTold) {
  ReadScenario("/proc/self/mem", faults);
  EXPECT_THAT(faults, ElementsAre(testing::StartsWith("/proc/self/mem: cannot be read: ")));
}

TEST_F(Scenario, OfTheDocumentsIsReadable) {
  std::size_t count = 0;
  for (const auto& entry : std::filesystem::directory_iterator(SCENARIOS)) {
    EXPECT_FALSE(ReadScenario(entry.path().string(), faults).empty()) << entry.path();
    ++count;
  }
  EXPECT_THAT(faults, IsEmpty());
  EXPECT_EQ(count, 3u);
}

}  // namespace

}  // namespace simulator
