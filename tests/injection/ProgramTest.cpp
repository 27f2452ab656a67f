// Goal: whichever call of the program itself or its libraries fails, "peripheralctl update" ends with a
// documented exit code and says what happened, and never claims an update that the device knows nothing of.
//
// Method: the program as a process with a library preloaded that lets one call fail, and the simulator as
// its device, in real time. A sample: each takes a second.

#include <fmt/format.h>
#include <gtest/gtest.h>
#include <signal.h>

#include <cerrno>

#include "ExitCode.h"
#include "Files.h"
#include "Process.h"

namespace {

constexpr int kSuccess = static_cast<int>(host::ExitCode::Success);
constexpr int kOutputLost = static_cast<int>(host::ExitCode::OutputLost);

bool IsDocumented(int exitCode) {
  const std::string line = fmt::format("\n  {:2}  ", exitCode);
  return host::DescribeExitCodes(host::kUpdate).find(line) != std::string::npos;
}

struct Failure {
  const char* call;
  int n;
  int error;
};

class TheProgram : public testing::TestWithParam<Failure> {
 protected:
  TheProgram()
      : iSimulator(BOOTLOADER_SIMULATOR, {"--device", "can", "--baud", "0", "--link", iFolder.Path("port"),
                                          "--dump-flash", iFolder.Path("flash")}) {
    iFolder.Write("loader.bin", std::string(100, 'L'));
    iFolder.Write("firmware.bin", iImage);
    iFolder.Write("can.toml",
                  "[properties]\nupdatelist = \"xmodem\"\nxmodemsource-image = \"firmware.bin\"\n"
                  "xmodemsource-loader = \"loader.bin\"\nxmodemspeed = 115200\nxmodemportname = \"" +
                      iFolder.Path("port") +
                      "\"\nxmodemramaddress = \"1000\"\nxmodemflashaddress = \"8000\"\n");
  }

  int Run(const std::vector<std::string>& environment) {
    Process program(PERIPHERALCTL, {"update", "--config", iFolder.Path("can.toml")}, environment);
    const int status = program.WaitForEnd(80'000);
    iOutput = program.Output();
    return status;
  }

  // Ends the simulator, which then leaves its memory in a file.
  bool DeviceHoldsImage() {
    iSimulator.Signal(SIGTERM);
    EXPECT_EQ(iSimulator.WaitForEnd(), 0) << iSimulator.Output();
    return ContentOf(iFolder.Path("flash")) == iImage + std::string(1024 - iImage.size(), '\0');
  }

  bool SaysWhatHappened() const {
    for (const char* word :
         {"peripheralctl: ", "The update failed.", "The preparation failed.", "No result in time"}) {
      if (iOutput.find(word) != std::string::npos) {
        return true;
      }
    }
    return false;
  }

  const std::string iImage = std::string(200, 'F');
  TemporaryFolder iFolder;
  Process iSimulator;
  std::string iOutput;
};

TEST_P(TheProgram, EndsAsDocumentedWhicheverCallFails) {
  const Failure& failure = GetParam();
  ASSERT_TRUE(iSimulator.WaitForOutput("port: "));
  const std::string mark = iFolder.Path("mark");
  const int status = Run({"LD_PRELOAD=" PRELOADED_FAILURE, "FAILING_CALL_MARK=" + mark,
                          "FAILING_CALL=" + std::string(failure.call) + " " + std::to_string(failure.n) +
                              " " + std::to_string(failure.error)});
  SCOPED_TRACE("exit code " + std::to_string(status) + ", output:\n" + iOutput);
  const bool hasFailed = std::filesystem::exists(mark);
  EXPECT_TRUE(hasFailed) << "no such call";
  EXPECT_TRUE(IsDocumented(status));
  EXPECT_TRUE(status == kSuccess || SaysWhatHappened());
  EXPECT_TRUE(status == kSuccess || (hasFailed && failure.error != EINTR)) << "nothing has failed for good";
  const bool deviceHoldsImage = DeviceHoldsImage();
  EXPECT_TRUE((status != kSuccess && status != kOutputLost) || deviceHoldsImage);
}

const Failure kFailures[] = {
    {"fopen", 1, EMFILE},
    {"fopen", 2, EMFILE},
    {"fopen", 3, EMFILE},
    {"fopen", 4, EMFILE},
    {"open", 1, EMFILE},
    {"read", 1, EIO},
    {"read", 2, EIO},
    {"read", 3, EINTR},
    {"read", 4, EIO},
    {"read", 8, EINTR},
    {"write", 1, EIO},
    {"write", 3, EINTR},
    {"write", 5, EIO},
    {"write", 12, EIO},
    {"ioctl", 1, EIO},
    {"ioctl", 2, EIO},
    {"ioctl", 4, EIO},
    {"flock", 1, EWOULDBLOCK},
    {"flock", 2, EWOULDBLOCK},
    {"pthread_create", 1, EAGAIN},
    {"pthread_create", 2, EAGAIN},
    {"pthread_create", 3, EAGAIN},
    {"pthread_create", 4, EAGAIN},
};

INSTANTIATE_TEST_SUITE_P(Nth, TheProgram, testing::ValuesIn(kFailures), [](const auto& test) {
  return std::string(test.param.call) + std::to_string(test.param.n) + "_error" +
         std::to_string(test.param.error);
});

}  // namespace
