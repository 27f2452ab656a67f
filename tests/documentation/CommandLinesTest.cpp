// Goal: the command lines that the integrators' document shows are those that run.
// Method: the maintenance runs with DEV and DIR for arguments, in simulated time and without a shell:
// commands are only written down, and unmounting fails so that the lazy one comes too. Each must stand in the
// document between backquotes.
#include <gtest/gtest.h>

#include <set>
#include <string>

#include "CmdHandler.h"
#include "FileHandler.h"
#include "Files.h"
#include "LogCapture.h"

namespace {

std::set<std::string> commands;

constexpr int kFailed = 32 << 8;

}  // namespace

// The executable is linked so that calls of system() come here.
extern "C" int __wrap_system(const char* command) {  // NOLINT(bugprone-reserved-identifier)
  commands.insert(command);
  return std::string(command).rfind("umount", 0) == 0 ? kFailed : 0;
}

namespace {

TEST(CommandLines, StandInTheIntegratorsDocument) {
  const LogCapture quiet;
  const TChr* device = AsTChr("DEV");
  const TChr* folder = AsTChr("DIR");
  for (const auto format : {IFileHandler::EFormatFat, IFileHandler::EFormatExt3, IFileHandler::EFormatExt2,
                            IFileHandler::EFormatExt2Loopback}) {
    IFileHandler::Format(device, folder, format);
    IFileHandler::CheckFS(device, folder, format);
  }
  IFileHandler::RemoveFolder(folder);

  const std::string document = ContentOf(DOCUMENT);
  for (const std::string& command : commands) {
    EXPECT_NE(document.find("`" + command + "`"), std::string::npos) << command;
  }
  constexpr std::size_t kDifferent = 2 + 2 + 3 + 1 + 2 + 4;  // unmount, sync and rm, make, tune, check, mount
  EXPECT_EQ(commands.size(), kDifferent);
}

}  // namespace
