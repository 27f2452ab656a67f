// Goal: whoever types "peripheralctl update" on a real machine gets what is promised, on good days and bad
// ones. Method: the programs as processes, the shipped shared libraries, a pseudo-terminal between them, in
// real time. The simulator's memories are compared with the files byte by byte.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/file.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <memory>
#include <random>

#include "Files.h"
#include "Process.h"

namespace {

using testing::AllOf;
using testing::HasSubstr;
using testing::Not;

using Arguments = std::vector<std::string>;

// What peripheralctl exits with.
constexpr int kSuccess = 0;
constexpr int kBadConfiguration = 3;
constexpr int kModuleNotLoadable = 4;
constexpr int kUpdateFailed = 6;
constexpr int kAborted = 7;

std::string RandomText(std::size_t size, unsigned seed) {
  std::mt19937 random(seed);
  std::string text(size, '\0');
  std::generate(text.begin(), text.end(), [&] { return static_cast<char>(random()); });
  return text;
}

class Update : public testing::Test {
 protected:
  Update() { MakeFiles(3000, 50'000); }

  void MakeFiles(std::size_t loaderSize, std::size_t imageSize) {
    iLoader = RandomText(loaderSize, 1);
    iImage = RandomText(imageSize, 2);
    iFolder.Write("loader.bin", iLoader);
    iFolder.Write("firmware.bin", iImage);
  }

  // Starts the simulator and waits for its port.
  void Plug(Arguments arguments, const std::string& devices = "can") {
    const Arguments fixed = {"--device",     devices,
                             "--link",       iFolder.Path("port"),
                             "--dump-ram",   iFolder.Path("ram"),
                             "--dump-flash", iFolder.Path("flash")};
    arguments.insert(arguments.begin(), fixed.begin(), fixed.end());
    iSimulator = std::make_unique<Process>(BOOTLOADER_SIMULATOR, arguments);
    ASSERT_TRUE(iSimulator->WaitForOutput("port: ")) << iSimulator->Output();
  }

  // Ends the simulator, which then leaves its memories in files.
  void Unplug() {
    iSimulator->Signal(SIGTERM);
    EXPECT_EQ(iSimulator->WaitForEnd(), 0) << iSimulator->Output();
  }

  std::unique_ptr<Process> Start(const Arguments& more = {}, const std::string& command = "update",
                                 const std::vector<std::string>& environment = {}) {
    const std::string config =
        iFolder.Write("can.toml",
                      "[properties]\nupdatelist = \"xmodem\"\n"
                      "xmodemsource-image = \"firmware.bin\"\n"
                      "xmodemsource-loader = \"loader.bin\"\n"
                      "xmodemspeed = 115200\n"
                      "xmodemportname = \"" +
                          iFolder.Path("port") +
                          "\"\n"
                          "xmodemramaddress = \"1000\"\nxmodemflashaddress = \"8000\"\n");
    Arguments arguments = {command, "--config", config};
    arguments.insert(arguments.end(), more.begin(), more.end());
    return std::make_unique<Process>(PERIPHERALCTL, arguments, environment);
  }

  int Run(const Arguments& more = {}, const std::string& command = "update") {
    const std::unique_ptr<Process> process = Start(more, command);
    const int status = process->WaitForEnd();
    iOutput = process->Output();
    return status;
  }

  // The file, with nothing but zeros behind it in the last block.
  static bool Holds(const std::string& memory, const std::string& file) {
    return memory.size() >= file.size() && memory.size() < file.size() + 1024 &&
           memory.compare(0, file.size(), file) == 0 &&
           memory.find_first_not_of('\0', file.size()) == std::string::npos;
  }

  bool DeviceHoldsBoth(const std::string& suffix = "") const {
    return Holds(ContentOf(iFolder.Path("ram" + suffix)), iLoader) &&
           Holds(ContentOf(iFolder.Path("flash" + suffix)), iImage);
  }

  TemporaryFolder iFolder;
  std::string iLoader;
  std::string iImage;
  std::string iOutput;
  std::unique_ptr<Process> iSimulator;
};

TEST_F(Update, LeavesEveryByteInTheDevice) {
  Plug({"--baud", "0", "--once"});
  EXPECT_EQ(Run(), kSuccess) << iOutput;
  EXPECT_EQ(iSimulator->WaitForEnd(), 0) << iSimulator->Output();
  EXPECT_TRUE(DeviceHoldsBoth());
  EXPECT_THAT(iOutput, AllOf(HasSubstr("Progress: 100 %"), HasSubstr("The update has succeeded.")));
}

TEST_F(Update, KeepsThePaceOfARealLine) {
  Plug({"--baud", "115200", "--once"});
  EXPECT_EQ(Run(), kSuccess) << iOutput;
  EXPECT_EQ(iSimulator->WaitForEnd(), 0);
  EXPECT_TRUE(DeviceHoldsBoth());
}

TEST_F(Update, RunsTwiceInARow) {
  Plug({"--baud", "0"});
  EXPECT_EQ(Run(), kSuccess) << iOutput;
  MakeFiles(1000, 20'000);
  EXPECT_EQ(Run(), kSuccess) << iOutput;
  Unplug();
  EXPECT_TRUE(DeviceHoldsBoth());
}

TEST_F(Update, BringsTwoControllersUpToDateOneAfterTheOther) {
  Plug({"--baud", "0", "--once"}, "can,can");
  EXPECT_EQ(Run({"--set", "updatelist=xmodem;xmodem"}), kSuccess) << iOutput;
  EXPECT_EQ(iSimulator->WaitForEnd(), 0);
  EXPECT_TRUE(DeviceHoldsBoth(".1"));
  EXPECT_TRUE(DeviceHoldsBoth(".2"));
}

TEST_F(Update, PreparationAloneSendsNothing) {
  Plug({"--baud", "0"});
  EXPECT_EQ(Run({}, "prepare"), kSuccess) << iOutput;
  Unplug();
  EXPECT_THAT(iSimulator->Output(), Not(HasSubstr("version sent")));
}

// ---- Devices that misbehave ----

struct Refusal {
  const char* name;
  Arguments simulator;
  const char* told;  ///< the failure's code and, before it, where it happened
};

class UpdateOfAFaultyDevice : public Update, public testing::WithParamInterface<Refusal> {};

// Each of these faults happens once.
TEST_P(UpdateOfAFaultyDevice, FailsAndSucceedsWhenRepeated) {
  Arguments arguments = GetParam().simulator;
  arguments.insert(arguments.end(), {"--baud", "0"});
  Plug(arguments);
  EXPECT_EQ(Run(), kUpdateFailed) << iOutput;
  EXPECT_THAT(iOutput, AllOf(HasSubstr("The update failed."), HasSubstr("run the update again"),
                             testing::ContainsRegex(GetParam().told)));
  EXPECT_EQ(Run(), kSuccess) << iOutput;
  Unplug();
  EXPECT_TRUE(DeviceHoldsBoth());
}

const Refusal kRefusals[] = {
    {"RefusingTheLoader", {"--refuse", "wr:1"}, "wr 1000, loader.bin: .*\"001\" .command-refused."},
    {"RefusingTheStart", {"--refuse", "gt"}, "gt 1000: .*\"001\" .command-refused."},
    {"RefusingTheImage", {"--refuse", "wr:2"}, "wr 8000, firmware.bin: .*\"001\" .command-refused."},
    {"RefusingTheCheck", {"--refuse", "ck"}, "ck 8000: .*\"001\" .command-refused."},
    {"WithAWrongBit", {"--corrupt-flash"}, "ck 8000: .*command-refused."},
    {"Cancelling", {"--cancel-after", "20000"}, "wr 8000, firmware.bin: .*transfer-cancelled."}};

INSTANTIATE_TEST_SUITE_P(Devices, UpdateOfAFaultyDevice, testing::ValuesIn(kRefusals),
                         [](const auto& device) { return std::string(device.param.name); });

TEST_F(Update, ThatFailsSucceedsWithARetry) {
  Plug({"--baud", "0", "--refuse", "ck"});
  EXPECT_EQ(Run({"--retries", "1", "--retry-pause", "0"}), kSuccess) << iOutput;
  EXPECT_THAT(iOutput, HasSubstr("ck 8000: the device answered \"001\"); attempt 2 of 2 begins in 0 s."));
  Unplug();
  EXPECT_TRUE(DeviceHoldsBoth());
}

TEST_F(Update, TellsProgramsEveryByteOfEveryFile) {
  Plug({"--baud", "0", "--once"});
  EXPECT_EQ(Run({"--json"}), kSuccess) << iOutput;
  EXPECT_THAT(iOutput, HasSubstr("\"step\":\"wr 8000, firmware.bin\""));
  EXPECT_THAT(iOutput,
              HasSubstr("\"device_bytes\":53000,\"device_total\":53000,\"bytes\":53000,\"total\":53000"));
  EXPECT_THAT(iOutput, HasSubstr("\"outcome\":\"succeeded\",\"exit_code\":0"));
  EXPECT_EQ(iOutput.rfind("{\"event\":\"result\""), iOutput.rfind("\n{") + 1);
}

TEST_F(Update, OfADeviceThatRejectsBlocksStillSucceeds) {
  Plug({"--baud", "0", "--nak-every", "5", "--nak-eot", "--checksum", "--once"});
  EXPECT_EQ(Run(), kSuccess) << iOutput;
  EXPECT_EQ(iSimulator->WaitForEnd(), 0);
  EXPECT_TRUE(DeviceHoldsBoth());
}

TEST_F(Update, FailsAtOnceWhenTheDeviceIsUnplugged) {
  Plug({"--baud", "0", "--unplug-after", "20000"});
  EXPECT_EQ(Run(), kUpdateFailed) << iOutput;
  EXPECT_THAT(iOutput, AllOf(HasSubstr(iFolder.Path("port")), HasSubstr("[port-lost]")));
}

// The worker is still waiting for the device when the program ends, which is where the engine keeps a buffer
// on purpose; by then the module is unloaded and leak checking can tell it from no other.
TEST_F(Update, OfASilentDeviceSaysAtWhichStepItFellSilent) {
  Plug({"--baud", "0", "--silent-after", "version"});
  const auto process = Start({}, "update", {"ASAN_OPTIONS=detect_leaks=0"});
  EXPECT_EQ(process->WaitForEnd(80'000), kUpdateFailed) << process->Output();
  EXPECT_THAT(process->Output(), HasSubstr("Timeout in polling for status in XModemSwl"));
  EXPECT_THAT(process->Output(), HasSubstr("wr 1000, loader.bin: the device fell silent and has said"));
  EXPECT_THAT(process->Output(), HasSubstr("[device-silent]"));
}

TEST_F(Update, AbortedByCtrlCSaysSoAndCanBeRunAgain) {
  Plug({"--baud", "115200"});
  const auto process = Start();
  ASSERT_TRUE(process->WaitForOutput("Progress: 1")) << process->Output();
  process->Signal(SIGINT);
  EXPECT_EQ(process->WaitForEnd(), kAborted) << process->Output();
  EXPECT_THAT(process->Output(), AllOf(HasSubstr("Aborted."), HasSubstr("run the update again")));
  EXPECT_EQ(Run(), kSuccess) << iOutput;
  Unplug();
  EXPECT_TRUE(DeviceHoldsBoth());
}

// ---- Bad input ----

TEST_F(Update, OfAPortThatIsNoTerminalNamesIt) {
  iFolder.Write("port", "not a terminal");
  EXPECT_EQ(Run(), kBadConfiguration);
  EXPECT_THAT(iOutput, AllOf(HasSubstr("xmodemportname"), HasSubstr(iFolder.Path("port"))));
}

TEST_F(Update, OfAPortThatAnotherProgramHoldsNamesItAndLeavesItAlone) {
  Plug({"--baud", "0"});
  const int holder = open(iFolder.Path("port").c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC);
  ASSERT_EQ(flock(holder, LOCK_EX), 0);
  EXPECT_EQ(Run(), kBadConfiguration);
  EXPECT_THAT(iOutput, AllOf(HasSubstr(iFolder.Path("port")), HasSubstr("in use by "),
                             HasSubstr("(process " + std::to_string(getpid()) + ")")));
  close(holder);
  EXPECT_EQ(Run(), kSuccess) << iOutput;
}

struct BadInput {
  const char* name;
  Arguments arguments;
  int exitCode;
  const char* named;
};

class UpdateWithBadInput : public Update, public testing::WithParamInterface<BadInput> {};

TEST_P(UpdateWithBadInput, SaysWhatIsWrongAndSendsNothing) {
  iFolder.Write("empty.bin", "");
  iFolder.Write("text.so", "this is no library");
  Plug({"--baud", "0"});
  Arguments arguments = GetParam().arguments;
  for (std::string& argument : arguments) {
    const auto here = argument.find("HERE");
    argument = here == std::string::npos ? argument : argument.replace(here, 4, iFolder.Path());
  }
  EXPECT_EQ(Run(arguments), GetParam().exitCode) << iOutput;
  EXPECT_THAT(iOutput, HasSubstr(GetParam().named));
  Unplug();
  EXPECT_THAT(iSimulator->Output(), Not(HasSubstr("version sent")));
}

const BadInput kBadInputs[] = {
    {"MissingImage", {"--set", "xmodemsource-image=HERE/none.bin"}, kBadConfiguration, "none.bin"},
    {"FolderAsImage", {"--set", "xmodemsource-image=HERE"}, kBadConfiguration, "xmodemsource-image"},
    {"EmptyImage", {"--set", "xmodemsource-image=HERE/empty.bin"}, kBadConfiguration, "empty.bin"},
    {"MissingLoader", {"--set", "xmodemsource-loader=HERE/none.bin"}, kBadConfiguration, "none.bin"},
    {"ListWithBlanks", {"--set", "updatelist=xmodem; xmodem"}, kBadConfiguration, "updatelist"},
    {"UnknownPeripheral", {"--set", "updatelist=zmodem"}, kBadConfiguration, "zmodem"},
    {"SlowLine", {"--set", "xmodemspeed=74"}, kBadConfiguration, "xmodemspeed"},
    {"AddressWithASemicolon", {"--set", "xmodemramaddress=10;20"}, kBadConfiguration, "xmodemramaddress"},
    {"MissingPort", {"--set", "xmodemportname=HERE/none"}, kBadConfiguration, "xmodemportname"},
    {"NoModuleThere", {"--module", "HERE/none.so"}, kModuleNotLoadable, "none.so"},
    {"NotAModule", {"--module", "HERE/text.so"}, kModuleNotLoadable, "text.so"},
};

INSTANTIATE_TEST_SUITE_P(Inputs, UpdateWithBadInput, testing::ValuesIn(kBadInputs),
                         [](const auto& input) { return std::string(input.param.name); });

}  // namespace
