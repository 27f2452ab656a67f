// Goal: the prescribed command lines do with the tools of today what callers are promised.
// Method: e2fsprogs and dosfstools work on image files in a temporary folder. Mounting takes rights that a
// test has not, so umount, mount and sync are tools that only write down how they are called. What the tools
// themselves think of an image is asked of them directly.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "FileHandler.h"
#include "InfraFixture.h"
#include "ScratchFile.h"

namespace {

using testing::HasSubstr;
using testing::Not;

constexpr auto kFat = IFileHandler::EFormatFat;
constexpr auto kExt3 = IFileHandler::EFormatExt3;
constexpr auto kExt2 = IFileHandler::EFormatExt2;
constexpr auto kLoopback = IFileHandler::EFormatExt2Loopback;

constexpr std::uintmax_t kMiB = 1024 * 1024;
const char kMountPoint[] = "/media-y";

// Tools ask back where they find a terminal.
class NoTerminal {
 public:
  NoTerminal() : iFormer(dup(STDIN_FILENO)) {
    const int nothing = open("/dev/null", O_RDONLY | O_CLOEXEC);
    dup2(nothing, STDIN_FILENO);
    close(nothing);
  }
  ~NoTerminal() {
    dup2(iFormer, STDIN_FILENO);
    close(iFormer);
  }
  NoTerminal(const NoTerminal&) = delete;
  NoTerminal& operator=(const NoTerminal&) = delete;

 private:
  int iFormer;
};

struct Ended {
  int status;  ///< -1: killed
  std::string output;
};

// Runs a command past the code under test, both outputs in one and in English.
Ended Execute(const std::string& command) {
  std::FILE* const output = popen(("export LC_ALL=C; " + command + " 2>&1").c_str(), "r");
  Ended ended = {-1, ""};
  if (output == nullptr) {
    return ended;
  }
  std::array<char, 4096> bytes;
  for (std::size_t count; (count = std::fread(bytes.data(), 1, bytes.size(), output)) > 0;) {
    ended.output.append(bytes.data(), count);
  }
  const int status = pclose(output);
  ended.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  return ended;
}

class RealTools : public InfraFixture {
 protected:
  RealTools() {
    // Where Debian keeps the tools, which is in no ordinary user's PATH.
    setenv("PATH", (std::getenv("PATH") + std::string(":/usr/sbin:/sbin")).c_str(), 1);
  }

  void SetUp() override {
    for (const char* tool : {"mkfs.ext2", "mkfs.ext3", "tune2fs", "e2fsck", "dumpe2fs", "debugfs"}) {
      Demand(tool, "e2fsprogs");
    }
    for (const char* tool : {"mkdosfs", "dosfsck"}) {
      Demand(tool, "dosfstools");
    }
  }

  /// A sparse file, which reads as zeros.
  std::string Image(std::uintmax_t bytes) const {
    const std::string path = iFolder.Write("image", "");
    std::filesystem::resize_file(path, bytes);
    return path;
  }

  TInt32 Format(const std::string& image, IFileHandler::TFileSystemFormat format) {
    return IFileHandler::Format(AsTChr(image), AsTChr(kMountPoint), format);
  }
  TInt32 CheckFS(const std::string& image, IFileHandler::TFileSystemFormat format) {
    return IFileHandler::CheckFS(AsTChr(image), AsTChr(kMountPoint), format);
  }

  /// What is logged as an error, since the last call.
  Lines Errors() {
    const Lines errors = iLog.Messages(logging::EError);
    iLog.Clear();
    return errors;
  }

  RecordingTools iTools{{"umount", "mount", "sync"}};
  TemporaryFolder iFolder;

 private:
  static void Demand(const std::string& tool, const std::string& package) {
    ASSERT_EQ(Execute("command -v " + tool).status, 0)
        << tool << " is missing. It is in the Debian package " << package << ": apt-get install " << package
        << ", or run script/bootstrap";
  }

  NoTerminal iNoTerminal;
};

const Lines kUmounted = {"umount|-d|/media-y"};

Lines Mounted(const std::string& type, const std::string& options, const std::string& image) {
  return {"umount|-d|/media-y", "mount|-t|" + type + "|-o|" + options + "|" + image + "|/media-y"};
}
Lines MountedAsExt3(const std::string& image) {
  return Mounted("ext3", "rw,noexec,noatime,nodiratime,nodev,nosuid,data=journal,commit=3600", image);
}
Lines MountedAsExt2(const std::string& image) {
  return Mounted("ext2", "rw,noexec,noatime,nodiratime,nodev,nosuid,commit=3600", image);
}
Lines MountedAsFat(const std::string& image) {
  return Mounted("vfat", "rw,noexec,noatime,nodev,nosuid", image);
}

Lines Failed(const std::string& command, int status, const std::string& consequence) {
  const std::string number = std::to_string(status);
  return {"Error ('" + command + "' exited, result=" + number + ")", "Error (" + consequence + number + ")"};
}

// ---- What an ext file system is, by dumpe2fs ----

class Superblock {
 public:
  explicit Superblock(const std::string& image)
      : iText("\n" + Execute("dumpe2fs -h '" + image + "'").output) {}

  /// "4096" for "Block size".
  std::string Field(const std::string& name) const {
    const std::size_t at = iText.find("\n" + name + ":");
    if (at == std::string::npos) {
      return "no such field";
    }
    const std::size_t begin = iText.find_first_not_of(" \t", at + name.size() + 2);
    return iText.substr(begin, iText.find('\n', begin) - begin);
  }

  /// Whether a word is in a field that holds several.
  bool Has(const std::string& name, const std::string& word) const {
    return (" " + Field(name) + " ").find(" " + word + " ") != std::string::npos;
  }

 private:
  std::string iText;
};

void ExpectFeatures(const Superblock& superblock) {
  for (const char* feature : {"filetype", "sparse_super", "large_file"}) {
    EXPECT_TRUE(superblock.Has("Filesystem features", feature)) << feature;
  }
  for (const char* feature : {"dir_index", "resize_inode", "ext_attr"}) {
    EXPECT_FALSE(superblock.Has("Filesystem features", feature)) << feature;
  }
}

// ---- Format ----

TEST_F(RealTools, FormatMakesExt3AsAsked) {
  const std::string image = Image(104 * kMiB);
  EXPECT_EQ(Format(image, kExt3), 0);
  EXPECT_EQ(Errors(), Lines());
  EXPECT_EQ(iTools.Take(), MountedAsExt3(image));
  const Superblock superblock(image);
  ExpectFeatures(superblock);
  EXPECT_TRUE(superblock.Has("Filesystem features", "has_journal"));
  EXPECT_FALSE(superblock.Has("Filesystem features", "extent"));
  EXPECT_EQ(superblock.Field("Block size"), "4096");
  EXPECT_EQ(superblock.Field("Block count"), "26624");
  EXPECT_EQ(superblock.Field("Reserved block count"), "0");
  EXPECT_EQ(superblock.Field("Inode size"), "128");
  EXPECT_EQ(superblock.Field("Total journal size"), "50M");
  EXPECT_EQ(superblock.Field("Maximum mount count"), "112");
  EXPECT_EQ(superblock.Field("Check interval"), "0 (<none>)");
  EXPECT_TRUE(superblock.Has("Default mount options", "journal_data"));
  EXPECT_EQ(Execute("e2fsck -n -f '" + image + "'").status, 0);
}

TEST_F(RealTools, FormatRefusesExt3WhereItsJournalLeavesTooLittleRoom) {
  const std::string image = Image(103 * kMiB);
  const std::string command =
      "mkfs.ext3 -O ^dir_index,filetype,^resize_inode,^ext_attr,sparse_super,large_file -b 4096 -J size=50 "
      "-m 0 "
      "-I 128 " +
      image;
  EXPECT_EQ(Format(image, kExt3), 1);
  EXPECT_EQ(Errors(), Failed(command, 1, "Formatting failed. errorsys = "));
  EXPECT_EQ(iTools.Take(), kUmounted);
  EXPECT_NE(Execute("dumpe2fs -h '" + image + "'").status, 0) << "a file system was left behind";
  const Ended refusal = Execute(command);
  EXPECT_EQ(refusal.status, 1);
  EXPECT_THAT(refusal.output, HasSubstr("journal size too big for filesystem"));
}

TEST_F(RealTools, FormatMakesExt2AsAsked) {
  const std::string image = Image(16 * kMiB);
  EXPECT_EQ(Format(image, kExt2), 0);
  EXPECT_EQ(Errors(), Lines());
  EXPECT_EQ(iTools.Take(), MountedAsExt2(image));
  const Superblock superblock(image);
  ExpectFeatures(superblock);
  EXPECT_FALSE(superblock.Has("Filesystem features", "has_journal"));
  EXPECT_EQ(superblock.Field("Block size"), "4096");
  EXPECT_EQ(superblock.Field("Block count"), "4096");
  EXPECT_EQ(superblock.Field("Reserved block count"), "204");  // five in a hundred: nobody asks for less
  EXPECT_FALSE(superblock.Has("Default mount options", "journal_data"));
  EXPECT_EQ(Execute("e2fsck -n -f '" + image + "'").status, 0);
}

// The tool's -a took an alignment once; today it takes none, and "256" reads as options that do not exist.
TEST_F(RealTools, FormatOfFatIsRefusedByTheToolOfToday) {
  const std::string image = Image(64 * kMiB);
  const Ended refusal = Execute("mkdosfs -F32 -I -a256 '" + image + "'");
  EXPECT_EQ(refusal.status, 1);
  EXPECT_THAT(refusal.output, HasSubstr("mkdosfs: invalid option -- '2'"));
  for (const auto format : {kFat, kLoopback}) {
    EXPECT_EQ(Format(image, format), 1);
    EXPECT_EQ(Errors(), Failed("mkdosfs -F32 -I -a256 " + image, 1, "Formatting failed. errorsys = "));
    EXPECT_EQ(iTools.Take(), kUmounted);
  }
  EXPECT_TRUE(ContentOf(image) == std::string(64 * kMiB, '\0')) << "the refused image was written to";
  EXPECT_EQ(Execute("mkdosfs -F32 -I -a '" + image + "'").status, 0) << "the number alone is what it refuses";
}

// ---- CheckFS on ext ----

TEST_F(RealTools, CheckFSPassesACleanExtFileSystem) {
  const std::string ext3 = Image(104 * kMiB);
  EXPECT_EQ(Format(ext3, kExt3), 0);
  iTools.Take();
  EXPECT_EQ(CheckFS(ext3, kExt3), 0);
  EXPECT_EQ(iTools.Take(), MountedAsExt3(ext3));
  const std::string ext2 = Image(16 * kMiB);
  EXPECT_EQ(Format(ext2, kExt2), 0);
  iTools.Take();
  EXPECT_EQ(CheckFS(ext2, kExt2), 0);
  EXPECT_EQ(iTools.Take(), MountedAsExt2(ext2));
  EXPECT_EQ(Errors(), Lines());
}

// Bytes in an image, behind the tools' back.
void Overwrite(const std::string& image, std::streamoff offset, const std::string& bytes) {
  std::fstream file(image, std::ios::in | std::ios::out | std::ios::binary);
  file.seekp(offset).write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
}

TEST_F(RealTools, CheckFSFailsAnExtFileSystemThatItRepairsAndPassesItTheNextTime) {
  const struct {
    IFileHandler::TFileSystemFormat format;
    std::uintmax_t size;
    Lines (*mounted)(const std::string&);
  } cases[] = {{kExt2, 16 * kMiB, MountedAsExt2}, {kExt3, 104 * kMiB, MountedAsExt3}};
  for (const auto& test : cases) {
    const std::string image = Image(test.size);
    EXPECT_EQ(Format(image, test.format), 0);
    iTools.Take();
    Overwrite(image, 1024 + 12, {'\1', '\0'});  // a wrong number of free blocks
    EXPECT_EQ(CheckFS(image, test.format), 1);
    EXPECT_EQ(Errors(), Failed("e2fsck -p -f " + image, 1, "Checking failed. errorsys = "));
    EXPECT_EQ(iTools.Take(), kUmounted);
    EXPECT_EQ(CheckFS(image, test.format), 0);
    EXPECT_EQ(Errors(), Lines());
    EXPECT_EQ(iTools.Take(), test.mounted(image));
  }
}

TEST_F(RealTools, CheckFSFailsAnExtFileSystemThatItDaresNotRepair) {
  const std::string image = Image(16 * kMiB);
  EXPECT_EQ(Format(image, kExt2), 0);
  EXPECT_EQ(Execute("debugfs -w -R 'clri <2>' '" + image + "'").status, 0);  // no root folder any more
  iTools.Take();
  for (int check = 0; check < 2; ++check) {
    EXPECT_EQ(CheckFS(image, kExt2), 1);
    EXPECT_EQ(Errors(), Failed("e2fsck -p -f " + image, 4, "Checking failed. errorsys = "));
    EXPECT_EQ(iTools.Take(), kUmounted);
  }
}

TEST_F(RealTools, CheckFSFailsWhatIsNoFileSystem) {
  const std::string image = Image(16 * kMiB);
  EXPECT_EQ(CheckFS(image, kExt3), 1);
  EXPECT_EQ(Errors(), Failed("e2fsck -p -f " + image, 8, "Checking failed. errorsys = "));
  const Lines fat = Failed("dosfsck -a -w -v " + image, 1, "Checking failed. errorsys = ");
  EXPECT_EQ(CheckFS(image, kFat), 1);
  EXPECT_EQ(Errors(), (Lines{fat[0], fat[0], fat[1]})) << "the tool's status 1 is taken for a repair";
  EXPECT_EQ(iTools.Take(), Repeated(2, kUmounted));
}

// ---- CheckFS on FAT ----

TEST_F(RealTools, CheckFSPassesACleanFatFileSystemAtOnce) {
  const std::string image = Image(64 * kMiB);
  EXPECT_EQ(Execute("mkdosfs -F32 -I '" + image + "'").status, 0);
  EXPECT_EQ(CheckFS(image, kFat), 0);
  EXPECT_EQ(Take(), (Lines{
                        "Interface IFileHandler::CheckFS (Device: " + image +
                            ", MountPoint: /media-y, FileSystemFormat: 0)",
                        "$ umount -d /media-y",
                        "$ dosfsck -a -w -v " + image,
                        "Interface IFileHandler::Mount (Device: " + image +
                            ", MountPoint: /media-y, FileSystemFormat: 0)",
                        "Info (Trying to mount as FAT)",
                        "$ mount -t vfat -o rw,noexec,noatime,nodev,nosuid " + image + " /media-y",
                    }));
  EXPECT_EQ(iTools.Take(), MountedAsFat(image));
}

TEST_F(RealTools, CheckFSPassesADirtyFatFileSystemInItsSecondPass) {
  const std::string image = Image(64 * kMiB);
  EXPECT_EQ(Execute("mkdosfs -F32 -I '" + image + "'").status, 0);
  Overwrite(image, 0x41, {'\1'});  // it was not unmounted
  EXPECT_EQ(CheckFS(image, kFat), 0);
  EXPECT_EQ(Take(), (Lines{
                        "Interface IFileHandler::CheckFS (Device: " + image +
                            ", MountPoint: /media-y, FileSystemFormat: 0)",
                        "$ umount -d /media-y",
                        "$ dosfsck -a -w -v " + image,
                        "Error ('dosfsck -a -w -v " + image + "' exited, result=1)",
                        "Info (------> Recoverable errors have been detected <------)",
                        "Info (------> or dosfsck has discovered an internal inconsistency. <------)",
                        "Info (------> Checking FAT-Movinand again... <------)",
                        "$ dosfsck -a -w -v " + image,
                        "Interface IFileHandler::Mount (Device: " + image +
                            ", MountPoint: /media-y, FileSystemFormat: 0)",
                        "Info (Trying to mount as FAT)",
                        "$ mount -t vfat -o rw,noexec,noatime,nodev,nosuid " + image + " /media-y",
                    }));
  EXPECT_EQ(iTools.Take(), MountedAsFat(image));
  EXPECT_EQ(Execute("dosfsck -n '" + image + "'").status, 0);
}

// ---- Removing folders ----

class RealRm : public RealTools {
 protected:
  // The path goes to a shell unquoted and behind rm -rf: nothing in it may mean something to a shell.
  void SetUp() override {
    RealTools::SetUp();
    ASSERT_EQ(iFolder.Path().find_first_not_of(
                  "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789/_-."),
              std::string::npos)
        << "set TMPDIR to a folder with a plain name, not as in " << iFolder.Path();
  }

  std::string Tree(const std::string& name) const {
    const std::string folder = iFolder.Path(name);
    std::filesystem::create_directories(folder + "/sub/sub");
    iFolder.Write(name + "/sub/file", "text");
    return folder;
  }
};

TEST_F(RealRm, RemoveFolderRemovesATreeAndNothingBesides) {
  const std::string folder = Tree("a");
  const std::string other = Tree("b");
  EXPECT_EQ(IFileHandler::RemoveFolder(AsTChr(folder)), 0);
  EXPECT_FALSE(std::filesystem::exists(folder));
  EXPECT_TRUE(std::filesystem::exists(other + "/sub/file"));
  EXPECT_EQ(IFileHandler::RemoveFolder(AsTChr(folder)), 0) << "what is not there counts as removed";
  EXPECT_EQ(Errors(), Lines());
}

TEST_F(RealRm, RemoveFolderTakesBlanksForSeveralFolders) {
  const std::string first = Tree("a");
  const std::string second = Tree("b");
  const std::string together = Tree("a " + iFolder.Path("b"));
  EXPECT_EQ(IFileHandler::RemoveFolder(AsTChr(together)), 0);
  EXPECT_FALSE(std::filesystem::exists(first));
  EXPECT_FALSE(std::filesystem::exists(second));
  EXPECT_TRUE(std::filesystem::exists(together)) << "the one folder that was meant";
  EXPECT_EQ(Errors(), Lines());
}

TEST_F(RealRm, RemoveFolderTellsWhatCannotBeRemoved) {
  const std::string folder = iFolder.Path(std::string(256, 'n'));  // longer than a name may be
  EXPECT_EQ(IFileHandler::RemoveFolder(AsTChr(folder)), 1);
  EXPECT_EQ(Errors(), (Lines{"Error ('rm -rf " + folder + "' exited, result=1)",
                             "Error (The folder \"" + folder + "\" could not be removed)"}));
}

// ---- Free space ----

// The fourth word of the second line of df's output: free space changes all the time, so both look at the
// same.
TEST_F(RealTools, AvailableSpaceIsDfsFourthColumn) {
  const ScratchFile scratchFile;
  const std::string output = Execute("df").output;
  std::istringstream lines(output.substr(output.find('\n') + 1));
  std::string fileSystem;
  std::string skipped;
  std::uint64_t available = 0;
  ASSERT_TRUE(lines >> fileSystem >> skipped >> skipped >> available) << output;
  const RecordingTools df({"df"});
  df.Run("df", {"cat '" + iFolder.Write("output", output) + "'"});
  TUint32 space = 0xdeadbeef;
  EXPECT_EQ(IFileHandler::AvailableSpace(AsTChr("^" + fileSystem), &space), 0);
  EXPECT_EQ(space, static_cast<TUint32>(available));
  EXPECT_EQ(Errors(), Lines());
}

}  // namespace
