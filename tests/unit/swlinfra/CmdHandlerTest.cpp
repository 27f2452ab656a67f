// Goal: a command's end becomes the right number and the right line, whatever way it ends.
// Method: real shells where they can be made to end so; for all other ends the raw wait status comes from the
// test in the place of the C library's system().
#include "CmdHandler.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <csignal>

#include "Files.h"
#include "InfraFixture.h"

namespace {

using Command = InfraFixture;

TInt32 Execute(const std::string& command) {
  return ICmdHandler::SystemCmd(AsTChr(command));
}

// ---- Raw wait statuses ----

struct Ending {
  int rawStatus;
  TInt32 result;
  const char* line;  ///< empty: none
};

const Ending kEndings[] = {
    {0x0000, 0, ""},
    {0x0080, 0, ""},
    {0x0100, 1, "Error ('x' exited, result=1)"},
    {0x0180, 1, "Error ('x' exited, result=1)"},
    {0x7f00, 127, "Error ('x' exited, result=127)"},
    {0x8000, 128, "Error ('x' exited, result=128)"},
    {0x8900, 137, "Error ('x' exited, result=137)"},
    {0xc800, 200, "Error ('x' exited, result=200)"},
    {0xff00, 255, "Error ('x' exited, result=255)"},
    {0x0001, 0, "Error ('x' killed by signal 1)"},
    {0x0009, 0, "Error ('x' killed by signal 9)"},
    {0x0089, 0, "Error ('x' killed by signal 9)"},
    {0x008b, 0, "Error ('x' killed by signal 11)"},
    {0x0109, 0, "Error ('x' killed by signal 9)"},
    {0x007e, 0, "Error ('x' killed by signal 126)"},
    {0x007f, 0, "Error ('x' stopped by signal 0)"},
    {0x137f, 0, "Error ('x' stopped by signal 19)"},
    {0x147f, 0, "Error ('x' stopped by signal 20)"},
    {0xff7f, 0, "Error ('x' stopped by signal 255)"},
    {0x00ff, 0, "Error (failed to spawn 'x', sysres=255)"},
    {0xffff, 0, "Error (failed to spawn 'x', sysres=65535)"},
    {-1, 0, "Error (failed to spawn 'x', sysres=-1)"},
};

TEST_F(Command, EveryWaitStatusBecomesItsResultAndItsLine) {
  for (const Ending& ending : kEndings) {
    SCOPED_TRACE(ending.rawStatus);
    system_calls::Answer({ending.rawStatus});
    EXPECT_EQ(Execute("x"), ending.result);
    Lines expected = {"$ x"};
    if (*ending.line != '\0') {
      expected.emplace_back(ending.line);
    }
    EXPECT_EQ(Take(), expected);
  }
}

// ---- Real shells ----

TEST_F(Command, ExitStatusZeroIsSilentAndOthersAreTold) {
  for (const char* command : {"exit 0", "true", "", "exit 256"}) {
    EXPECT_EQ(Execute(command), 0) << command;
    EXPECT_EQ(Take(), (Lines{std::string("$ ") + command}));
  }
  for (const int status : {1, 2, 7, 126, 127, 128, 137, 200, 255}) {
    const std::string command = "exit " + std::to_string(status);
    EXPECT_EQ(Execute(command), status);
    EXPECT_EQ(Take(), Failing(command, status));
  }
}

TEST_F(Command, AShellKilledByASignalCountsAsSuccess) {
  EXPECT_EQ(Execute("kill -9 $$"), 0);
  EXPECT_EQ(Take(), (Lines{"$ kill -9 $$", "Error ('kill -9 $$' killed by signal 9)"}));
  EXPECT_EQ(Execute("ulimit -c 0; kill -SEGV $$"), 0);
  EXPECT_EQ(Take(), (Lines{"$ ulimit -c 0; kill -SEGV $$",
                           "Error ('ulimit -c 0; kill -SEGV $$' killed by signal 11)"}));
}

// Debian's shell, dash, runs a tool as its child even when it is the last one, and tells the child's signal
// as 128 and the number. That is an exit like any other.
TEST_F(Command, AToolKilledByASignalCountsAsFailureUnderAShellThatWaitsForIt) {
  const RecordingTools tools({"umount"});
  tools.Run("umount", {"kill -9 $$"});
  EXPECT_EQ(Execute("umount /media"), 137);
  EXPECT_EQ(Take(), Failing("umount /media", 137));
}

TEST_F(Command, AToolThatKillsItsShellCountsAsSuccess) {
  const RecordingTools tools({"umount"});
  tools.Run("umount", {"kill -9 $PPID"});
  EXPECT_EQ(Execute("umount /media"), 0);
  EXPECT_EQ(Take(), (Lines{"$ umount /media", "Error ('umount /media' killed by signal 9)"}));
}

TEST_F(Command, AToolThatIsMissingOrMayNotRunIsAnExitOfTheShell) {
  EXPECT_EQ(Execute("no-such-tool 2>/dev/null"), 127);
  EXPECT_EQ(Take(), Failing("no-such-tool 2>/dev/null", 127));
  const TemporaryFolder folder;
  const std::string command = folder.Write("text", "no program") + " 2>/dev/null";
  EXPECT_EQ(Execute(command), 126);
  EXPECT_EQ(Take(), Failing(command, 126));
}

TEST_F(Command, ALineThatTheKernelHandsToNoShellIsAnExitWith127) {
  const auto limit = 32U * static_cast<std::size_t>(sysconf(_SC_PAGESIZE));  // of one argument, with its zero
  const std::string longest = "exit 3 #" + std::string(limit - 9, 'x');
  EXPECT_EQ(Execute(longest), 3);
  EXPECT_TRUE(Take() == Failing(longest, 3));
  const std::string tooLong = longest + "x";
  EXPECT_EQ(Execute(tooLong), 127);
  EXPECT_TRUE(Take() == Failing(tooLong, 127));
}

// While it lives the kernel throws children's exit statuses away, so that system() cannot learn them.
class ChildrenIgnored {
 public:
  ChildrenIgnored() : iFormer(std::signal(SIGCHLD, SIG_IGN)) {}
  ~ChildrenIgnored() { std::signal(SIGCHLD, iFormer); }
  ChildrenIgnored(const ChildrenIgnored&) = delete;
  ChildrenIgnored& operator=(const ChildrenIgnored&) = delete;

 private:
  void (*iFormer)(int);
};

TEST_F(Command, AnEndThatNobodyCanLearnIsAFailedSpawnAndCountsAsSuccess) {
  const ChildrenIgnored ignored;
  for (const std::string command : {"exit 0", "exit 5"}) {
    EXPECT_EQ(Execute(command), 0);
    EXPECT_EQ(Take(), (Lines{"$ " + command, "Error (failed to spawn '" + command + "', sysres=-1)"}));
  }
}

TEST_F(Command, ACommandRunsThoughNobodyCanLearnItsEnd) {
  const TemporaryFolder folder;
  {
    const ChildrenIgnored ignored;
    EXPECT_EQ(Execute("echo done >" + folder.Path("file")), 0);
  }
  EXPECT_EQ(ContentOf(folder.Path("file")), "done\n");
}

// ---- The text ----

TEST_F(Command, TheCommandReachesTheShellAndTheLogAsItIs) {
  const std::string commands[] = {
      "exit 1 # it's \"quoted\" `so` $x \\",
      "exit 1 # 100%s %n %d %%",
      "exit 1 # \xe4\xff\x80",
      "exit 1 #  two  blanks  ",
      "false\nexit 1",
      "exit 1 #" + std::string(100'000, '%'),
  };
  for (const std::string& command : commands) {
    EXPECT_EQ(Execute(command), 1);
    EXPECT_EQ(Take(), Failing(command, 1));
  }
}

TEST_F(Command, TheCallersOwnCharactersAreHandedOnOnce) {
  const std::string command = "exit 0";
  std::vector<std::string> seen;
  system_calls::OnCall([&seen](const std::string& text) { seen.push_back(text); });
  system_calls::Answer({0x0900});
  EXPECT_EQ(Execute(command), 9);
  EXPECT_EQ(seen, (Lines{"exit 0"}));
}

TEST_F(Command, LinesOfADroppedLevelAreNotWritten) {
  logging::SetLowestLevel(logging::EAlways);
  EXPECT_EQ(Execute("exit 4"), 4);
  EXPECT_EQ(Take(), (Lines{"$ exit 4"}));
  for (const Ending& ending : kEndings) {
    SCOPED_TRACE(ending.rawStatus);
    system_calls::Answer({ending.rawStatus});
    EXPECT_EQ(Execute("x"), ending.result);
    EXPECT_EQ(Take(), (Lines{"$ x"}));
  }
}

}  // namespace
