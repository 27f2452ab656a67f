// Goal: whichever call of the system or the C library fails during an update, and at whatever moment, the
// host is told one result that is true, nothing is left behind, and the next update succeeds.
//
// Method: the module and the platform as they are shipped, with real threads, on a pseudo-terminal with a
// simulated device, and a clock that does not wait. The n-th call of a kind fails, for every n until an
// update has none that fails; every update is judged by the same promises. Calls that wait in vain are not
// counted, so that the numbers mean the same however often the platform looks.

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <random>
#include <tdes>

#include "FailingCalls.h"
#include "FileExistsCache.h"
#include "Files.h"
#include "PluggedDevice.h"
#include "UpdatingHost.h"

namespace {

constexpr std::chrono::milliseconds kPortIsEmptyAfter{20};

using failing_calls::Call;

constexpr std::size_t kLoaderSize = 100;
constexpr std::size_t kImageSize = 200;
// What a device holds of it: a block of 1024 bytes.
constexpr std::size_t kHeldSize = 1024;

/// What becomes of an update in which such a call fails.
enum class Outcome {
  kSuccess,  ///< it succeeds: the call is repeated, or what it does is not needed
  kFailure,
  kEither
};

enum class Trait {
  kNone,
  kUnlogged,       ///< nothing in the log tells why it failed
  kHesitantDriver  ///< what it takes for such a call to come
};

struct Failure {
  const char* name;
  Call call;
  int error;
  Outcome outcome;
  Trait trait = Trait::kNone;
};

const Failure kFailures[] = {
    {"MallocWithoutMemory", Call::kMalloc, ENOMEM, Outcome::kEither, Trait::kUnlogged},
    {"FopenWithTooManyFiles", Call::kFopen, EMFILE, Outcome::kFailure, Trait::kUnlogged},
    {"FreadOfABadDisk", Call::kFread, EIO, Outcome::kFailure, Trait::kUnlogged},
    {"FseekOfABadDisk", Call::kFseek, EIO, Outcome::kFailure, Trait::kUnlogged},
    {"FtellOfABadDisk", Call::kFtell, EIO, Outcome::kFailure, Trait::kUnlogged},
    {"FcloseOfABadDisk", Call::kFclose, EIO, Outcome::kSuccess},
    {"FwriteOfTheLog", Call::kFwrite, ENOSPC, Outcome::kSuccess},
    {"PthreadCreateWithTooManyThreads", Call::kPthreadCreate, EAGAIN, Outcome::kEither},
    {"StatOfABadDisk", Call::kStat, EIO, Outcome::kFailure, Trait::kUnlogged},
    {"FstatOfABadDevice", Call::kFstat, EIO, Outcome::kFailure},
    {"OpenInterrupted", Call::kOpen, EINTR, Outcome::kSuccess},
    {"OpenOfALostDevice", Call::kOpen, ENXIO, Outcome::kFailure},
    {"CloseOfALostDevice", Call::kClose, EIO, Outcome::kSuccess},
    {"FlockInterrupted", Call::kFlock, EINTR, Outcome::kSuccess},
    {"FlockOfAnotherProgram", Call::kFlock, EWOULDBLOCK, Outcome::kEither},
    {"IoctlOfALostDevice", Call::kIoctl, EIO, Outcome::kEither},
    {"ReadInterrupted", Call::kRead, EINTR, Outcome::kSuccess},
    {"ReadTooEarly", Call::kRead, EAGAIN, Outcome::kSuccess},
    {"ReadOfALostDevice", Call::kRead, EIO, Outcome::kEither},
    {"ReadOfAHungUpLine", Call::kRead, failing_calls::kNothing, Outcome::kEither},
    {"WriteInterrupted", Call::kWrite, EINTR, Outcome::kSuccess},
    {"WriteWithoutRoom", Call::kWrite, EAGAIN, Outcome::kSuccess},
    {"WriteThatTakesNothing", Call::kWrite, failing_calls::kNothing, Outcome::kSuccess},
    {"WriteToALostDevice", Call::kWrite, EIO, Outcome::kEither},
    {"PollInterrupted", Call::kPoll, EINTR, Outcome::kSuccess, Trait::kHesitantDriver},
    {"PollWithoutMemory", Call::kPoll, ENOMEM, Outcome::kSuccess, Trait::kHesitantDriver},
};

std::string RandomText(std::size_t size) {
  std::mt19937 random(static_cast<unsigned>(size));
  std::string text(size, '\0');
  std::generate(text.begin(), text.end(), [&] { return static_cast<char>(random()); });
  return text;
}

class AnUpdate : public testing::TestWithParam<std::tuple<const char*, Failure>> {
 protected:
  AnUpdate() : iDevice(std::get<0>(GetParam())), iFailure(std::get<1>(GetParam())) {
    iProperties.Set("updatelist", iDevice == "can" ? "xmodem" : "sanyoxmodem");
    iProperties.Set("xmodemsource-image", iFolder.Write("image", iImage));
    iProperties.Set("xmodemsource-loader", iFolder.Write("loader", RandomText(kLoaderSize)));
    iProperties.Set("xmodemportname", iLine.Port());
    iProperties.Set("xmodemspeed", "115200");
    iProperties.Set("xmodemramaddress", "1000");
    iProperties.Set("xmodemflashaddress", "8000");
    failing_calls::SetHesitantDriver(iFailure.trait == Trait::kHesitantDriver);
  }

  // The platform keeps a port and whatever else it makes for the first one.
  void SetUp() override {
    const bool failed = RunWithFailure(0);
    ASSERT_FALSE(failed);
    ASSERT_FALSE(HasFailure()) << "an update in which nothing fails";
    iDescriptors = OpenDescriptors();
  }

  // An update in which the n-th call fails, and one behind it in which none does. Whether that call has come.
  bool RunWithFailure(unsigned n) {
    PlugAnew();
    UpdatingHost host(iProperties);
    failing_calls::Arm(iFailure.call, iFailure.error, n);
    const Told told = host.Update();
    const bool hasFailed = failing_calls::Disarm();
    const std::string log = failing_calls::TakeStandardError();
    Judge(told, hasFailed ? iFailure.outcome : Outcome::kSuccess, log);
    JudgeKeptFiles(log);
    if (hasFailed) {
      PlugAnew();
      const Told next = host.Update();
      Judge(next, Outcome::kSuccess, "(the next update) " + failing_calls::TakeStandardError());
    }
    EXPECT_TRUE(host.DeleteModule()) << "a subscription is left, or another thread has called the broker";
    EXPECT_TRUE(iDescriptors == 0 || OpenDescriptors() == iDescriptors) << "descriptors are left";
    return hasFailed;
  }

  // Lets the n-th call fail for each n, as long as there is one.
  template <typename TNext>
  void RunWithEachFailure(TNext next) {
    unsigned failures = 0;
    for (unsigned n = 1; RunWithFailure(n); n = next(n)) {
      ++failures;
      ASSERT_FALSE(HasFailure()) << "when call " << n << " fails: " << iFailure.name;
    }
    ASSERT_FALSE(HasFailure()) << "when the call does not come";
    EXPECT_GT(failures, 0U) << "no such call";
  }

 private:
  // What an update wrote last may wait two milliseconds in the port. The new device must not hear it.
  void PlugAnew() {
    std::this_thread::sleep_for(kPortIsEmptyAfter);
    TInt ignored = 0;
    for (const char* name : {"image", "loader"}) {
      const std::string path = iFolder.Path(name);
      CFileExistsCache::FileExistsCacheInstance().RemoveFile(Tdes(AsTChr(path)), ignored);
    }
    iLine.Plug(iDevice);
  }

  void Judge(const Told& told, Outcome outcome, const std::string& log) const {
    ASSERT_TRUE(told.prepared.has_value()) << "no answer to the request to prepare\n" << log;
    EXPECT_EQ(told.results, *told.prepared ? 1 : 0) << "results of the installation\n" << log;
    EXPECT_FALSE(told.progressFell) << log;
    EXPECT_TRUE(*told.prepared || iLine.BytesFromHost() == 0) << "a failed preparation sends nothing\n"
                                                              << log;
    EXPECT_TRUE(!told.Succeeded() || DeviceHoldsImage()) << "a success of which the device knows nothing\n"
                                                         << log;
    EXPECT_TRUE(outcome == Outcome::kEither || told.Succeeded() == (outcome == Outcome::kSuccess)) << log;
    EXPECT_TRUE(told.Succeeded() || iFailure.trait == Trait::kUnlogged ||
                log.find(" Error ") != std::string::npos)
        << "a failure of which the log says nothing\n"
        << log;
  }

  // A transfer that never starts keeps its file, and says so.
  void JudgeKeptFiles(const std::string& log) const {
    const std::size_t permitted = log.find("could not be opened") == std::string::npos ? 0 : 1;
    EXPECT_LE(failing_calls::OpenFiles(), permitted) << log;
    failing_calls::CloseOpenFiles();
  }

  bool DeviceHoldsImage() const {
    std::string held = iImage;
    held.resize(kHeldSize, '\0');
    const std::vector<std::uint8_t> flash = iLine.Flash();
    return std::equal(flash.begin(), flash.end(), held.begin(), held.end(),
                      [](std::uint8_t one, char other) { return one == static_cast<std::uint8_t>(other); });
  }

  const std::string iDevice;
  const Failure iFailure;
  const std::string iImage = RandomText(kImageSize);
  TemporaryFolder iFolder;
  PluggedDevice iLine;
  FakeProperties iProperties;
  std::size_t iDescriptors = 0;
};

TEST_P(AnUpdate, KeepsItsPromisesWhicheverCallFails) {
  RunWithEachFailure([](unsigned n) { return n + FAILING_CALLS_STRIDE; });
}

TEST_P(AnUpdate, KeepsItsPromisesWhenOneOfTheFirstOrALaterCallFails) {
  constexpr unsigned kFirst = 4;
  RunWithEachFailure([](unsigned n) { return n < kFirst ? n + 1 : n * 3; });
}

INSTANTIATE_TEST_SUITE_P(Nth, AnUpdate,
                         testing::Combine(testing::Values("can", "sanyo"), testing::ValuesIn(kFailures)),
                         [](const auto& test) {
                           const std::string device = std::get<0>(test.param);
                           return std::string(std::get<1>(test.param).name) + "_" + device;
                         });

}  // namespace
