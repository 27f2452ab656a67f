// Goal: file operations do what they say or leave things as they were, and existence is told as exactly 0
// or 1. Method: real files in folders of their own; a full disk is played by the process's limit on file
// sizes.
#include "FileSystemUtils.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <cstdlib>
#include <filesystem>

#include "Files.h"
#include "Support.h"

namespace {

Tdes Text(const std::string& text) {
  return Tdes(AsTChr(text));
}

mode_t Permissions(const std::string& path) {
  struct stat status {};
  EXPECT_EQ(stat(path.c_str(), &status), 0) << path;
  return status.st_mode & 07777;
}

dev_t FileSystemOf(const std::string& path) {
  struct stat status {};
  return stat(path.c_str(), &status) == 0 ? status.st_dev : 0;
}

// A writable folder on another file system than /tmp.
std::string OtherFileSystem() {
  for (const char* folder : {"/dev/shm", "/run", "/var/tmp", "."}) {
    if (FileSystemOf(folder) != FileSystemOf("/tmp") && access(folder, W_OK) == 0) {
      return folder;
    }
  }
  return "";
}

// For as long as it lives, no file can grow beyond `size_bytes`: writing fails like on a full disk.
class FullDisk {
 public:
  explicit FullDisk(rlim_t size_bytes) {
    getrlimit(RLIMIT_FSIZE, &iFormer);
    signal(SIGXFSZ, SIG_IGN);
    const rlimit limit{size_bytes, iFormer.rlim_max};
    setrlimit(RLIMIT_FSIZE, &limit);
  }
  ~FullDisk() {
    setrlimit(RLIMIT_FSIZE, &iFormer);
    signal(SIGXFSZ, SIG_DFL);
  }

 private:
  rlimit iFormer{};
};

}  // namespace

class Files : public testing::Test {
 protected:
  const TemporaryFolder iFolder;
  const std::string iFrom = iFolder.Path("from");
  const std::string iTo = iFolder.Path("to");
};

// What a processor with a long of 32 bits sees only if it is asked for.
TEST_F(Files, AFileOfMoreThan31BitsOfBytesExists) {
  WriteFile(iFrom, "");
  std::filesystem::resize_file(iFrom, std::uintmax_t{5} << 30);
  EXPECT_EQ(FileSystemUtils::InternalFileExists(Text(iFrom)), ETrue);
}

TEST_F(Files, AFileFromAfterJanuaryOf2038Exists) {
  WriteFile(iFrom, "");
  ASSERT_EQ(std::system(("touch -d 2040-01-01 " + iFrom).c_str()), 0);
  EXPECT_EQ(FileSystemUtils::InternalFileExists(Text(iFrom)), ETrue);
}

TEST_F(Files, AFileExistsAndAFolderIsNone) {
  WriteFile(iFrom, "");
  EXPECT_EQ(FileSystemUtils::InternalFileExists(Text(iFrom)), ETrue);
  EXPECT_EQ(FileSystemUtils::DirectoryExists(Text(iFrom)), EFalse);
  EXPECT_EQ(FileSystemUtils::InternalFileExists(Text(iFolder.Path(""))), EFalse);
  EXPECT_EQ(FileSystemUtils::DirectoryExists(Text(iFolder.Path(""))), ETrue);
}

TEST_F(Files, WhatIsNotThereIsNeitherFileNorFolderNorWritable) {
  EXPECT_EQ(FileSystemUtils::InternalFileExists(Text(iFrom)), EFalse);
  EXPECT_EQ(FileSystemUtils::DirectoryExists(Text(iFrom)), EFalse);
  EXPECT_EQ(FileSystemUtils::FileWritePerm(Text(iFrom)), EFalse);
  EXPECT_EQ(FileSystemUtils::InternalFileExists(Text("")), EFalse);
}

TEST_F(Files, ADeviceCountsAsAFile) {
  EXPECT_EQ(FileSystemUtils::InternalFileExists(Text("/dev/null")), ETrue);
}

TEST_F(Files, WritePermissionIsWhatTheProcessMayDo) {
  WriteFile(iFrom, "");
  EXPECT_EQ(FileSystemUtils::FileWritePerm(Text(iFrom)), ETrue);
  // Not even root may write here.
  EXPECT_EQ(FileSystemUtils::FileWritePerm(Text("/proc/self/exe/none")), EFalse);
  const int answer = InChild([this] {
    chmod(iFolder.Path("").c_str(), 0755);
    chmod(iFrom.c_str(), 0444);
    if (geteuid() == 0 && seteuid(65534) != 0) {
      return 9;
    }
    return FileSystemUtils::FileWritePerm(Text(iFrom));
  });
  EXPECT_EQ(answer, EFalse);
}

TEST_F(Files, MakesOneFolderButNotItsParents) {
  EXPECT_EQ(FileSystemUtils::CreateDirectory(Text(iFrom)), 0);
  EXPECT_EQ(FileSystemUtils::DirectoryExists(Text(iFrom)), ETrue);
  EXPECT_NE(FileSystemUtils::CreateDirectory(Text(iFrom)), 0);
  EXPECT_NE(FileSystemUtils::CreateDirectory(Text(iFolder.Path("a/b"))), 0);
}

TEST_F(Files, RemovesAFileButNoFolder) {
  WriteFile(iFrom, "");
  EXPECT_EQ(FileSystemUtils::InternalRemoveFile(Text(iFrom)), 0);
  EXPECT_EQ(FileSystemUtils::InternalFileExists(Text(iFrom)), EFalse);
  EXPECT_NE(FileSystemUtils::InternalRemoveFile(Text(iFrom)), 0);
  EXPECT_NE(FileSystemUtils::InternalRemoveFile(Text(iFolder.Path(""))), 0);
}

TEST_F(Files, AMovedFileReplacesItsDestination) {
  WriteFile(iFrom, "new");
  WriteFile(iTo, "older");
  EXPECT_EQ(FileSystemUtils::InternalMoveFile(Text(iFrom), Text(iTo)), 0);
  EXPECT_EQ(ContentOf(iTo), "new");
  EXPECT_EQ(FileSystemUtils::InternalFileExists(Text(iFrom)), EFalse);
  EXPECT_NE(FileSystemUtils::InternalMoveFile(Text(iFrom), Text(iTo)), 0);
  EXPECT_EQ(ContentOf(iTo), "new");
}

TEST_F(Files, AFileMovesToAnotherFileSystem) {
  const std::string other = OtherFileSystem();
  if (other.empty()) {
    GTEST_SKIP() << "this machine has one file system only";
  }
  const TemporaryFolder folder(other);
  WriteFile(iFrom, "content");
  chmod(iFrom.c_str(), 0640);
  EXPECT_EQ(FileSystemUtils::InternalMoveFile(Text(iFrom), Text(folder.Path("to"))), 0);
  EXPECT_EQ(ContentOf(folder.Path("to")), "content");
  EXPECT_EQ(Permissions(folder.Path("to")), 0640u);
  EXPECT_EQ(FileSystemUtils::InternalFileExists(Text(iFrom)), EFalse);
}

TEST_F(Files, AMoveThatCannotBeFinishedKeepsTheFile) {
  const std::string other = OtherFileSystem();
  if (other.empty()) {
    GTEST_SKIP() << "this machine has one file system only";
  }
  const TemporaryFolder folder(other);
  const std::string content(100000, 'x');
  WriteFile(iFrom, content);
  {
    const FullDisk disk(50000);
    EXPECT_NE(FileSystemUtils::InternalMoveFile(Text(iFrom), Text(folder.Path("to"))), 0);
  }
  EXPECT_EQ(ContentOf(iFrom), content);
  EXPECT_EQ(FileSystemUtils::InternalFileExists(Text(folder.Path("to"))), EFalse);
}

TEST_F(Files, ACopyHasContentAndPermissions) {
  std::string content;
  for (int i = 0; i < 100000; ++i) {
    content += static_cast<char>(i % 251);
  }
  WriteFile(iFrom, content);
  chmod(iFrom.c_str(), 0751);
  EXPECT_EQ(FileSystemUtils::InternalCopyFile(Text(iFrom), Text(iTo)), 0);
  EXPECT_EQ(ContentOf(iTo), content);
  EXPECT_EQ(ContentOf(iFrom), content);
  EXPECT_EQ(Permissions(iTo), 0751u);
}

TEST_F(Files, ACopyIsWholeWhenWritesAreInterruptedAndShort) {
  const std::string content = "more than one write takes at a time";
  WriteFile(iFrom, content);
  {
    const HesitantWrites writes;
    EXPECT_EQ(FileSystemUtils::InternalCopyFile(Text(iFrom), Text(iTo)), 0);
  }
  EXPECT_EQ(ContentOf(iTo), content);
}

TEST_F(Files, ACopyReplacesALongerDestination) {
  WriteFile(iFrom, "new");
  WriteFile(iTo, "very much older");
  chmod(iFrom.c_str(), 0600);
  chmod(iTo.c_str(), 0666);
  EXPECT_EQ(FileSystemUtils::InternalCopyFile(Text(iFrom), Text(iTo)), 0);
  EXPECT_EQ(ContentOf(iTo), "new");
  EXPECT_EQ(Permissions(iTo), 0600u);
}

TEST_F(Files, ACopyThatCannotBeFinishedIsRemoved) {
  WriteFile(iFrom, std::string(100000, 'x'));
  {
    const FullDisk disk(50000);
    EXPECT_NE(FileSystemUtils::InternalCopyFile(Text(iFrom), Text(iTo)), 0);
  }
  EXPECT_EQ(FileSystemUtils::InternalFileExists(Text(iTo)), EFalse);
}

TEST_F(Files, CopyingAFileOntoItselfFailsAndKeepsIt) {
  WriteFile(iFrom, "content");
  ASSERT_EQ(link(iFrom.c_str(), iTo.c_str()), 0);
  ASSERT_EQ(symlink(iFrom.c_str(), iFolder.Path("symlink").c_str()), 0);
  for (const std::string& to : {iFrom, iTo, iFolder.Path("symlink")}) {
    EXPECT_NE(FileSystemUtils::InternalCopyFile(Text(iFrom), Text(to)), 0) << to;
    EXPECT_EQ(ContentOf(to), "content") << to;
  }
}

TEST_F(Files, OnlyRegularFilesAreCopiedAndReplaced) {
  ASSERT_EQ(mkfifo(iFrom.c_str(), 0600), 0);
  EXPECT_NE(FileSystemUtils::InternalCopyFile(Text(iFrom), Text(iTo)), 0);
  EXPECT_EQ(FileSystemUtils::InternalFileExists(Text(iTo)), EFalse);
  WriteFile(iTo, "content");
  EXPECT_NE(FileSystemUtils::InternalCopyFile(Text(iTo), Text(iFrom)), 0);
  EXPECT_NE(FileSystemUtils::InternalCopyFile(Text(iTo), Text(iFolder.Path(""))), 0);
  EXPECT_EQ(FileSystemUtils::InternalFileExists(Text(iFrom)), ETrue);
}

TEST_F(Files, CopyingAMissingFileLeavesTheDestination) {
  WriteFile(iTo, "content");
  EXPECT_NE(FileSystemUtils::InternalCopyFile(Text(iFrom), Text(iTo)), 0);
  EXPECT_EQ(ContentOf(iTo), "content");
}
