// Goal: the file-system maintenance does on a real kernel, with the real tools, what its callers rely on, and
// what does not work with a kernel and tools of today fails in the way that the integrators' document tells.
//
// Method: a program of its own, linked with the shipped libraries as a stranger's would be, runs as the only
// program of an emulated machine with two empty disks. Every case asks the kernel for the outcome
// (/proc/mounts, files, statvfs) and the log for how it was reached. The cases build on each other's disks,
// in their order.
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <fstream>
#include <iterator>
#include <sstream>
#include <string>
#include <utility>

#include "Checks.h"
#include "Clock.h"
#include "CmdHandler.h"
#include "FileHandler.h"
#include "Logging.h"

namespace {

using emulated::Check;
using TResult = IFileHandler::TFileHndlError;

constexpr TResult kOk = IFileHandler::EFileHndlOk;
constexpr TResult kError = IFileHandler::EFileHndlError;

// The disks, and where they are mounted.
const std::string kFirst = "/dev/vda";
const std::string kSecond = "/dev/vdb";
const std::string kData = "/mnt/data";
const std::string kOther = "/mnt/other";
const std::string kImagePoint = "/mnt/image";
const std::string kImage = "/tmp/image";

constexpr const char* kExt3Options = "rw,noexec,noatime,nodiratime,nodev,nosuid,data=journal,commit=3600";
constexpr const char* kExt2Options = "rw,noexec,noatime,nodiratime,nodev,nosuid,commit=3600";

// ---- The log ----

// Keeps what the infrastructure says at Info and above, a line each: the level's initial and the message.
class LogLines final : public logging::ISink {
 public:
  void Write(const logging::TLine& line) override {
    iText += std::string(1, "FIWEA"[line.level]) + " " + std::string(line.message) + "\n";
  }

  std::string Take() { return std::exchange(iText, std::string()); }

 private:
  std::string iText;
};

LogLines log_lines;

std::string Times(int count, const std::string& text) {
  std::string all;
  for (int i = 0; i < count; ++i) {
    all += text;
  }
  return all;
}

std::string Exited(const std::string& command, int status) {
  return "E '" + command + "' exited, result=" + std::to_string(status) + "\n";
}

std::string UmountFailed(const std::string& options, const std::string& path) {
  return Exited("umount -d " + options + path, 32) + "E umount failed on " + path + ". Error number : 32\n";
}

std::string Retrying(const std::string& path, int attempt) {
  return "I Retrying to umount " + path + ". Try #" + std::to_string(attempt) + "\n";
}

// What three plain attempts leave behind that fail.
std::string PlainUmountsFailed(const std::string& path) {
  return UmountFailed("", path) + Retrying(path, 1) + UmountFailed("", path) + Retrying(path, 2) +
         UmountFailed("", path) + "E It was impossible to umount " + path + ", forcing its umount\n";
}

std::string LazyUmountsFailed(const std::string& path) {
  std::string all;
  for (int attempt = 1; attempt <= 3; ++attempt) {
    all += UmountFailed("-l ", path) + Retrying(path, attempt);
  }
  return all;
}

std::string MountsFailed(const std::string& command, const std::string& path) {
  return Times(3, Exited(command, 32) + "E Mounting " + path + " failed. Error number : 32\n");
}

// ---- The machine ----

std::string ReadFile(const std::string& path) {
  std::ifstream file(path);
  return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

void WriteFile(const std::string& path, const std::string& text) {
  std::ofstream(path) << text;
}

bool Exists(const std::string& path) {
  return access(path.c_str(), F_OK) == 0;
}

struct Mounting {
  std::string source;  // device and type; empty when nothing is mounted
  std::string options;
};

// The kernel's own words about what is mounted at `point`.
Mounting Mounted(const std::string& point) {
  std::ifstream mounts("/proc/mounts");
  std::string device, where, type, options, rest;
  while (mounts >> device >> where >> type >> options && std::getline(mounts, rest)) {
    if (where == point) {
      return {device + " " + type, options};
    }
  }
  return {};
}

// Those of the comma-separated `wanted` that are not among `options`.
std::string Missing(const std::string& options, const std::string& wanted) {
  std::istringstream words(wanted);
  std::string missing;
  for (std::string word; std::getline(words, word, ',');) {
    missing += ("," + options + ",").find("," + word + ",") == std::string::npos ? word + " " : "";
  }
  return missing;
}

TInt32 Shell(const std::string& command) {
  return ICmdHandler::SystemCmd(AsTChr(command));
}

// Something to be unmounted, so that an unmount before other work costs no retries.
void Occupy(const std::string& point) {
  mkdir(point.c_str(), 0755);
  Shell("mount -t tmpfs none " + point);
}

TResult Format(const std::string& device, const std::string& point, IFileHandler::TFileSystemFormat format) {
  return IFileHandler::Format(AsTChr(device), AsTChr(point), format);
}

TResult Mount(const std::string& device, const std::string& point, IFileHandler::TFileSystemFormat format) {
  return IFileHandler::Mount(AsTChr(device), AsTChr(point), format);
}

TResult ReMount(const std::string& device, const std::string& point, IFileHandler::TFileSystemFormat format) {
  return IFileHandler::ReMount(AsTChr(device), AsTChr(point), format);
}

TResult CheckFS(const std::string& device, const std::string& point, IFileHandler::TFileSystemFormat format) {
  return IFileHandler::CheckFS(AsTChr(device), AsTChr(point), format);
}

TResult Umount(const std::string& path) {
  return IFileHandler::Umount(AsTChr(path));
}

// ---- ext3 ----

void IsMountedAsExt3(Check& check) {
  const Mounting mounting = Mounted(kData);
  check.Equal("mounted", mounting.source, kFirst + " ext3");
  check.Equal("missing options",
              Missing(mounting.options, "rw,nosuid,nodev,noexec,noatime,nodiratime,commit=3600"), "");
  // It is the file system's default, so /proc/mounts keeps silent about it.
  const std::string all = ReadFile("/proc/fs/ext4/vda/options");
  check.That("data=journal is among its options", all.find("\ndata=journal\n") != std::string::npos);
}

void Ext3IsFormattedAndMounted(Check& check) {
  Occupy(kData);
  check.Equal("result", Format(kFirst, kData, IFileHandler::EFormatExt3), kOk);
  check.Equal("log", log_lines.Take(), "I Trying to mount as EXT3\n");
  IsMountedAsExt3(check);
}

void Ext3IsRemountedWithItsFiles(Check& check) {
  WriteFile(kData + "/file", "content");
  Shell("mount -t ext3 -o remount,ro " + kFirst + " " + kData);
  check.Equal("missing options before", Missing(Mounted(kData).options, "ro"), "");
  check.Equal("result", ReMount(kFirst, kData, IFileHandler::EFormatExt3), kOk);
  check.Equal("log", log_lines.Take(), "I Trying to mount as EXT3\n");
  IsMountedAsExt3(check);
  check.Equal("file", ReadFile(kData + "/file"), "content");
}

void Ext3RunsNoPrograms(Check& check) {
  check.Equal("status", Shell("cp /usr/bin/true " + kData + "/true && " + kData + "/true 2> /dev/null"), 126);
  log_lines.Take();
}

void Ext3IsCheckedAndMountedAgain(Check& check) {
  check.Equal("result", CheckFS(kFirst, kData, IFileHandler::EFormatExt3), kOk);
  check.Equal("log", log_lines.Take(), "I Trying to mount as EXT3\n");
  IsMountedAsExt3(check);
  check.Equal("file", ReadFile(kData + "/file"), "content");
}

void ReMountOfWhatIsNotMountedFails(Check& check) {
  mkdir(kOther.c_str(), 0755);
  check.Equal("result", ReMount(kFirst, kOther, IFileHandler::EFormatExt3), kError);
  const std::string command =
      std::string("mount -t ext3 -o ") + kExt3Options + ",remount " + kFirst + " " + kOther;
  check.Equal("log", log_lines.Take(), "I Trying to mount as EXT3\n" + MountsFailed(command, kOther));
}

// ---- Sync, folders and free space ----

void SyncSucceedsSilently(Check& check) {
  check.Equal("result", IFileHandler::Sync(), kOk);
  check.Equal("log", log_lines.Take(), "");
}

void AFolderIsRemovedWithItsContent(Check& check) {
  const std::string folder = kData + "/folder";
  Shell("mkdir -p " + folder + "/sub");
  WriteFile(folder + "/sub/file", "content");
  check.That("the folder was there", Exists(folder + "/sub/file"));
  check.Equal("result", IFileHandler::RemoveFolder(AsTChr(folder)), kOk);
  check.Equal("log", log_lines.Take(), "I The folder \"" + folder + "\" has been successfully removed\n");
  check.That("the folder is gone", !Exists(folder));
}

void AMountPointIsEmptiedButNotRemoved(Check& check) {
  Occupy(kOther);
  WriteFile(kOther + "/file", "content");
  check.Equal("result", IFileHandler::RemoveFolder(AsTChr(kOther)), kError);
  check.Equal("log", log_lines.Take(),
              Exited("rm -rf " + kOther, 1) + "E The folder \"" + kOther + "\" could not be removed\n");
  check.That("the content is gone", !Exists(kOther + "/file"));
  check.Equal("unmount", Umount(kOther), kOk);
}

void FreeSpaceIsWhatTheKernelSays(Check& check) {
  struct statvfs status = {};
  check.Equal("statvfs", statvfs(kData.c_str(), &status), 0);
  const auto expected_kb = static_cast<TUint32>(status.f_bavail * status.f_frsize / 1024);
  for (const std::string& name : {kFirst, kData}) {
    TUint32 space_kb = 0;
    check.Equal("result for " + name, IFileHandler::AvailableSpace(AsTChr(name), &space_kb), kOk);
    check.Equal("space of " + name, space_kb, expected_kb);
  }
  check.That("there is space", expected_kb > 1024);
  check.Equal("log", log_lines.Take(), "");
  check.That("no scratch file is left", !Exists("/tmp/CalculateDiskSpace"));
}

void FreeSpaceOfNothingLeavesTheNumber(Check& check) {
  TUint32 space_kb = 4711;
  check.Equal("result", IFileHandler::AvailableSpace(AsTChr("/dev/none"), &space_kb), kOk);
  check.Equal("space", space_kb, 4711u);
  check.Equal("log", log_lines.Take(), Exited("df|grep /dev/none > /tmp/CalculateDiskSpace", 1));
  check.That("no scratch file is left", !Exists("/tmp/CalculateDiskSpace"));
}

// ---- Unmounting ----

void ABusyFileSystemIsUnmountedLazily(Check& check) {
  std::FILE* file = IFileHandler::FOpen((kData + "/open").c_str(), "w");
  check.Equal("result", Umount(kData), kOk);
  check.Equal("log", log_lines.Take(), PlainUmountsFailed(kData));
  check.Equal("mounted", Mounted(kData).source, "");
  Occupy(kOther);
  check.Equal("check while it is open", CheckFS(kFirst, kOther, IFileHandler::EFormatExt3), kError);
  check.Equal("log of the check", log_lines.Take(),
              Exited("e2fsck -p -f " + kFirst, 8) + "E Checking failed. errorsys = 8\n");
  check.Equal("written to the open file", IFileHandler::FWrite("late", 1, 4, file), 4u);
  check.Equal("close", IFileHandler::FClose(file), 0);
  check.Equal("mounting again", Mount(kFirst, kData, IFileHandler::EFormatExt3), kOk);
  check.Equal("file", ReadFile(kData + "/open"), "late");
  log_lines.Take();
}

void AnUnmountIsDoneInOneRun(Check& check) {
  check.Equal("result", Umount(kData), kOk);
  check.Equal("log", log_lines.Take(), "");
  check.Equal("mounted", Mounted(kData).source, "");
}

void UnmountingNothingTakesSixRunsAndSucceeds(Check& check) {
  const TUint64 begin_ms = OSALTickCount();
  check.Equal("result", Umount(kData), kOk);
  check.That("it waits 3 s", OSALTickCount() - begin_ms >= 3000);
  check.Equal("log", log_lines.Take(), PlainUmountsFailed(kData) + LazyUmountsFailed(kData));
}

// ---- ext2 ----

void Ext2IsRefusedForItsCommitOption(Check& check) {
  const std::string refused =
      "I Trying to mount as EXT2\n" +
      MountsFailed(std::string("mount -t ext2 -o ") + kExt2Options + " " + kSecond + " " + kOther, kOther);
  Occupy(kOther);
  check.Equal("format", Format(kSecond, kOther, IFileHandler::EFormatExt2), kError);
  check.Equal("log of format", log_lines.Take(), refused + "E Error mounting/umounting\n");
  Occupy(kOther);
  check.Equal("check", CheckFS(kSecond, kOther, IFileHandler::EFormatExt2), kError);
  check.Equal("log of check", log_lines.Take(), refused + "E Error mounting/umounting. retVal = 1\n");
  check.Equal("mounted", Mounted(kOther).source, "");
  check.Equal("without the option", Shell("mount -t ext2 " + kSecond + " " + kOther), 0);
  check.Equal("unmount", Umount(kOther), kOk);
}

void Ext2ImageIsMountedThroughALoopDevice(Check& check) {
  mkdir(kImagePoint.c_str(), 0755);
  check.Equal("image", Shell("mkfs.ext2 -q " + kImage + " 4M"), 0);
  check.Equal("result", Mount(kImage, kImagePoint, IFileHandler::EFormatExt2Loopback), kOk);
  check.Equal("log", log_lines.Take(), "I Trying to mount as EXT2 loopback\n");
  const Mounting mounting = Mounted(kImagePoint);
  check.Equal("mounted", mounting.source, "/dev/loop0 ext2");
  check.Equal("missing options", Missing(mounting.options, "rw,nosuid,nodev,noatime"), "");
  check.Equal("program", Shell("cp /usr/bin/true " + kImagePoint + " && " + kImagePoint + "/true"), 0);
  check.Equal("image behind it", ReadFile("/sys/block/loop0/loop/backing_file"), kImage + "\n");
}

void UnmountingAnImageFreesItsLoopDevice(Check& check) {
  check.Equal("result", Umount(kImagePoint), kOk);
  check.Equal("log", log_lines.Take(), "");
  check.That("the loop device is free", !Exists("/sys/block/loop0/loop/backing_file"));
}

// ---- FAT ----

void FatIsNotFormattedByTheToolOfToday(Check& check) {
  Occupy(kOther);
  check.Equal("result", Format(kSecond, kOther, IFileHandler::EFormatFat), kError);
  check.Equal("log", log_lines.Take(),
              Exited("mkdosfs -F32 -I -a256 " + kSecond, 1) + "E Formatting failed. errorsys = 1\n");
  check.Equal("mounted", Mounted(kOther).source, "");
}

void FatIsMounted(Check& check) {
  // A small volume, about the smallest that FAT32 allows: checking takes its time here.
  check.Equal("made", Shell("mkdosfs -F32 -I " + kSecond + " 36000 > /dev/null"), 0);
  check.Equal("result", Mount(kSecond, kOther, IFileHandler::EFormatFat), kOk);
  check.Equal("log", log_lines.Take(), "I Trying to mount as FAT\n");
  const Mounting mounting = Mounted(kOther);
  check.Equal("mounted", mounting.source, kSecond + " vfat");
  check.Equal("missing options", Missing(mounting.options, "rw,nosuid,nodev,noexec,noatime"), "");
  WriteFile(kOther + "/Long name.txt", "content");
}

void FatIsCheckedAndMountedAgain(Check& check) {
  check.Equal("result", CheckFS(kSecond, kOther, IFileHandler::EFormatFat), kOk);
  check.Equal("log", log_lines.Take(), "I Trying to mount as FAT\n");
  check.Equal("file", ReadFile(kOther + "/Long name.txt"), "content");
}

// Sets the mark in the boot sector that the volume was not unmounted cleanly.
bool MarkAsDirty(const std::string& device) {
  constexpr off_t kStateByte = 0x41;
  const int disk = open(device.c_str(), O_WRONLY);
  const bool done = pwrite(disk, "\1", 1, kStateByte) == 1;
  close(disk);
  return done;
}

void ADirtyFatIsCheckedTwiceAndMounted(Check& check) {
  check.Equal("unmount", Umount(kOther), kOk);
  check.That("it is marked as dirty", MarkAsDirty(kSecond));
  Occupy(kOther);
  check.Equal("result", CheckFS(kSecond, kOther, IFileHandler::EFormatFat), kOk);
  check.Equal("log", log_lines.Take(),
              Exited("dosfsck -a -w -v " + kSecond, 1) +
                  "I ------> Recoverable errors have been detected <------\n"
                  "I ------> or dosfsck has discovered an internal inconsistency. <------\n"
                  "I ------> Checking FAT-Movinand again... <------\n"
                  "I Trying to mount as FAT\n");
  check.Equal("file", ReadFile(kOther + "/Long name.txt"), "content");
  check.Equal("unmount", Umount(kOther), kOk);
}

// ---- The document's example ----

void TheDocumentsExampleWorks(Check& check) {
  Occupy(kOther);
  const std::string command = "/peripheral/maintenance_example " + kSecond + " " + kOther + " > /tmp/answer";
  check.Equal("status", Shell(command), 0);
  check.That("it tells the free space", ReadFile("/tmp/answer").find(" KiB are free") != std::string::npos);
  check.Equal("mounted", Mounted(kOther).source, "");
  log_lines.Take();
}

}  // namespace

int main() {
  logging::SetLowestLevel(logging::EInfo);
  logging::SetSink(&log_lines);
  return emulated::RunAll({
      {"Ext3IsFormattedAndMounted", Ext3IsFormattedAndMounted},
      {"Ext3IsRemountedWithItsFiles", Ext3IsRemountedWithItsFiles},
      {"Ext3RunsNoPrograms", Ext3RunsNoPrograms},
      {"Ext3IsCheckedAndMountedAgain", Ext3IsCheckedAndMountedAgain},
      {"ReMountOfWhatIsNotMountedFails", ReMountOfWhatIsNotMountedFails},
      {"SyncSucceedsSilently", SyncSucceedsSilently},
      {"AFolderIsRemovedWithItsContent", AFolderIsRemovedWithItsContent},
      {"AMountPointIsEmptiedButNotRemoved", AMountPointIsEmptiedButNotRemoved},
      {"FreeSpaceIsWhatTheKernelSays", FreeSpaceIsWhatTheKernelSays},
      {"FreeSpaceOfNothingLeavesTheNumber", FreeSpaceOfNothingLeavesTheNumber},
      {"ABusyFileSystemIsUnmountedLazily", ABusyFileSystemIsUnmountedLazily},
      {"AnUnmountIsDoneInOneRun", AnUnmountIsDoneInOneRun},
      {"UnmountingNothingTakesSixRunsAndSucceeds", UnmountingNothingTakesSixRunsAndSucceeds},
      {"Ext2IsRefusedForItsCommitOption", Ext2IsRefusedForItsCommitOption},
      {"Ext2ImageIsMountedThroughALoopDevice", Ext2ImageIsMountedThroughALoopDevice},
      {"UnmountingAnImageFreesItsLoopDevice", UnmountingAnImageFreesItsLoopDevice},
      {"FatIsNotFormattedByTheToolOfToday", FatIsNotFormattedByTheToolOfToday},
      {"FatIsMounted", FatIsMounted},
      {"FatIsCheckedAndMountedAgain", FatIsCheckedAndMountedAgain},
      {"ADirtyFatIsCheckedTwiceAndMounted", ADirtyFatIsCheckedTwiceAndMounted},
      {"TheDocumentsExampleWorks", TheDocumentsExampleWorks},
  });
}
