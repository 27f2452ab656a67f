// Goal: file systems are flushed, unmounted, mounted, formatted and checked with exactly the prescribed
// command lines, attempts, waits, log lines and results, in exactly the prescribed order. Method: tools that
// only write down how they are called stand in PATH, and nothing else does. One journal keeps command lines,
// sleeps and log lines; most scenarios are rows of tables, played with the log on and off.
#include <gtest/gtest.h>

#include <functional>
#include <map>

#include "FileHandler.h"
#include "InfraFixture.h"

namespace {

constexpr auto kFat = IFileHandler::EFormatFat;
constexpr auto kExt3 = IFileHandler::EFormatExt3;
constexpr auto kExt2 = IFileHandler::EFormatExt2;
constexpr auto kLoopback = IFileHandler::EFormatExt2Loopback;
constexpr auto kUnknown = static_cast<IFileHandler::TFileSystemFormat>(7);

const char kSleep[] = "sleep 500000";

// The device and the mount point of most scenarios: no such thing exists.
const TChr* const kDevice = AsTChr("/dev/disk-x");
const TChr* const kMountPoint = AsTChr("/media-y");

// What the tools' calls answer, one after the other; 0 where nothing is left.
using Answers = std::map<std::string, std::vector<int>>;

struct Scenario {
  const char* what;
  TInt32 (*operation)();
  Answers answers;
  TInt32 result;
  Lines journal;
};

class Maintenance : public InfraFixture {
 protected:
  Maintenance() { iTools.HideOthers(); }

  void Prepare(const Answers& answers) const {
    for (const std::string& tool : kTools) {
      const auto found = answers.find(tool);
      iTools.Answer(tool, found == answers.end() ? std::vector<int>() : found->second);
    }
  }

  void Play(const std::vector<Scenario>& scenarios) {
    for (const Scenario& scenario : scenarios) {
      SCOPED_TRACE(scenario.what);
      PlayOnce(scenario, scenario.journal);
      logging::SetLowestLevel(logging::EAlways);
      PlayOnce(scenario, WithTheLogOff(scenario.journal));
      logging::SetLowestLevel(logging::EInterface);
    }
  }

  void PlayOnce(const Scenario& scenario, const Lines& journal) {
    Prepare(scenario.answers);
    EXPECT_EQ(scenario.operation(), scenario.result);
    EXPECT_EQ(Take(), journal);
    EXPECT_EQ(iTools.Take(), AsCalls(journal));
  }

  inline static const std::vector<std::string> kTools = {
      "sync", "umount", "mount", "rm", "mkfs.ext3", "mkfs.ext2", "mkdosfs", "tune2fs", "e2fsck", "dosfsck"};
  RecordingTools iTools{kTools};
};

// ---- Sync ----

TInt32 Sync() {
  return IFileHandler::Sync();
}

const char kNotFlushed[] = "Error (Sync: The filesystems couldn't be flushed)";

TEST_F(Maintenance, SyncTellsWhetherTheFileSystemsAreFlushed) {
  Play({
      {"flushed", Sync, {}, 0, {"$ sync"}},
      {"status 1", Sync, {{"sync", {1}}}, 7, Join({Failing("sync", 1), {kNotFlushed}})},
      {"status 255", Sync, {{"sync", {255}}}, 7, Join({Failing("sync", 255), {kNotFlushed}})},
  });
}

TEST_F(Maintenance, SyncWithAKilledShellCountsAsFlushed) {
  iTools.Run("sync", {"kill -9 $PPID"});
  EXPECT_EQ(Sync(), 0);
  EXPECT_EQ(Take(), (Lines{"$ sync", "Error ('sync' killed by signal 9)"}));
}

TEST_F(Maintenance, SyncWithAKilledToolCountsAsNotFlushed) {
  iTools.Run("sync", {"kill -9 $$"});
  EXPECT_EQ(Sync(), 7);
  EXPECT_EQ(Take(), Join({Failing("sync", 137), {kNotFlushed}}));
}

TEST_F(Maintenance, SyncWithoutAShellCountsAsFlushed) {
  system_calls::Answer({-1});
  EXPECT_EQ(Sync(), 0);
  EXPECT_EQ(Take(), (Lines{"$ sync", "Error (failed to spawn 'sync', sysres=-1)"}));
}

// ---- Umount ----

TInt32 Umount() {
  return IFileHandler::Umount(AsTChr("/m"));
}

// All that six failing runs do, written out.
const Lines kSixFailures = {
    "$ umount -d /m",
    "Error ('umount -d /m' exited, result=32)",
    "Error (umount failed on /m. Error number : 32)",
    "Info (Retrying to umount /m. Try #1)",
    "$ sync",
    "sleep 500000",
    "$ umount -d /m",
    "Error ('umount -d /m' exited, result=1)",
    "Error (umount failed on /m. Error number : 1)",
    "Info (Retrying to umount /m. Try #2)",
    "$ sync",
    "sleep 500000",
    "$ umount -d /m",
    "Error ('umount -d /m' exited, result=16)",
    "Error (umount failed on /m. Error number : 16)",
    "$ sync",
    "sleep 500000",
    "Error (It was impossible to umount /m, forcing its umount)",
    "$ umount -d -l /m",
    "Error ('umount -d -l /m' exited, result=32)",
    "Error (umount failed on /m. Error number : 32)",
    "Info (Retrying to umount /m. Try #1)",
    "$ sync",
    "sleep 500000",
    "$ umount -d -l /m",
    "Error ('umount -d -l /m' exited, result=255)",
    "Error (umount failed on /m. Error number : 255)",
    "Info (Retrying to umount /m. Try #2)",
    "$ sync",
    "sleep 500000",
    "$ umount -d -l /m",
    "Error ('umount -d -l /m' exited, result=2)",
    "Error (umount failed on /m. Error number : 2)",
    "Info (Retrying to umount /m. Try #3)",
    "$ sync",
    "sleep 500000",
};

const std::vector<int> kSixStatuses = {32, 1, 16, 32, 255, 2};

// Six runs of everything that fails with 32.
Lines NeverUnmounted(const std::string& path) {
  Lines journal;
  for (const std::string command : {"umount -d ", "umount -d -l "}) {
    for (int attempt = 1; attempt <= 3; ++attempt) {
      const bool isForcing = attempt == 3 && command == "umount -d ";
      const Lines failure =
          Join({Failing(command + path, 32), {"Error (umount failed on " + path + ". Error number : 32)"}});
      const Lines retry = {"Info (Retrying to umount " + path + ". Try #" + std::to_string(attempt) + ")",
                           "$ sync", kSleep};
      const Lines force = {"$ sync", kSleep,
                           "Error (It was impossible to umount " + path + ", forcing its umount)"};
      journal = Join({journal, failure, isForcing ? force : retry});
    }
  }
  return journal;
}

TEST_F(Maintenance, UmountFailingForeverTriesThreeTimesPlainlyAndThreeTimesLazily) {
  Play({{"always failing", Umount, {{"umount", kSixStatuses}}, 0, kSixFailures}});
}

// Where the n-th run of umount stands in the journal of six failures.
Lines UpToRun(std::size_t n) {
  std::size_t runs = 0;
  Lines journal;
  for (const std::string& entry : kSixFailures) {
    journal.push_back(entry);
    runs += entry.find("$ umount") == 0 ? 1U : 0U;
    if (runs == n) {
      break;
    }
  }
  return journal;
}

TEST_F(Maintenance, UmountStopsAtTheRunThatSucceeds) {
  for (std::size_t n = 1; n <= 6; ++n) {
    const std::vector<int> failures(kSixStatuses.begin(),
                                    kSixStatuses.begin() + static_cast<std::ptrdiff_t>(n - 1));
    Play({{"run that succeeds", Umount, {{"umount", failures}}, 0, UpToRun(n)}});
  }
  EXPECT_EQ(UpToRun(1), (Lines{"$ umount -d /m"}));
  EXPECT_EQ(UpToRun(4).back(), "$ umount -d -l /m");
}

TEST_F(Maintenance, UmountGoesOnWhenTheSyncsBetweenFail) {
  Lines expected;
  for (const std::string& entry : kSixFailures) {
    expected.push_back(entry);
    if (entry == "$ sync") {
      expected.insert(expected.end(), {"Error ('sync' exited, result=5)", kNotFlushed});
    }
  }
  Play(
      {{"nothing works", Umount, {{"umount", kSixStatuses}, {"sync", std::vector<int>(6, 5)}}, 0, expected}});
}

TEST_F(Maintenance, UmountWithAKilledShellCountsAsUnmounted) {
  iTools.Run("umount", {"exit 1", "kill -9 $PPID"});
  EXPECT_EQ(Umount(), 0);
  EXPECT_EQ(Take(),
            Join({Failing("umount -d /m", 1),
                  {"Error (umount failed on /m. Error number : 1)", "Info (Retrying to umount /m. Try #1)",
                   "$ sync", kSleep, "$ umount -d /m", "Error ('umount -d /m' killed by signal 9)"}}));
}

TEST_F(Maintenance, UmountWithAKilledToolIsTriedAgain) {
  iTools.Run("umount", {"kill -9 $$"});
  EXPECT_EQ(Umount(), 0);
  EXPECT_EQ(Take(), Join({Failing("umount -d /m", 137),
                          {"Error (umount failed on /m. Error number : 137)",
                           "Info (Retrying to umount /m. Try #1)", "$ sync", kSleep, "$ umount -d /m"}}));
}

TEST_F(Maintenance, UmountWithAStoppedOrUnstartedShellCountsAsUnmounted) {
  system_calls::Answer({0x137f});
  EXPECT_EQ(Umount(), 0);
  EXPECT_EQ(Take(), (Lines{"$ umount -d /m", "Error ('umount -d /m' stopped by signal 19)"}));
  system_calls::Answer({-1});
  EXPECT_EQ(Umount(), 0);
  EXPECT_EQ(Take(), (Lines{"$ umount -d /m", "Error (failed to spawn 'umount -d /m', sysres=-1)"}));
}

TEST_F(Maintenance, UmountWithoutTheToolFailsSixTimesWith127) {
  iTools.Remove("umount");
  // What the shell has to say about that is of no interest.
  const std::string path = "/m 2>&-";
  EXPECT_EQ(IFileHandler::Umount(AsTChr(path)), 0);
  Lines expected = NeverUnmounted(path);
  for (std::string& entry : expected) {
    const std::size_t at = entry.find("32)");
    entry = at == std::string::npos ? entry : entry.substr(0, at) + "127)";
  }
  EXPECT_EQ(Take(), expected);
  EXPECT_EQ(iTools.Take(), Repeated(6, {"sync"}));
}

TEST_F(Maintenance, UmountHandsThePathToTheShellAsItIs) {
  const std::string paths[] = {
      "", "/m a  b ", "/m%s%n%d%%", std::string(5000, 'p'), "/m\xe4\xff", std::string(100'000, '%')};
  for (const std::string& path : paths) {
    Prepare({{"umount", std::vector<int>(6, 32)}});
    EXPECT_EQ(IFileHandler::Umount(AsTChr(path)), 0);
    const Lines journal = NeverUnmounted(path);
    EXPECT_TRUE(Take() == journal) << path.substr(0, 20);
    EXPECT_TRUE(iTools.Take() == AsCalls(journal)) << path.substr(0, 20);
  }
}

TEST_F(Maintenance, AShellsOwnCharactersInAPathActInTheShell) {
  EXPECT_EQ(IFileHandler::Umount(AsTChr("\"/m a\"; sync 'x  y' $((1 + 2))")), 0);
  EXPECT_EQ(iTools.Take(), (Lines{"umount|-d|/m a", "sync|x  y|3"}));
}

// ---- RemoveFolder ----

TInt32 RemoveFolder() {
  return IFileHandler::RemoveFolder(AsTChr("/no-such/f"));
}

TEST_F(Maintenance, RemoveFolderTellsWhetherItIsGone) {
  Play({
      {"removed",
       RemoveFolder,
       {},
       0,
       {"$ rm -rf /no-such/f", "Info (The folder \"/no-such/f\" has been successfully removed)"}},
      {"not removed",
       RemoveFolder,
       {{"rm", {1}}},
       1,
       Join({Failing("rm -rf /no-such/f", 1), {"Error (The folder \"/no-such/f\" could not be removed)"}})},
      {"not removed: 7",
       RemoveFolder,
       {{"rm", {7}}},
       1,
       Join({Failing("rm -rf /no-such/f", 7), {"Error (The folder \"/no-such/f\" could not be removed)"}})},
  });
}

TEST_F(Maintenance, RemoveFolderWithAKilledShellCountsAsRemoved) {
  iTools.Run("rm", {"kill -9 $PPID"});
  EXPECT_EQ(RemoveFolder(), 0);
  EXPECT_EQ(Take(), (Lines{"$ rm -rf /no-such/f", "Error ('rm -rf /no-such/f' killed by signal 9)",
                           "Info (The folder \"/no-such/f\" has been successfully removed)"}));
}

TEST_F(Maintenance, RemoveFolderHandsBlanksToTheShellUnquoted) {
  EXPECT_EQ(IFileHandler::RemoveFolder(AsTChr("/no-such/a b")), 0);
  EXPECT_EQ(Take(), (Lines{"$ rm -rf /no-such/a b",
                           "Info (The folder \"/no-such/a b\" has been successfully removed)"}));
  EXPECT_EQ(iTools.Take(), (Lines{"rm|-rf|/no-such/a|b"}));
}

TEST_F(Maintenance, RemoveFolderHandsEveryCharacterOn) {
  for (const std::string path : {"", "/no-such/%s%n", "\"/no-such/q\"", "/no-such/\xe4"}) {
    EXPECT_EQ(IFileHandler::RemoveFolder(AsTChr(path)), 0);
    EXPECT_EQ(Take(), (Lines{"$ rm -rf " + path,
                             "Info (The folder \"" + path + "\" has been successfully removed)"}));
  }
  EXPECT_EQ(iTools.Take(),
            (Lines{"rm|-rf", "rm|-rf|/no-such/%s%n", "rm|-rf|/no-such/q", "rm|-rf|/no-such/\xe4"}));
}

TEST_F(Maintenance, RemoveFolderNeverCutsALongPath) {
  const auto limit = 32U * static_cast<std::size_t>(sysconf(_SC_PAGESIZE));  // of one argument, with its zero
  const std::string longest(limit - 1 - std::string("rm -rf ").size(), 'f');
  EXPECT_EQ(IFileHandler::RemoveFolder(AsTChr(longest)), 0);
  EXPECT_TRUE(iTools.Take() == (Lines{"rm|-rf|" + longest}));
  Take();
  const std::string tooLong = longest + "f";
  EXPECT_EQ(IFileHandler::RemoveFolder(AsTChr(tooLong)), 1);
  EXPECT_TRUE(iTools.Take().empty());
  EXPECT_TRUE(Take() == Join({Failing("rm -rf " + tooLong, 127),
                              {"Error (The folder \"" + tooLong + "\" could not be removed)"}}));
}

// ---- Mount ----

template <IFileHandler::TFileSystemFormat iFormat>
TInt32 Mount() {
  return IFileHandler::Mount(kDevice, kMountPoint, iFormat);
}
template <IFileHandler::TFileSystemFormat iFormat>
TInt32 ReMount() {
  return IFileHandler::ReMount(kDevice, kMountPoint, iFormat);
}

// The entry line of an operation on the device and the mount point.
std::string Entry(const std::string& operation, int format) {
  return "Interface IFileHandler::" + operation +
         " (Device: /dev/disk-x, MountPoint: /media-y, FileSystemFormat: " + std::to_string(format) + ")";
}

const char kMountExt2[] =
    "mount -t ext2 -o rw,noexec,noatime,nodiratime,nodev,nosuid,commit=3600 /dev/disk-x /media-y";
const char kMountLoopback[] = "mount -t ext2 -o loop,exec,noatime,nosuid,nodev /dev/disk-x /media-y";
const char kMountExt3[] =
    "mount -t ext3 -o rw,noexec,noatime,nodiratime,nodev,nosuid,data=journal,commit=3600 /dev/disk-x "
    "/media-y";
const char kMountFat[] = "mount -t vfat -o rw,noexec,noatime,nodev,nosuid /dev/disk-x /media-y";

const char kAsExt2[] = "Info (Trying to mount as EXT2)";
const char kAsLoopback[] = "Info (Trying to mount as EXT2 loopback)";
const char kAsExt3[] = "Info (Trying to mount as EXT3)";
const char kAsFat[] = "Info (Trying to mount as FAT)";

// A mount of the format that succeeds at once.
Lines Mounting(int format, const std::string& announcement, const std::string& command) {
  return {Entry("Mount", format), announcement, "$ " + command};
}

TEST_F(Maintenance, MountUsesTheOptionsOfTheFormat) {
  Play({
      {"FAT", Mount<kFat>, {}, 0, Mounting(0, kAsFat, kMountFat)},
      {"ext3", Mount<kExt3>, {}, 0, Mounting(1, kAsExt3, kMountExt3)},
      {"ext2", Mount<kExt2>, {}, 0, Mounting(2, kAsExt2, kMountExt2)},
      {"loopback", Mount<kLoopback>, {}, 0, Mounting(3, kAsLoopback, kMountLoopback)},
      {"unknown", Mount<kUnknown>, {}, 0, Mounting(7, kAsFat, kMountFat)},
  });
}

TEST_F(Maintenance, MountTakesEveryUnknownFormatAsFat) {
  for (const TInt32 number : {4, -1, 0x7fffffff}) {
    const auto format = static_cast<IFileHandler::TFileSystemFormat>(number);
    EXPECT_EQ(IFileHandler::Mount(kDevice, kMountPoint, format), 0);
    EXPECT_EQ(Take(), Mounting(number, kAsFat, kMountFat));
  }
}

TEST_F(Maintenance, ReMountAppendsItsOptionToThoseOfTheFormat) {
  Play({
      {"FAT",
       ReMount<kFat>,
       {},
       0,
       Mounting(0, kAsFat, "mount -t vfat -o rw,noexec,noatime,nodev,nosuid,remount /dev/disk-x /media-y")},
      {"ext3",
       ReMount<kExt3>,
       {},
       0,
       Mounting(1, kAsExt3,
                "mount -t ext3 -o rw,noexec,noatime,nodiratime,nodev,nosuid,data=journal,commit=3600,remount "
                "/dev/disk-x /media-y")},
      {"ext2",
       ReMount<kExt2>,
       {},
       0,
       Mounting(2, kAsExt2,
                "mount -t ext2 -o rw,noexec,noatime,nodiratime,nodev,nosuid,commit=3600,remount /dev/disk-x "
                "/media-y")},
      {"loopback",
       ReMount<kLoopback>,
       {},
       0,
       Mounting(3, kAsLoopback,
                "mount -t ext2 -o loop,exec,noatime,nosuid,nodev,remount /dev/disk-x /media-y")},
      {"unknown",
       ReMount<kUnknown>,
       {},
       0,
       Mounting(7, kAsFat, "mount -t vfat -o rw,noexec,noatime,nodev,nosuid,remount /dev/disk-x /media-y")},
  });
}

TEST_F(Maintenance, MountTakesEveryTrueValueAsARemount) {
  for (const TBool remount : {ETrue, TBool{2}, TBool{-1}}) {
    EXPECT_EQ(IFileHandler::Mount(kDevice, kMountPoint, remount, kLoopback), 0);
    EXPECT_EQ(Take(),
              Mounting(3, kAsLoopback,
                       "mount -t ext2 -o loop,exec,noatime,nosuid,nodev,remount /dev/disk-x /media-y"));
  }
  EXPECT_EQ(IFileHandler::Mount(kDevice, kMountPoint, EFalse, kLoopback), 0);
  EXPECT_EQ(Take(), Mounting(3, kAsLoopback, kMountLoopback));
}

TEST_F(Maintenance, EveryMountEntersThroughTheOneWithFourArguments) {
  std::vector<std::string> signatures;
  class Signatures : public logging::ISink {
   public:
    explicit Signatures(std::vector<std::string>& signatures)
        : iSignatures(signatures), iFormer(logging::SetSink(this)) {}
    ~Signatures() override { logging::SetSink(iFormer); }
    void Write(const logging::TLine& line) override {
      if (line.level == logging::EInterface) {
        iSignatures.emplace_back(line.signature);
      }
    }

   private:
    std::vector<std::string>& iSignatures;
    logging::ISink* iFormer;
  } const sink(signatures);
  Mount<kFat>();
  ReMount<kFat>();
  IFileHandler::Mount(kDevice, kMountPoint, EFalse, kFat);
  ASSERT_EQ(signatures.size(), 3U);
  EXPECT_NE(signatures[0].find("TBool"), std::string::npos) << signatures[0];
  EXPECT_EQ(signatures, Repeated(3, {signatures[0]}));
}

// Runs of a mount command that fail with these statuses.
Lines FailingMounts(const std::string& command, const std::vector<int>& statuses) {
  Lines journal;
  for (const int status : statuses) {
    journal =
        Join({journal,
              Failing(command, status),
              {"Error (Mounting /media-y failed. Error number : " + std::to_string(status) + ")", kSleep}});
  }
  return journal;
}

TEST_F(Maintenance, MountFailingThreeTimesWaitsThreeTimesAndGivesUp) {
  Play({{"always failing",
         Mount<kExt3>,
         {{"mount", {32, 1, 16}}},
         1,
         {
             Entry("Mount", 1),
             kAsExt3,
             "$ mount -t ext3 -o rw,noexec,noatime,nodiratime,nodev,nosuid,data=journal,commit=3600 "
             "/dev/disk-x "
             "/media-y",
             "Error ('mount -t ext3 -o rw,noexec,noatime,nodiratime,nodev,nosuid,data=journal,commit=3600 "
             "/dev/disk-x /media-y' exited, result=32)",
             "Error (Mounting /media-y failed. Error number : 32)",
             "sleep 500000",
             "$ mount -t ext3 -o rw,noexec,noatime,nodiratime,nodev,nosuid,data=journal,commit=3600 "
             "/dev/disk-x "
             "/media-y",
             "Error ('mount -t ext3 -o rw,noexec,noatime,nodiratime,nodev,nosuid,data=journal,commit=3600 "
             "/dev/disk-x /media-y' exited, result=1)",
             "Error (Mounting /media-y failed. Error number : 1)",
             "sleep 500000",
             "$ mount -t ext3 -o rw,noexec,noatime,nodiratime,nodev,nosuid,data=journal,commit=3600 "
             "/dev/disk-x "
             "/media-y",
             "Error ('mount -t ext3 -o rw,noexec,noatime,nodiratime,nodev,nosuid,data=journal,commit=3600 "
             "/dev/disk-x /media-y' exited, result=16)",
             "Error (Mounting /media-y failed. Error number : 16)",
             "sleep 500000",
         }}});
}

TEST_F(Maintenance, MountStopsAtTheRunThatSucceeds) {
  const Lines second =
      Join({{Entry("Mount", 0), kAsFat}, FailingMounts(kMountFat, {32}), {std::string("$ ") + kMountFat}});
  const Lines third =
      Join({{Entry("Mount", 0), kAsFat}, FailingMounts(kMountFat, {32, 8}), {std::string("$ ") + kMountFat}});
  Play({
      {"second run", Mount<kFat>, {{"mount", {32}}}, 0, second},
      {"third run", Mount<kFat>, {{"mount", {32, 8}}}, 0, third},
  });
}

TEST_F(Maintenance, MountWithAKilledShellCountsAsMountedAndWithAKilledToolDoesNot) {
  iTools.Run("mount", {"kill -9 $$", "kill -9 $PPID"});
  EXPECT_EQ(Mount<kFat>(), 0);
  EXPECT_EQ(
      Take(),
      Join({{Entry("Mount", 0), kAsFat},
            FailingMounts(kMountFat, {137}),
            {std::string("$ ") + kMountFat, std::string("Error ('") + kMountFat + "' killed by signal 9)"}}));
}

TEST_F(Maintenance, MountHandsDeviceAndMountPointToTheShellAsTheyAre) {
  const std::string device = "/dev/a%s b%n" + std::string(4000, 'd');
  const std::string mountPoint = "/m%d \"c  d\"" + std::string(4000, 'm');
  EXPECT_EQ(IFileHandler::Mount(AsTChr(device), AsTChr(mountPoint), kFat), 0);
  EXPECT_EQ(
      Take(),
      (Lines{"Interface IFileHandler::Mount (Device: " + device + ", MountPoint: " + mountPoint +
                 ", FileSystemFormat: 0)",
             kAsFat, "$ mount -t vfat -o rw,noexec,noatime,nodev,nosuid " + device + " " + mountPoint}));
  EXPECT_EQ(iTools.Take(), (Lines{"mount|-t|vfat|-o|rw,noexec,noatime,nodev,nosuid|/dev/a%s|b%n" +
                                  std::string(4000, 'd') + "|/m%d|c  d" + std::string(4000, 'm')}));
}

// ---- Format ----

template <IFileHandler::TFileSystemFormat iFormat>
TInt32 Format() {
  return IFileHandler::Format(kDevice, kMountPoint, iFormat);
}

const char kUmount[] = "$ umount -d /media-y";
const char kMakeExt3[] =
    "mkfs.ext3 -O ^dir_index,filetype,^resize_inode,^ext_attr,sparse_super,large_file -b 4096 -J size=50 -m "
    "0 "
    "-I 128 /dev/disk-x";
const char kTuneExt3[] = "tune2fs -i 0d -c 112 -o journal_data /dev/disk-x";
const char kMakeExt2[] =
    "mkfs.ext2 -O ^dir_index,filetype,^resize_inode,^ext_attr,sparse_super,large_file -b 4096 /dev/disk-x";
const char kMakeFat[] = "mkdosfs -F32 -I -a256 /dev/disk-x";

std::string Ran(const std::string& command) {
  return "$ " + command;
}

TEST_F(Maintenance, FormatUnmountsMakesAndMounts) {
  const Lines ext3 = {Entry("Format", 1), kUmount, Ran(kMakeExt3), Ran(kTuneExt3),
                      Entry("Mount", 1),  kAsExt3, Ran(kMountExt3)};
  const Lines ext2 = {Entry("Format", 2), kUmount, Ran(kMakeExt2),
                      Entry("Mount", 2),  kAsExt2, Ran(kMountExt2)};
  const Lines fat = {Entry("Format", 0), kUmount, Ran(kMakeFat), Entry("Mount", 0), kAsFat, Ran(kMountFat)};
  const Lines loopback = {Entry("Format", 3), kUmount,     Ran(kMakeFat),
                          Entry("Mount", 3),  kAsLoopback, Ran(kMountLoopback)};
  const Lines unknown = {Entry("Format", 7), kUmount, Ran(kMakeFat),
                         Entry("Mount", 7),  kAsFat,  Ran(kMountFat)};
  Play({
      {"ext3", Format<kExt3>, {}, 0, ext3},
      {"ext2", Format<kExt2>, {}, 0, ext2},
      {"FAT", Format<kFat>, {}, 0, fat},
      {"loopback, made as FAT, mounted as loopback", Format<kLoopback>, {}, 0, loopback},
      {"unknown", Format<kUnknown>, {}, 0, unknown},
  });
}

TEST_F(Maintenance, FormatToolsSeeTheirArgumentsOneByOne) {
  Format<kExt3>();
  Format<kExt2>();
  Format<kFat>();
  const Lines calls = {
      "umount|-d|/media-y",
      "mkfs.ext3|-O|^dir_index,filetype,^resize_inode,^ext_attr,sparse_super,large_file|-b|4096|-J|size=50|-"
      "m|0|"
      "-I|128|/dev/disk-x",
      "tune2fs|-i|0d|-c|112|-o|journal_data|/dev/disk-x",
      "mount|-t|ext3|-o|rw,noexec,noatime,nodiratime,nodev,nosuid,data=journal,commit=3600|/dev/disk-x|/"
      "media-y",
      "umount|-d|/media-y",
      "mkfs.ext2|-O|^dir_index,filetype,^resize_inode,^ext_attr,sparse_super,large_file|-b|4096|/dev/disk-x",
      "mount|-t|ext2|-o|rw,noexec,noatime,nodiratime,nodev,nosuid,commit=3600|/dev/disk-x|/media-y",
      "umount|-d|/media-y",
      "mkdosfs|-F32|-I|-a256|/dev/disk-x",
      "mount|-t|vfat|-o|rw,noexec,noatime,nodev,nosuid|/dev/disk-x|/media-y",
  };
  EXPECT_EQ(iTools.Take(), calls);
}

Lines FailedToFormat(int format, const Lines& commands, int status) {
  return Join({{Entry("Format", format), kUmount},
               commands,
               {"Error (Formatting failed. errorsys = " + std::to_string(status) + ")"}});
}

TEST_F(Maintenance, FormatEndsAtTheFirstToolThatFails) {
  const Lines noTuning = FailedToFormat(1, Join({{Ran(kMakeExt3)}, Failing(kTuneExt3, 8)}), 8);
  Play({
      {"mkfs.ext3", Format<kExt3>, {{"mkfs.ext3", {1}}}, 1, FailedToFormat(1, Failing(kMakeExt3, 1), 1)},
      {"tune2fs", Format<kExt3>, {{"tune2fs", {8}}}, 1, noTuning},
      {"mkfs.ext2",
       Format<kExt2>,
       {{"mkfs.ext2", {255}}},
       1,
       FailedToFormat(2, Failing(kMakeExt2, 255), 255)},
      {"mkdosfs", Format<kFat>, {{"mkdosfs", {2}}}, 1, FailedToFormat(0, Failing(kMakeFat, 2), 2)},
      {"mkdosfs, loopback",
       Format<kLoopback>,
       {{"mkdosfs", {1}}},
       1,
       FailedToFormat(3, Failing(kMakeFat, 1), 1)},
  });
}

TEST_F(Maintenance, FormatWithoutItsToolFailsWith127) {
  iTools.Remove("mkfs.ext2");
  testing::internal::CaptureStderr();
  const TInt32 result = Format<kExt2>();
  EXPECT_NE(testing::internal::GetCapturedStderr().find("mkfs.ext2"), std::string::npos);
  EXPECT_EQ(result, 1);
  EXPECT_EQ(Take(), FailedToFormat(2, Failing(kMakeExt2, 127), 127));
}

TEST_F(Maintenance, FormatGoesOnAfterAKilledShell) {
  iTools.Run("mkfs.ext3", {"kill -9 $PPID"});
  EXPECT_EQ(Format<kExt3>(), 0);
  EXPECT_EQ(Take(), (Lines{Entry("Format", 1), kUmount, Ran(kMakeExt3),
                           "Error ('" + std::string(kMakeExt3) + "' killed by signal 9)", Ran(kTuneExt3),
                           Entry("Mount", 1), kAsExt3, Ran(kMountExt3)}));
}

TEST_F(Maintenance, FormatTellsAMountThatFails) {
  const Lines ext3 =
      Join({{Entry("Format", 1), kUmount, Ran(kMakeExt3), Ran(kTuneExt3), Entry("Mount", 1), kAsExt3},
            FailingMounts(kMountExt3, {32, 32, 32}),
            {"Error (Error mounting/umounting)"}});
  const Lines fat = Join({{Entry("Format", 0), kUmount, Ran(kMakeFat), Entry("Mount", 0), kAsFat},
                          FailingMounts(kMountFat, {2, 3, 4}),
                          {"Error (Error mounting/umounting)"}});
  Play({
      {"ext3", Format<kExt3>, {{"mount", {32, 32, 32}}}, 1, ext3},
      {"FAT", Format<kFat>, {{"mount", {2, 3, 4}}}, 1, fat},
  });
}

TEST_F(Maintenance, FormatGoesOnAfterAllAttemptsToUnmountWithoutAWord) {
  const Lines ext2 = Join({{Entry("Format", 2)},
                           NeverUnmounted("/media-y"),
                           {Ran(kMakeExt2), Entry("Mount", 2), kAsExt2, Ran(kMountExt2)}});
  Play({{"never unmounted", Format<kExt2>, {{"umount", std::vector<int>(6, 32)}}, 0, ext2}});
}

TEST_F(Maintenance, FormatHandsTheDeviceToTheShellAsItIs) {
  const std::string device = "/dev/a%sb%n c" + std::string(4000, 'd');
  const auto run = [&](IFileHandler::TFileSystemFormat format) {
    EXPECT_EQ(IFileHandler::Format(AsTChr(device), kMountPoint, format), 0);
    return Take();
  };
  const std::string options =
      "-O ^dir_index,filetype,^resize_inode,^ext_attr,sparse_super,large_file -b 4096 ";
  EXPECT_EQ(run(kFat)[2], "$ mkdosfs -F32 -I -a256 " + device);
  EXPECT_EQ(run(kExt2)[2], "$ mkfs.ext2 " + options + device);
  const Lines ext3 = run(kExt3);
  EXPECT_EQ(ext3[0], "Interface IFileHandler::Format (Device: " + device +
                         ", MountPoint: /media-y, FileSystemFormat: 1)");
  EXPECT_EQ(ext3[2], "$ mkfs.ext3 " + options + "-J size=50 -m 0 -I 128 " + device);
  EXPECT_EQ(ext3[3], "$ tune2fs -i 0d -c 112 -o journal_data " + device);
}

// ---- CheckFS ----

template <IFileHandler::TFileSystemFormat iFormat>
TInt32 CheckFS() {
  return IFileHandler::CheckFS(kDevice, kMountPoint, iFormat);
}

const char kCheckExt[] = "e2fsck -p -f /dev/disk-x";
const char kCheckFat[] = "dosfsck -a -w -v /dev/disk-x";

const Lines kSecondPass = {"Info (------> Recoverable errors have been detected <------)",
                           "Info (------> or dosfsck has discovered an internal inconsistency. <------)",
                           "Info (------> Checking FAT-Movinand again... <------)"};

TEST_F(Maintenance, CheckFSUnmountsChecksAndMounts) {
  const Lines ext3 = {Entry("CheckFS", 1), kUmount, Ran(kCheckExt),
                      Entry("Mount", 1),   kAsExt3, Ran(kMountExt3)};
  const Lines ext2 = {Entry("CheckFS", 2), kUmount, Ran(kCheckExt),
                      Entry("Mount", 2),   kAsExt2, Ran(kMountExt2)};
  const Lines fat = {Entry("CheckFS", 0), kUmount, Ran(kCheckFat), Entry("Mount", 0), kAsFat, Ran(kMountFat)};
  const Lines loopback = {Entry("CheckFS", 3), kUmount,     Ran(kCheckFat),
                          Entry("Mount", 3),   kAsLoopback, Ran(kMountLoopback)};
  const Lines unknown = {Entry("CheckFS", 7), kUmount, Ran(kCheckFat),
                         Entry("Mount", 7),   kAsFat,  Ran(kMountFat)};
  Play({
      {"ext3", CheckFS<kExt3>, {}, 0, ext3},
      {"ext2", CheckFS<kExt2>, {}, 0, ext2},
      {"FAT", CheckFS<kFat>, {}, 0, fat},
      {"loopback, checked as FAT, mounted as loopback", CheckFS<kLoopback>, {}, 0, loopback},
      {"unknown", CheckFS<kUnknown>, {}, 0, unknown},
  });
}

Lines FailedCheck(int format, const Lines& commands, int status) {
  return Join({{Entry("CheckFS", format), kUmount},
               commands,
               {"Error (Checking failed. errorsys = " + std::to_string(status) + ")"}});
}

TEST_F(Maintenance, CheckFSTakesEveryStatusOfE2fsckAsItIs) {
  for (const int status : {1, 2, 4, 8, 12, 32, 127, 137}) {
    Play({
        {"ext3",
         CheckFS<kExt3>,
         {{"e2fsck", {status}}},
         1,
         FailedCheck(1, Failing(kCheckExt, status), status)},
        {"ext2",
         CheckFS<kExt2>,
         {{"e2fsck", {status}}},
         1,
         FailedCheck(2, Failing(kCheckExt, status), status)},
    });
  }
}

TEST_F(Maintenance, CheckFSGivesFatASecondPassAfterStatus1) {
  const Lines first = Join({Failing(kCheckFat, 1), kSecondPass});
  const Lines fat = Join(
      {{Entry("CheckFS", 0), kUmount}, first, {Ran(kCheckFat), Entry("Mount", 0), kAsFat, Ran(kMountFat)}});
  const Lines loopback = Join({{Entry("CheckFS", 3), kUmount},
                               first,
                               {Ran(kCheckFat), Entry("Mount", 3), kAsLoopback, Ran(kMountLoopback)}});
  Play({
      {"then 0", CheckFS<kFat>, {{"dosfsck", {1}}}, 0, fat},
      {"then 0, loopback", CheckFS<kLoopback>, {{"dosfsck", {1}}}, 0, loopback},
      {"then 1",
       CheckFS<kFat>,
       {{"dosfsck", {1, 1}}},
       1,
       FailedCheck(0, Join({first, Failing(kCheckFat, 1)}), 1)},
      {"then 2",
       CheckFS<kFat>,
       {{"dosfsck", {1, 2}}},
       1,
       FailedCheck(0, Join({first, Failing(kCheckFat, 2)}), 2)},
      {"then 1, unknown",
       CheckFS<kUnknown>,
       {{"dosfsck", {1, 1}}},
       1,
       FailedCheck(7, Join({first, Failing(kCheckFat, 1)}), 1)},
  });
}

TEST_F(Maintenance, CheckFSGivesFatNoSecondPassAfterAnotherStatus) {
  for (const int status : {2, 3, 127, 137, 255}) {
    Play({{"FAT",
           CheckFS<kFat>,
           {{"dosfsck", {status}}},
           1,
           FailedCheck(0, Failing(kCheckFat, status), status)}});
  }
}

TEST_F(Maintenance, CheckFSWithAKilledShellCountsAsPassed) {
  iTools.Run("dosfsck", {"exit 1", "kill -9 $PPID"});
  EXPECT_EQ(CheckFS<kFat>(), 0);
  EXPECT_EQ(Take(), Join({{Entry("CheckFS", 0), kUmount},
                          Failing(kCheckFat, 1),
                          kSecondPass,
                          {Ran(kCheckFat), "Error ('" + std::string(kCheckFat) + "' killed by signal 9)",
                           Entry("Mount", 0), kAsFat, Ran(kMountFat)}}));
  iTools.Run("e2fsck", {"kill -9 $PPID"});
  EXPECT_EQ(CheckFS<kExt2>(), 0);
  EXPECT_EQ(Take(), (Lines{Entry("CheckFS", 2), kUmount, Ran(kCheckExt),
                           "Error ('" + std::string(kCheckExt) + "' killed by signal 9)", Entry("Mount", 2),
                           kAsExt2, Ran(kMountExt2)}));
}

TEST_F(Maintenance, CheckFSTellsAMountThatFailsWithItsResult) {
  const Lines ext3 = Join({{Entry("CheckFS", 1), kUmount, Ran(kCheckExt), Entry("Mount", 1), kAsExt3},
                           FailingMounts(kMountExt3, {32, 32, 16}),
                           {"Error (Error mounting/umounting. retVal = 1)"}});
  const Lines fat = Join({{Entry("CheckFS", 0), kUmount, Ran(kCheckFat), Entry("Mount", 0), kAsFat},
                          FailingMounts(kMountFat, {32, 32, 32}),
                          {"Error (Error mounting/umounting. retVal = 1)"}});
  Play({
      {"ext3", CheckFS<kExt3>, {{"mount", {32, 32, 16}}}, 1, ext3},
      {"FAT", CheckFS<kFat>, {{"mount", {32, 32, 32}}}, 1, fat},
  });
}

TEST_F(Maintenance, CheckFSGoesOnAfterAllAttemptsToUnmountWithoutAWord) {
  const Lines ext3 = Join({{Entry("CheckFS", 1)},
                           NeverUnmounted("/media-y"),
                           {Ran(kCheckExt), Entry("Mount", 1), kAsExt3, Ran(kMountExt3)}});
  Play({{"never unmounted", CheckFS<kExt3>, {{"umount", std::vector<int>(6, 32)}}, 0, ext3}});
}

TEST_F(Maintenance, CheckFSHandsTheDeviceToTheShellAsItIs) {
  const std::string device = "/dev/a%sb%n c" + std::string(4000, 'd');
  EXPECT_EQ(IFileHandler::CheckFS(AsTChr(device), kMountPoint, kExt2), 0);
  EXPECT_EQ(Take()[2], "$ e2fsck -p -f " + device);
  Prepare({{"dosfsck", {1}}});
  EXPECT_EQ(IFileHandler::CheckFS(AsTChr(device), kMountPoint, kFat), 0);
  const Lines fat = Take();
  EXPECT_EQ(fat[2], "$ dosfsck -a -w -v " + device);
  EXPECT_EQ(fat[7], "$ dosfsck -a -w -v " + device);
}

}  // namespace
