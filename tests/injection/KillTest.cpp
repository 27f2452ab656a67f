// Goal: whenever peripheralctl is killed, the port is free at once and the next update succeeds.
// Method: the program with a library preloaded that kills it at its n-th call of a kind, at a hundred such
// moments from the first look at the port to the last block; several at a time, each with a device of its
// own. Those devices begin anew soon after their host has fallen silent, or most of the time would pass in
// waiting for them.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <csignal>
#include <filesystem>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "Files.h"
#include "Process.h"

namespace {

constexpr std::size_t kAtATime = 20;
constexpr int kAttempts = 100;
constexpr useconds_t kBetweenAttempts_us = 50'000;
constexpr int kKilled = 1000 + SIGKILL;

struct Moment {
  const char* call;
  int n;
};

// How many of each: a hundred in all. Reads of files come before those of the line.
std::vector<Moment> Moments() {
  std::vector<Moment> moments;
  for (const auto& [call, count] : {Moment{"flock", 2}, Moment{"ioctl", 7}, Moment{"open", 2},
                                    Moment{"poll", 9}, Moment{"read", 40}, Moment{"write", 40}}) {
    for (int n = 1; n <= count; ++n) {
      moments.push_back({call, n});
    }
  }
  return moments;
}

// A device, and the program that updates it again and again.
class Bench {
 public:
  Bench()
      : iSimulator(BOOTLOADER_SIMULATOR, {"--device", "can", "--baud", "0", "--patience", "8", "--link",
                                          iFolder.Path("port"), "--dump-flash", iFolder.Path("flash")}) {
    iFolder.Write("loader.bin", std::string(3000, 'L'));
    iFolder.Write("can.toml",
                  "[properties]\nupdatelist = \"xmodem\"\nxmodemsource-image = \"firmware.bin\"\n"
                  "xmodemsource-loader = \"loader.bin\"\nxmodemspeed = 115200\nxmodemportname = \"" +
                      iFolder.Path("port") +
                      "\"\nxmodemramaddress = \"1000\"\nxmodemflashaddress = \"8000\"\n");
    iSimulator.WaitForOutput("port: ");
  }

  // What went wrong; empty when all is well.
  std::string KillAt(const Moment& moment) {
    const std::string mark = iFolder.Path("mark");
    std::filesystem::remove(mark);
    // Another image each time, so that none passes for the one before.
    const std::string image = std::string(30'000, static_cast<char>('A' + iRuns++ % 26));
    iFolder.Write("firmware.bin", image);
    const int killed =
        Run({"LD_PRELOAD=" PRELOADED_FAILURE, "FAILING_CALL_MARK=" + mark,
             "FAILING_CALL=" + std::string(moment.call) + " " + std::to_string(moment.n) + " -9"});
    if (killed != kKilled || !std::filesystem::exists(mark)) {
      return "was not killed but ended with " + std::to_string(killed) + ": " + iOutput;
    }
    if (!PortIsFree()) {
      return "left the port locked";
    }
    // Beside so many others a device may take its host for silent; a user would ask again, too.
    const int again = Run({}, {"--retries", "3", "--retry-pause", "1"});
    if (again != 0) {
      return "could not be repeated, exit code " + std::to_string(again) + ": " + iOutput;
    }
    return Holds(image) ? "" : "left another image";
  }

 private:
  int Run(const std::vector<std::string>& environment, const std::vector<std::string>& options = {}) {
    std::vector<std::string> arguments = {"update", "--config", iFolder.Path("can.toml")};
    arguments.insert(arguments.end(), options.begin(), options.end());
    Process program(PERIPHERALCTL, arguments, environment);
    const int status = program.WaitForEnd();
    iOutput = program.Output();
    return status;
  }

  // The simulator writes its memory down some time after the update.
  bool Holds(const std::string& image) const {
    for (int attempt = 0; attempt < kAttempts; ++attempt) {
      if (ContentOf(iFolder.Path("flash")).substr(0, image.size()) == image) {
        return true;
      }
      usleep(kBetweenAttempts_us);
    }
    return false;
  }

  bool PortIsFree() const {
    const int port = open(iFolder.Path("port").c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
    const bool isFree = flock(port, LOCK_EX | LOCK_NB) == 0;
    close(port);
    return isFree;
  }

  TemporaryFolder iFolder;
  Process iSimulator;
  std::string iOutput;
  unsigned iRuns = 0;
};

TEST(AKilledUpdate, LeavesThePortFreeAndTheDeviceUpdatable) {
  const std::vector<Moment> moments = Moments();
  ASSERT_EQ(moments.size(), 100u);
  std::atomic<std::size_t> next{0};
  std::mutex mutex;
  std::vector<std::string> failures;
  std::array<std::thread, kAtATime> workers;
  for (std::thread& worker : workers) {
    worker = std::thread([&] {
      Bench bench;
      for (std::size_t i = next++; i < moments.size(); i = next++) {
        const std::string failure = bench.KillAt(moments[i]);
        const std::lock_guard<std::mutex> lock(mutex);
        if (!failure.empty()) {
          failures.push_back(std::string(moments[i].call) + " " + std::to_string(moments[i].n) + " " +
                             failure);
        }
      }
    });
  }
  for (std::thread& worker : workers) {
    worker.join();
  }
  for (const std::string& failure : failures) {
    ADD_FAILURE() << failure;
  }
}

}  // namespace
