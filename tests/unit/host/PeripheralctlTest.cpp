// Goal: whoever calls peripheralctl learns from exit code, output and log what happened, whatever the module
// does. Method: the program as a process, with a module that plays the part its feature id names. Output is
// read from a pipe or a pseudo-terminal, or left in a pipe that is full from the start.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <fstream>
#include <functional>
#include <optional>
#include <sstream>
#include <thread>
#include <tuple>

#include "Files.h"
#include "JsonSchema.h"
#include "PseudoTerminal.h"

namespace {

using testing::AllOf;
using testing::EndsWith;
using testing::HasSubstr;
using testing::Not;

// Waits for what must happen soon. Whether it did.
bool Soon(const std::function<bool()>& happened) {
  constexpr std::chrono::seconds kSoon(20);
  const auto deadline = std::chrono::steady_clock::now() + kSoon;
  while (!happened()) {
    if (std::chrono::steady_clock::now() > deadline) {
      return false;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return true;
}

// Where a program's outputs go: standard error to a file unless both go to the same place.
enum class Output {
  Pipe,
  Socket,
  Terminal,
  TerminalForBoth,
  FullPipe,
  FullPipeWithoutWaiting,
  FullPipeForBoth,
  FullDisk,
  None
};

// What else is to be different.
enum class Twist {
  None,
  OutputsSwapped,  // standard error goes where the output would, which goes to the file of errors
  SignalsIgnored
};

// The program while it runs.
class Process {
 public:
  Process(std::vector<std::string> arguments, std::string errorFile, Output output = Output::Pipe,
          Twist twist = Twist::None)
      : iErrorFile(std::move(errorFile)) {
    std::vector<char*> argv;
    arguments.insert(arguments.begin(), PERIPHERALCTL);
    for (std::string& argument : arguments) {
      argv.push_back(argument.data());
    }
    argv.push_back(nullptr);
    const bool isForBoth = output == Output::FullPipeForBoth || output == Output::TerminalForBoth;
    const int out = Open(output);
    const int error = open(iErrorFile.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    iPid = fork();
    if (iPid == 0) {
      setenv("TERM", "xterm", 1);
      setenv("NO_COLOR", "1", 1);
      // Whoever runs the tests may ignore them, which the program would then do too.
      for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
        std::signal(signal, twist == Twist::SignalsIgnored ? SIG_IGN : SIG_DFL);
      }
      const bool isSwapped = twist == Twist::OutputsSwapped;
      dup2(isSwapped ? error : out, STDOUT_FILENO);
      dup2(isSwapped || isForBoth ? out : error, STDERR_FILENO);
      if (output == Output::None) {
        close(STDOUT_FILENO);
      }
      execv(PERIPHERALCTL, argv.data());
      _exit(99);
    }
    close(out);
    close(error);
  }

  Process(const Process&) = delete;
  Process& operator=(const Process&) = delete;

  ~Process() {
    if (iPid > 0) {
      kill(iPid, SIGKILL);
      waitpid(iPid, nullptr, 0);
    }
    CloseOutput();
  }

  void CloseOutput() {
    if (iOutput >= 0) {
      close(iOutput);
      iOutput = -1;
    }
  }

  void ReadUntil(const std::string& text) {
    while (iOut.find(text) == std::string::npos) {
      ASSERT_TRUE(ReadSome()) << "'" << text << "' never came; read " << iOut << Err();
    }
  }

  void Signal(int signal) const { kill(iPid, signal); }

  int Wait() {
    while (iOutput >= 0 && ReadSome()) {
    }
    int status = 0;
    waitpid(iPid, &status, 0);
    iPid = -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : 1000 + WTERMSIG(status);
  }

  // For a program whose output is not read. Its exit code, or nothing when it goes on.
  std::optional<int> WaitUnread() {
    int status = 0;
    if (!Soon([&] { return waitpid(iPid, &status, WNOHANG) == iPid; })) {
      return std::nullopt;
    }
    iPid = -1;
    return WEXITSTATUS(status);
  }

  const std::string& Out() const { return iOut; }
  std::string Err() const { return ContentOf(iErrorFile); }

 private:
  int Open(Output output) {
    switch (output) {
      case Output::Terminal:
      case Output::TerminalForBoth:
        return OpenTerminal();
      case Output::FullDisk:
        return open("/dev/full", O_WRONLY | O_CLOEXEC);
      case Output::FullPipe:
      case Output::FullPipeForBoth:
        return Fill(OpenPipe(), 0);
      case Output::FullPipeWithoutWaiting:
        return Fill(OpenPipe(), O_NONBLOCK);
      case Output::Socket:
        return OpenSocket();
      case Output::Pipe:
      case Output::None:
        break;
    }
    return OpenPipe();
  }

  int OpenPipe() {
    int ends[2] = {-1, -1};
    EXPECT_EQ(pipe2(ends, O_CLOEXEC), 0);
    iOutput = ends[0];
    return ends[1];
  }

  int OpenSocket() {
    int ends[2] = {-1, -1};
    EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
    iOutput = ends[0];
    return ends[1];
  }

  static int Fill(int pipe, int flags) {
    fcntl(pipe, F_SETFL, O_NONBLOCK);
    while (write(pipe, "x", 1) == 1) {
    }
    fcntl(pipe, F_SETFL, flags);
    return pipe;
  }

  int OpenTerminal() {
    iOutput = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
    EXPECT_EQ(unlockpt(iOutput), 0);
    return open(ptsname(iOutput), O_RDWR | O_NOCTTY | O_CLOEXEC);
  }

  bool ReadSome() {
    char bytes[512];
    const ssize_t count = read(iOutput, bytes, sizeof(bytes));
    iOut.append(bytes, count > 0 ? static_cast<std::size_t>(count) : 0);
    return count > 0;
  }

  std::string iErrorFile;
  std::string iOut;
  int iOutput = -1;
  pid_t iPid = -1;
};

class Peripheralctl : public testing::Test {
 protected:
  std::vector<std::string> Command(const std::string& command, const std::string& part,
                                   const std::vector<std::string>& more = {}) {
    iFolder.Write("image", "image");
    const std::string config = iFolder.Write("config.toml", "library = \"" FAKE_MODULES
                                                            "FakeModule.so\"\n"
                                                            "[properties]\n"
                                                            "updatelist = \"sanyoxmodem\"\n"
                                                            "xmodemsource-image = \"image\"\n"
                                                            "xmodemspeed = 115200\n"
                                                            "xmodemportname = \"" +
                                                                iPort.Name() + "\"\n");
    std::vector<std::string> arguments = {command, "--config", config, "--feature-id", part};
    arguments.insert(arguments.end(), more.begin(), more.end());
    return arguments;
  }

  std::string ErrorFile() const { return iFolder.Path("stderr"); }

  TemporaryFolder iFolder;
  PseudoTerminal iPort;
};

TEST_F(Peripheralctl, AnUpdateThatSucceedsShowsMilestonesAndProgress) {
  Process process(Command("update", "succeeds"), ErrorFile());
  EXPECT_EQ(process.Wait(), 0);
  EXPECT_EQ(process.Err(), "");
  EXPECT_THAT(process.Out(), testing::StartsWith("Preparing: "));
  EXPECT_THAT(process.Out(), HasSubstr("Progress: 0 %\nProgress: 10 %\nProgress: 37 %\nProgress: 99 %\n"));
  EXPECT_THAT(process.Out(), HasSubstr("\nStarting upload in fake\n"));
  EXPECT_THAT(process.Out(), HasSubstr("\nFinished upload in fake\n"));
  EXPECT_THAT(process.Out(), EndsWith("Progress: 100 %\nThe update has succeeded.\n"));
}

TEST_F(Peripheralctl, APreparationSendsNothing) {
  Process process(Command("prepare", "succeeds"), ErrorFile());
  EXPECT_EQ(process.Wait(), 0);
  EXPECT_THAT(process.Out(),
              AllOf(HasSubstr("The preparation has succeeded"), Not(HasSubstr("Starting upload"))));
}

TEST_F(Peripheralctl, ATerminalGetsABar) {
  Process process(Command("update", "succeeds"), ErrorFile(), Output::Terminal);
  EXPECT_EQ(process.Wait(), 0);
  EXPECT_THAT(process.Out(),
              HasSubstr("\r\x1b[K[##################################################]  100 %"));
}

// What a terminal shows of a text: a line that is cleared leaves nothing.
std::string Shown(const std::string& bytes) {
  constexpr std::string_view kClear = "\r\x1b[K";
  std::string shown;
  for (std::size_t at = 0; at < bytes.size(); ++at) {
    if (bytes.compare(at, kClear.size(), kClear) == 0) {
      shown.erase(shown.rfind('\n') + 1);
      at += kClear.size() - 1;
    } else if (bytes[at] != '\r') {
      shown += bytes[at];
    }
  }
  return shown;
}

TEST_F(Peripheralctl, TheLogStandsAboveTheBar) {
  Process process(Command("update", "logs", {"--log-level", "info"}), ErrorFile(), Output::TerminalForBoth);
  EXPECT_EQ(process.Wait(), 0);
  std::istringstream lines(Shown(process.Out()));
  int logged = 0;
  int bars = 0;
  for (std::string line; std::getline(lines, line);) {
    bars += line.front() == '[' ? 1 : 0;
    if (line.find("Line of the log") != std::string::npos) {
      ++logged;
      EXPECT_THAT(line, testing::MatchesRegex("[-0-9 :.]+ Info +[A-Za-z]+ .*"));
    }
  }
  EXPECT_EQ(logged, 200);
  EXPECT_EQ(bars, 1);
  EXPECT_THAT(Shown(process.Out()), EndsWith("]  100 %\nThe update has succeeded.\n"));
}

TEST_F(Peripheralctl, AFailedPreparationGivesTheReasonOnce) {
  for (const char* command : {"prepare", "update"}) {
    Process process(Command(command, "prepare-fails"), ErrorFile());
    EXPECT_EQ(process.Wait(), 5);
    EXPECT_EQ(process.Err(),
              "The preparation failed.\nReasons given, oldest first:\n"
              "  - Cannot use serial port /dev/fake: another program holds it\n"
              "Correct what is named above and run the command again.\nNothing was written to the device.\n");
  }
}

TEST_F(Peripheralctl, AFailedUpdateGivesTheReason) {
  Process process(Command("update", "install-fails"), ErrorFile());
  EXPECT_EQ(process.Wait(), 6);
  EXPECT_THAT(process.Err(),
              AllOf(HasSubstr("The update failed.\n"), HasSubstr("  - The device answered 013\n"),
                    HasSubstr("incomplete image")));
}

TEST_F(Peripheralctl, AnUpdateThatCannotStartSaysThatNothingWasSent) {
  Process process(Command("update", "cannot-start"), ErrorFile());
  EXPECT_EQ(process.Wait(), 6);
  EXPECT_THAT(process.Err(),
              AllOf(HasSubstr("The update failed.\n"), EndsWith("Nothing was written to the device.\n")));
}

TEST_F(Peripheralctl, AFileThatChangesDuringTheUpdateMakesItFail) {
  Process process(Command("update", "file-changes"), ErrorFile());
  EXPECT_EQ(process.Wait(), 9);
  EXPECT_THAT(process.Out(), Not(HasSubstr("The update has succeeded.")));
  EXPECT_THAT(process.Err(), AllOf(HasSubstr("xmodemsource-image: the file '" + iFolder.Path("image") + "'"),
                                   HasSubstr("Wait until the file is finished, then update with it.")));
}

TEST_F(Peripheralctl, AFileThatChangedIsNotSentAgain) {
  const std::string log = iFolder.Path("log");
  Process process(
      Command("update", "fails-and-changes",
              {"--retries", "3", "--retry-pause", "0", "--log-file", log, "--log-level", "always"}),
      ErrorFile());
  EXPECT_EQ(process.Wait(), 9);
  EXPECT_THAT(process.Err(), HasSubstr("Wait until the file is finished, then update with it."));
  const std::string content = ContentOf(log);
  const std::size_t first = content.find("SWL: Starting upload in fake");
  EXPECT_NE(first, std::string::npos);
  EXPECT_EQ(content.find("SWL: Starting upload in fake", first + 1), std::string::npos) << content;
}

TEST_F(Peripheralctl, AFileThatChangesAfterAPreparationIsFine) {
  Process process(Command("prepare", "file-changes"), ErrorFile());
  EXPECT_EQ(process.Wait(), 0);
}

TEST_F(Peripheralctl, ASilentModuleIsGivenUp) {
  for (const char* part : {"never-announces", "never-answers"}) {
    Process process(Command("update", part, {"--timeout", "1"}), ErrorFile());
    EXPECT_EQ(process.Wait(), 8) << part;
    EXPECT_THAT(process.Err(), HasSubstr("No result in time")) << part;
  }
}

TEST_F(Peripheralctl, ASilentUpdateIsGivenUpAtItsStepAndNotTriedAgain) {
  Process process(Command("update", "waits-for-abort", {"--timeout", "1", "--retries", "2"}), ErrorFile());
  EXPECT_EQ(process.Wait(), 8);
  EXPECT_THAT(process.Err(),
              HasSubstr("\nSanyo device, before the first step: no sign of life in time [no-result]\n"));
  EXPECT_THAT(process.Out(), Not(HasSubstr("attempt")));
}

TEST_F(Peripheralctl, AModuleThatHangsIsGivenUp) {
  Process process(Command("update", "hangs", {"--timeout", "1"}), ErrorFile());
  EXPECT_EQ(process.Wait(), 8);
  EXPECT_THAT(process.Err(), HasSubstr("No result in time"));
}

TEST_F(Peripheralctl, CtrlCAbortsAndSaysWhatThatMeans) {
  for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
    Process process(Command("update", "waits-for-abort"), ErrorFile());
    process.ReadUntil("Progress: 42 %");
    process.Signal(signal);
    EXPECT_EQ(process.Wait(), 7);
    EXPECT_THAT(process.Out(), HasSubstr("Aborting."));
    EXPECT_EQ(process.Err(), "Aborted.\nThe device may hold an incomplete image: run the update again.\n");
  }
}

TEST_F(Peripheralctl, WhatItsStarterIgnoresAbortsNothing) {
  Process process(Command("update", "waits-for-abort", {"--timeout", "1"}), ErrorFile(), Output::Pipe,
                  Twist::SignalsIgnored);
  process.ReadUntil("Progress: 42 %");
  for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
    process.Signal(signal);
  }
  EXPECT_EQ(process.Wait(), 8);
  EXPECT_THAT(process.Out(), Not(HasSubstr("Aborting.")));
}

TEST_F(Peripheralctl, ASecondCtrlCExitsAtOnce) {
  Process process(Command("update", "ignores-abort", {"--timeout", "3600"}), ErrorFile());
  process.ReadUntil("Progress: 42 %");
  process.Signal(SIGINT);
  process.ReadUntil("Aborting.");
  process.Signal(SIGINT);
  EXPECT_EQ(process.Wait(), 7);
  EXPECT_THAT(process.Err(), HasSubstr("Exiting at once. The device may hold an incomplete image"));
}

TEST_F(Peripheralctl, ASecondCtrlCWhilePreparingSaysThatNothingWasSent) {
  Process process(Command("update", "hangs", {"--timeout", "3600"}), ErrorFile());
  process.ReadUntil("Preparing");
  process.Signal(SIGINT);
  process.ReadUntil("Aborting.");
  process.Signal(SIGINT);
  EXPECT_EQ(process.Wait(), 7);
  EXPECT_EQ(process.Err(), "\nExiting at once. Nothing was written to the device.\n");
}

TEST_F(Peripheralctl, AnOutputThatTakesNothingKeepsNeitherCtrlCFromTheModuleNorASecondOneFromTheProgram) {
  const std::string log = iFolder.Path("log");
  Process process(Command("update", "waits-for-abort", {"--log-file", log}), ErrorFile(),
                  Output::FullPipeForBoth);
  ASSERT_TRUE(Soon([&] { return ContentOf(log).find("Starting upload in fake") != std::string::npos; }));
  process.Signal(SIGTERM);
  EXPECT_TRUE(Soon([&] { return ContentOf(log).find("Fake module is deleted") != std::string::npos; }));
  process.Signal(SIGTERM);
  EXPECT_EQ(process.WaitUnread(), 7);
}

TEST_F(Peripheralctl, AnOutputThatTakesNothingDoesNotKeepTimeFromRunningOut) {
  const std::string log = iFolder.Path("log");
  Process process(Command("update", "never-answers", {"--log-file", log, "--timeout", "1"}), ErrorFile(),
                  Output::FullPipe);
  EXPECT_TRUE(Soon([&] { return ContentOf(log).find("Fake module is deleted") != std::string::npos; }));
  EXPECT_EQ(process.Wait(), 8);
}

TEST_F(Peripheralctl, TwoCtrlCAfterAGoodEndAreStillASuccess) {
  const std::string log = iFolder.Path("log");
  Process process(Command("update", "succeeds", {"--log-file", log}), ErrorFile(), Output::FullPipe);
  ASSERT_TRUE(Soon([&] { return ContentOf(log).find("Fake module is deleted") != std::string::npos; }));
  process.Signal(SIGINT);
  process.Signal(SIGTERM);
  EXPECT_EQ(process.WaitUnread(), 0);
  EXPECT_EQ(process.Err(), "\nExiting at once. The update has succeeded.\n");
}

TEST_F(Peripheralctl, TwoCtrlCBeforeARunIsRecordedAreNoWholeSuccess) {
  const std::string log = iFolder.Path("log");
  Process process(Command("update", "succeeds", {"--log-file", log, "--report", iFolder.Path("r.json")}),
                  ErrorFile(), Output::FullPipe);
  ASSERT_TRUE(Soon([&] { return ContentOf(log).find("Fake module is deleted") != std::string::npos; }));
  process.Signal(SIGINT);
  process.Signal(SIGTERM);
  EXPECT_EQ(process.WaitUnread(), 12);
  EXPECT_EQ(process.Err(),
            "\nExiting at once. The update has succeeded.\nWhat was to be recorded of it is incomplete.\n");
}

TEST_F(Peripheralctl, AFileThatChangesAfterTheEndChangesNothing) {
  const std::string log = iFolder.Path("log");
  Process process(Command("update", "succeeds", {"--log-file", log}), ErrorFile(), Output::FullPipe);
  ASSERT_TRUE(Soon([&] { return ContentOf(log).find("Fake module is deleted") != std::string::npos; }));
  iFolder.Write("image", "another image");
  EXPECT_EQ(process.Wait(), 0);
}

TEST_F(Peripheralctl, AnAbortWithoutAnAnswerIsGivenUp) {
  Process process(Command("update", "ignores-abort", {"--timeout", "1"}), ErrorFile());
  process.ReadUntil("Progress: 42 %");
  process.Signal(SIGINT);
  EXPECT_EQ(process.Wait(), 8);
}

TEST_F(Peripheralctl, AReaderThatGoesAwayDoesNotEndTheUpdate) {
  for (const Output output : {Output::Pipe, Output::Socket, Output::Terminal}) {
    const std::string log = iFolder.Path("log" + std::to_string(static_cast<int>(output)));
    Process process(Command("update", "succeeds", {"--log-file", log}), ErrorFile(), output);
    process.CloseOutput();
    EXPECT_EQ(process.Wait(), 0) << process.Err();
    EXPECT_THAT(ContentOf(log), HasSubstr("SWL: Finished upload in fake"));
  }
}

TEST_F(Peripheralctl, AnOutputThatIsFullAndSetNotToWaitIsWaitedForAllTheSame) {
  const std::string log = iFolder.Path("log");
  Process process(Command("update", "succeeds", {"--log-file", log}), ErrorFile(),
                  Output::FullPipeWithoutWaiting);
  ASSERT_TRUE(Soon([&] { return ContentOf(log).find("SWL: Finished upload in fake") != std::string::npos; }));
  EXPECT_EQ(process.Wait(), 0) << process.Err();
  EXPECT_THAT(process.Out(), AllOf(HasSubstr("xPreparing: "), EndsWith("The update has succeeded.\n")));
}

TEST_F(Peripheralctl, WhatCouldNotBeSaidIsNoSuccess) {
  const std::string trace = iFolder.Path("trace");
  EXPECT_EQ(Process(Command("update", "succeeds", {"--trace", trace}), ErrorFile()).Wait(), 0);
  for (const Output output : {Output::FullDisk, Output::None}) {
    for (const std::vector<std::string>& arguments : {Command("prepare", "succeeds"),
                                                      Command("update", "succeeds"),
                                                      Command("update", "succeeds", {"--json"}),
                                                      {"trace", "show", trace},
                                                      {"ports"},
                                                      {"--version"},
                                                      {"--help"}}) {
      Process process(arguments, ErrorFile(), output);
      EXPECT_EQ(process.Wait(), 12) << arguments[0];
      EXPECT_EQ(
          process.Err(),
          "peripheralctl: what was to be said on standard output could not be written. Is the disk full?\n");
    }
  }
}

TEST_F(Peripheralctl, NothingThatIsOpenedGetsWhatIsWrittenToAClosedOutput) {
  const std::string trace = iFolder.Path("trace");
  Process process(Command("update", "succeeds", {"--trace", trace}), ErrorFile(), Output::None);
  EXPECT_EQ(process.Wait(), 12);
  EXPECT_THAT(ContentOf(trace), Not(HasSubstr("Preparing")));
  EXPECT_EQ(Process({"trace", "show", trace}, ErrorFile()).Wait(), 0);
}

TEST_F(Peripheralctl, AnUpdateThatCannotSayAnythingGoesOnToItsEndWhichCounts) {
  const std::string log = iFolder.Path("log");
  Process good(Command("update", "succeeds", {"--log-file", log}), ErrorFile(), Output::FullDisk);
  EXPECT_EQ(good.Wait(), 12);
  EXPECT_THAT(ContentOf(log), HasSubstr("SWL: Finished upload in fake"));
  Process bad(Command("update", "install-fails"), ErrorFile(), Output::FullDisk);
  EXPECT_EQ(bad.Wait(), 6);
  EXPECT_THAT(bad.Err(), AllOf(HasSubstr("The update failed."), HasSubstr("could not be written")));
}

TEST_F(Peripheralctl, TheModuleIsDeletedBeforeTheLogEnds) {
  const std::string log = iFolder.Path("log");
  Process process(Command("update", "succeeds", {"--log-file", log}), ErrorFile());
  EXPECT_EQ(process.Wait(), 0);
  EXPECT_THAT(ContentOf(log), EndsWith("(Fake module is deleted)\n"));
}

TEST_F(Peripheralctl, ALogLevelWithoutAFileLogsToStandardError) {
  Process process(Command("update", "succeeds", {"--log-level", "always"}), ErrorFile());
  EXPECT_EQ(process.Wait(), 0);
  EXPECT_THAT(process.Err(), AllOf(HasSubstr("Always PeripheralLoader"), Not(HasSubstr("Info"))));
}

TEST_F(Peripheralctl, ALogOnAStandardErrorThatIsNotToWaitWaitsAllTheSame) {
  Process process(Command("update", "install-fails", {"--log-level", "always"}), ErrorFile(),
                  Output::FullPipeWithoutWaiting, Twist::OutputsSwapped);
  ASSERT_TRUE(Soon([&] { return process.Err().find("Preparing") != std::string::npos; }));
  // For the first line to be refused.
  std::this_thread::sleep_for(std::chrono::milliseconds(200));
  EXPECT_EQ(process.Wait(), 6);
  EXPECT_THAT(process.Out(), AllOf(HasSubstr("Always PeripheralLoader"), HasSubstr("The update failed.")));
}

TEST_F(Peripheralctl, ALogThatStandardErrorDoesNotTakeIsExitCode12) {
  const auto withLog = [this] { return Command("update", "succeeds", {"--log-level", "always"}); };
  Process full(withLog(), ErrorFile(), Output::FullDisk, Twist::OutputsSwapped);
  EXPECT_EQ(full.Wait(), 12);
  Process unread(withLog(), ErrorFile(), Output::Pipe, Twist::OutputsSwapped);
  unread.CloseOutput();
  EXPECT_EQ(unread.Wait(), 0);
}

TEST_F(Peripheralctl, ALogFileThatCannotBeWrittenIsReportedOnce) {
  Process process(Command("update", "succeeds", {"--log-file", "/dev/full"}), ErrorFile());
  EXPECT_EQ(process.Wait(), 12);
  EXPECT_EQ(
      process.Err(),
      "peripheralctl: the log file '/dev/full' is incomplete: No space left on device. Is the disk full?\n");
}

TEST_F(Peripheralctl, WhatCouldNotBeWrittenIsExitCode12AndAWarningOfItsOwn) {
  for (const auto& [option, code] : {std::pair("--log-file", "log"), std::pair("--trace", "trace")}) {
    Process process(Command("update", "succeeds", {option, "/dev/full", "--json"}), ErrorFile());
    EXPECT_EQ(process.Wait(), 12);
    EXPECT_THAT(process.Out(), AllOf(HasSubstr(std::string("\"code\":\"") + code + "-not-written\""),
                                     HasSubstr("\"exit_code\":12,\"code\":null")));
  }
  Process failed(Command("update", "install-fails", {"--trace", "/dev/full"}), ErrorFile());
  EXPECT_EQ(failed.Wait(), 6);
  Process nothing(Command("update", "succeeds",
                          {"--set", "updatelist=", "--report", iFolder.Write("mine.html", "no report")}),
                  ErrorFile());
  EXPECT_EQ(nothing.Wait(), 12);
}

TEST_F(Peripheralctl, BadUsageIsRefused) {
  EXPECT_EQ(Process({"update"}, ErrorFile()).Wait(), 2);
  Process process(Command("update", "succeeds", {"--log-file", "/nowhere/log"}), ErrorFile());
  EXPECT_EQ(process.Wait(), 2);
  EXPECT_THAT(process.Err(),
              HasSubstr("cannot write the log file '/nowhere/log': No such file or directory."));
}

TEST_F(Peripheralctl, NoOutputGoesIntoAFileThatIsSentNorTwoIntoOne) {
  const std::string image = iFolder.Write("sent.json", "content");
  const std::string other = iFolder.Path("other");
  for (const char* option : {"--log-file", "--trace", "--report"}) {
    Process process(Command("update", "succeeds", {"--set", "xmodemsource-image=" + image, option, image}),
                    ErrorFile());
    EXPECT_EQ(process.Wait(), 2);
    EXPECT_EQ(process.Err(), "peripheralctl: '" + image + "' is a file that is sent; choose another after " +
                                 option + ".\n");
    EXPECT_EQ(ContentOf(image), "content");
  }
  const std::string config = iFolder.Path("config.toml");
  Process reading(Command("update", "succeeds", {"--trace", config}), ErrorFile());
  EXPECT_EQ(reading.Wait(), 2);
  EXPECT_EQ(reading.Err(),
            "peripheralctl: '" + config + "' is read by this run; choose another after --trace.\n");
  Process process(Command("update", "succeeds", {"--log-file", other, "--trace", other}), ErrorFile());
  EXPECT_EQ(process.Wait(), 2);
  EXPECT_EQ(process.Err(),
            "peripheralctl: '" + other + "' is written already; choose another after --trace.\n");
}

TEST_F(Peripheralctl, AFaultyConfigurationHidesNoFaultOfTheOutputs) {
  const std::string report = iFolder.Path("report.html");
  const std::string image = iFolder.Path("image");
  Process process(Command("update", "succeeds",
                          {"--set", "bogus=1", "--log-file", report, "--report", report, "--trace", image}),
                  ErrorFile());
  EXPECT_EQ(process.Wait(), 3);
  EXPECT_THAT(process.Err(),
              AllOf(HasSubstr("unknown key 'bogus'"), HasSubstr("'" + image + "' is a file that is sent"),
                    HasSubstr("'" + report + "' is written already")));
  EXPECT_EQ(ContentOf(image), "image");
  EXPECT_FALSE(std::filesystem::exists(report));
}

TEST_F(Peripheralctl, ABadConfigurationIsRefused) {
  Process missing({"update", "--config", "/nowhere/c.toml"}, ErrorFile());
  EXPECT_EQ(missing.Wait(), 3);
  EXPECT_THAT(missing.Err(), HasSubstr("/nowhere/c.toml: cannot read"));
  Process faulty(
      Command("update", "succeeds", {"--set", "xmodemspeed=1", "--set", "xmodemportname=/dev/nope"}),
      ErrorFile());
  EXPECT_EQ(faulty.Wait(), 3);
  EXPECT_THAT(faulty.Err(), AllOf(HasSubstr("peripheralctl: xmodemspeed \"1\""), HasSubstr("\"/dev/nope\"")));
}

TEST_F(Peripheralctl, WhatOnlyFollowsFromAMistakeInTheConfigurationIsNotTold) {
  iFolder.Write("image", "image");
  const std::string rest =
      "updatelist = \"sanyoxmodem\"\nxmodemsource-image = \"image\"\nxmodemportname = \"" + iPort.Name() +
      "\"\n";
  const std::string properties = "[properties]\nxmodemspeed = 9600\n" + rest;
  const std::vector<std::tuple<std::string, std::vector<std::string>, std::string>> mistakes = {
      {"[properties]\nxmodemsped = 9600\n" + rest, {}, "did you mean 'xmodemspeed'?"},
      {"[properties]\n" + rest, {"--set", "xmodemsped=1"}, "did you mean 'xmodemspeed'?"},
      {"[propertys]\n" + rest, {"--set", "updatelist=sanyoxmodem"}, "did you mean 'properties'?"},
      {"properties = 1", {"--set", "updatelist=sanyoxmodem"}, "'properties' must be a table"},
      {"sha256 = 1\n" + properties, {"--require-digest"}, "'sha256' must be a table"},
      {properties + "[sha265]\n", {"--require-digest"}, "did you mean 'sha256'?"},
      {properties + "[sha256]\nxmodemsource-imag = 1",
       {"--require-digest"},
       "did you mean 'xmodemsource-image'?"},
  };
  for (const auto& [config, options, mistake] : mistakes) {
    std::vector<std::string> arguments = {"update", "--config", iFolder.Write("faulty.toml", config)};
    arguments.insert(arguments.end(), options.begin(), options.end());
    Process process(arguments, ErrorFile());
    EXPECT_EQ(process.Wait(), 3);
    const std::string told = process.Err();
    EXPECT_THAT(told, HasSubstr(mistake));
    EXPECT_EQ(std::count(told.begin(), told.end(), '\n'), 1) << told;
  }
}

TEST_F(Peripheralctl, AFileWithoutADigestIsRefusedWhenOneIsRequired) {
  Process process(Command("update", "succeeds", {"--require-digest"}), ErrorFile());
  EXPECT_EQ(process.Wait(), 10);
  EXPECT_THAT(process.Err(), HasSubstr("has no digest"));
  EXPECT_EQ(process.Out(), "");
}

TEST_F(Peripheralctl, AModuleThatIsNoneIsRefused) {
  Process missing(Command("update", "succeeds", {"--module", "/nowhere/m.so"}), ErrorFile());
  EXPECT_EQ(missing.Wait(), 4);
  EXPECT_THAT(missing.Err(), HasSubstr("The module '/nowhere/m.so' does not exist."));
  Process nothing(Command("update", "makes-nothing"), ErrorFile());
  EXPECT_EQ(nothing.Wait(), 4);
}

TEST_F(Peripheralctl, HelpAndVersionAreSuccesses) {
  EXPECT_EQ(Process({"--help"}, ErrorFile()).Wait(), 0);
  EXPECT_EQ(Process({"--version"}, ErrorFile()).Wait(), 0);
}

TEST_F(Peripheralctl, AnEmptyListIsASuccessThatSaysSo) {
  for (const char* command : {"update", "prepare"}) {
    Process process(Command(command, "never-announces", {"--set", "updatelist="}), ErrorFile());
    EXPECT_EQ(process.Wait(), 0);
    EXPECT_EQ(process.Out(), "Nothing to update: the update list is empty.\n");
  }
}

TEST_F(Peripheralctl, APreparationShowsEveryFaultAndBesidesWhatTheModuleLogs) {
  Process process(
      Command("prepare", "prepare-fails", {"--set", "xmodemspeed=1", "--set", "xmodemportname=/dev/nope"}),
      ErrorFile());
  EXPECT_EQ(process.Wait(), 3);
  EXPECT_THAT(process.Err(),
              AllOf(HasSubstr("peripheralctl: xmodemspeed \"1\""), HasSubstr("\"/dev/nope\""),
                    HasSubstr("Reasons given, oldest first:\n"
                              "  - Cannot use serial port /dev/fake: another program holds it\n")));
}

TEST_F(Peripheralctl, AFaultyConfigurationHidesNoOtherFaults) {
  for (const char* command : {"prepare", "update"}) {
    const std::vector<std::string> arguments =
        Command(command, "succeeds", {"--set", "xmodemportname=/dev/nope"});
    std::ofstream(iFolder.Path("config.toml"), std::ios::app)
        << "xmodemsped = 1\n[sha256]\nxmodemsource-image = \"zz\"\n";
    Process process(arguments, ErrorFile());
    EXPECT_EQ(process.Wait(), 3);
    EXPECT_THAT(process.Err(),
                AllOf(HasSubstr("unknown key 'xmodemsped'; did you mean 'xmodemspeed'?"),
                      HasSubstr("'xmodemsource-image' must be the 64 hexadecimal digits"),
                      HasSubstr("cannot find the port \"/dev/nope\""), Not(HasSubstr("missing"))));
    EXPECT_THAT(process.Out(), Not(HasSubstr("Preparing")));
  }
}

TEST_F(Peripheralctl, APreparationSaysWhichFilesHaveADigest) {
  Process process(Command("prepare", "succeeds"), ErrorFile());
  EXPECT_EQ(process.Wait(), 0);
  EXPECT_THAT(process.Out(),
              HasSubstr("xmodemsource-image: the file '" + iFolder.Path("image") + "' has no digest.\n"));
  Process update(Command("update", "succeeds"), ErrorFile());
  EXPECT_EQ(update.Wait(), 0);
  EXPECT_THAT(update.Out(), Not(HasSubstr("digest")));
}

TEST_F(Peripheralctl, APreparationFailsWhateverTheModuleSays) {
  Process process(Command("prepare", "succeeds", {"--require-digest"}), ErrorFile());
  EXPECT_EQ(process.Wait(), 10);
  EXPECT_THAT(process.Err(),
              HasSubstr("The preparation failed.\nThe module itself logs nothing about it.\n"));
  EXPECT_THAT(process.Out(), Not(HasSubstr("succeeded")));
}

TEST_F(Peripheralctl, AFailedUpdateIsTriedAgain) {
  Process process(Command("update", "fails-once", {"--retries", "1", "--retry-pause", "0"}), ErrorFile());
  EXPECT_EQ(process.Wait(), 0) << process.Err();
  EXPECT_THAT(process.Out(),
              HasSubstr("Progress: 60 %\nThe attempt failed; attempt 2 of 2 begins in 0 s.\n"));
  EXPECT_THAT(process.Out(), EndsWith("The update has succeeded.\n"));
  Process once(Command("update", "fails-once"), ErrorFile());
  EXPECT_EQ(once.Wait(), 6);
}

TEST_F(Peripheralctl, ProgramsGetObjectsAndNothingElse) {
  const JsonSchema schema(nlohmann::json::parse(std::ifstream(DOCUMENTS "/peripheralctl.schema.json")));
  const std::pair<std::vector<std::string>, int> runs[] = {
      {Command("update", "succeeds", {"--json"}), 0},
      {Command("prepare", "succeeds", {"--json"}), 0},
      {Command("update", "install-fails", {"--json"}), 6},
      {Command("update", "fails-once", {"--json", "--retries", "1", "--retry-pause", "0"}), 0},
      {Command("update", "succeeds", {"--json", "--set", "xmodemspeed=x"}), 3},
      {Command("prepare", "prepare-fails", {"--json", "--set", "xmodemspeed=x"}), 3},
      {Command("update", "succeeds", {"--json", "--set", "updatelist="}), 0},
      {Command("update", "succeeds", {"--json", "--module", "/nowhere"}), 4},
      {Command("update", "succeeds", {"--json", "--log-file", "/nowhere/log"}), 2},
      {Command("update", "succeeds", {"--json", "--bogus"}), 2},
      {{"update", "--json", "--config", "/nowhere"}, 3},
  };
  for (const auto& [arguments, exitCode] : runs) {
    Process process(arguments, ErrorFile());
    EXPECT_EQ(process.Wait(), exitCode) << process.Out();
    std::istringstream lines(process.Out());
    nlohmann::json last;
    for (std::string line; std::getline(lines, line);) {
      last = nlohmann::json::parse(line);
      EXPECT_TRUE(schema.Admits(last)) << line;
    }
    EXPECT_EQ(last.value("event", ""), "result");
    EXPECT_EQ(last.value("exit_code", -1), exitCode);
  }
}

TEST_F(Peripheralctl, BadUsageIsToldToProgramsWithItsReason) {
  Process process(Command("update", "succeeds", {"--json", "--bogus"}), ErrorFile());
  EXPECT_EQ(process.Wait(), 2);
  std::istringstream lines(process.Out());
  std::string line;
  ASSERT_TRUE(std::getline(lines, line));
  const std::string reason = nlohmann::json::parse(line).value("message", "");
  EXPECT_THAT(reason, HasSubstr("--bogus"));
  EXPECT_EQ(process.Err(), "peripheralctl: " + reason + "\nRun 'peripheralctl --help' for the usage.\n");
  ASSERT_TRUE(std::getline(lines, line));
  const auto result = nlohmann::json::parse(line);
  EXPECT_EQ(result.value("code", ""), "bad-usage");
  EXPECT_THAT(result["reasons"].dump(), HasSubstr("--bogus"));
}

class WhatIsLeft : public Peripheralctl {
 protected:
  std::string Old(const std::string& name, const std::vector<std::string>& options) {
    const std::string path = iFolder.Path(name);
    std::vector<std::string> all = options;
    all.push_back(path);
    EXPECT_EQ(Process(Command("update", "succeeds", all), ErrorFile()).Wait(), 0);
    EXPECT_THAT(ContentOf(path), HasSubstr("The update has succeeded."));
    return path;
  }

  // Runs that go no further than their preparation here, each with its code and exit code.
  std::vector<std::tuple<std::vector<std::string>, std::string, int>> Refusals() const {
    return {{{"--bogus"}, "bad-usage", 2},
            {{"--timeout", "x"}, "bad-usage", 2},
            {{"--set", "xmodemspeed=x"}, "property-invalid", 3},
            {{"--set", "bogus=1"}, "config-invalid", 3},
            {{"--require-digest"}, "digest-missing", 10},
            {{"--module", "/nowhere"}, "module-not-loadable", 4},
            {{"--log-file", "/nowhere/log"}, "bad-usage", 2}};
  }
};

TEST_F(WhatIsLeft, OfARefusedRunIsAReportThatSaysWhyAndNoOlderOne) {
  for (const auto& [options, code, exitCode] : Refusals()) {
    const std::string report = Old("report.json", {"--report"});
    std::vector<std::string> all = options;
    all.insert(all.begin(), {"--report", report});
    EXPECT_EQ(Process(Command("update", "succeeds", all), ErrorFile()).Wait(), exitCode);
    const auto content = nlohmann::json::parse(ContentOf(report));
    EXPECT_EQ(content["exitCode"], exitCode);
    EXPECT_EQ(content["outcome"], "The run was refused; nothing was sent.");
    ASSERT_EQ(content["errors"].size(), 1u) << code;
    EXPECT_EQ(content["errors"][0]["code"], code);
    EXPECT_NE(content["errors"][0]["message"], "");
    EXPECT_NE(content["errors"][0]["advice"], "");
  }
}

TEST_F(WhatIsLeft, OfARefusedRunIsATraceThatHoldsItsEndAlone) {
  for (const auto& [options, code, exitCode] : Refusals()) {
    const std::string trace = Old("trace", {"--trace"});
    std::vector<std::string> all = options;
    all.insert(all.begin(), {"--trace", trace});
    EXPECT_EQ(Process(Command("update", "succeeds", all), ErrorFile()).Wait(), exitCode);
    EXPECT_THAT(ContentOf(trace), HasSubstr(std::to_string(exitCode) + " The run was refused"));
    EXPECT_LT(ContentOf(trace).size(), 100u) << code;
    EXPECT_EQ(Process({"trace", "show", trace}, ErrorFile()).Wait(), 0);
  }
}

TEST_F(WhatIsLeft, OfAnInternalErrorIsNoEarlierReport) {
  for (const std::vector<std::string>& more : {std::vector<std::string>{}, {"--json"}}) {
    const std::string report = Old("report.json", {"--report"});
    const std::string trace = Old("trace", {"--trace"});
    std::vector<std::string> all = {"--report", report, "--trace", trace};
    all.insert(all.end(), more.begin(), more.end());
    Process process(Command("update", "throws", all), ErrorFile());
    EXPECT_EQ(process.Wait(), 1);
    EXPECT_EQ(process.Err(), "peripheralctl: internal error: the module threw this\n");
    EXPECT_THAT(ContentOf(report) + ContentOf(trace), Not(HasSubstr("The update has succeeded.")));
    EXPECT_THAT(ContentOf(trace), Not(HasSubstr("The run was refused"))) << "it may have begun";
  }
}

TEST_F(WhatIsLeft, OfARunWithNothingToDoIsAReportThatSaysSo) {
  const std::string report = Old("report.html", {"--report"});
  Process process(Command("update", "succeeds", {"--report", report, "--set", "updatelist="}), ErrorFile());
  EXPECT_EQ(process.Wait(), 0);
  EXPECT_THAT(ContentOf(report),
              HasSubstr("class=\"good\">Nothing to update: the update list is empty.</h1>"));
}

TEST_F(WhatIsLeft, ATraceOrReportTakesNoOtherFilesPlace) {
  for (const char* option : {"--trace", "--report"}) {
    const std::string other = iFolder.Write("other.json", "{\"mine\": 1}");
    Process process(Command("update", "succeeds", {option, other}), ErrorFile());
    EXPECT_EQ(process.Wait(), 2);
    EXPECT_THAT(process.Err(), HasSubstr("other.json' is no "));
    EXPECT_EQ(ContentOf(other), "{\"mine\": 1}");
  }
}

TEST_F(WhatIsLeft, ARefusedRunTakesNothingFromOtherFiles) {
  for (const char* option : {"--trace", "--report"}) {
    const std::string other = iFolder.Write("other.json", "{\"mine\": 1}");
    Process process(Command("update", "succeeds", {option, other, "--set", "bogus=1"}), ErrorFile());
    EXPECT_EQ(process.Wait(), 3);
    EXPECT_THAT(process.Err(), HasSubstr("is left as it is."));
    EXPECT_EQ(ContentOf(other), "{\"mine\": 1}");
  }
  const std::string sent = Old("sent.json", {"--report"});
  const std::string before = ContentOf(sent);
  EXPECT_EQ(
      Process(Command("update", "succeeds",
                      {"--set", "xmodemsource-image=" + sent, "--report", sent, "--set", "xmodemspeed=x"}),
              ErrorFile())
          .Wait(),
      3);
  EXPECT_EQ(ContentOf(sent), before);
}

TEST_F(WhatIsLeft, OfATraceAndAReportThatBothFailAreTwoComplaints) {
  const std::string trace = iFolder.Write("trace", "mine");
  const std::string report = iFolder.Write("report.html", "mine");
  Process process(Command("update", "succeeds", {"--trace", trace, "--report", report, "--require-digest"}),
                  ErrorFile());
  EXPECT_EQ(process.Wait(), 10);
  EXPECT_THAT(process.Err(), EndsWith("\nperipheralctl: '" + trace +
                                      "' is no trace and is left as it is. Choose another file after "
                                      "--trace.\nperipheralctl: '" +
                                      report +
                                      "' is no report and is left as it is. Choose another file after "
                                      "--report.\n"));
  Process planted(Command("update", "succeeds", {"--trace", "/nowhere/trace", "--report", report}),
                  ErrorFile());
  EXPECT_EQ(planted.Wait(), 2);
  EXPECT_EQ(
      planted.Err(),
      "peripheralctl: cannot write the trace '/nowhere/trace': No such file or directory. Choose another "
      "file after --trace.\nperipheralctl: '" +
          report + "' is no report and is left as it is. Choose another file after --report.\n");
}

TEST_F(WhatIsLeft, OfARunThatIsKilledIsNoReport) {
  const std::string report = Old("report.json", {"--report"});
  Process process(Command("update", "waits-for-abort", {"--report", report}), ErrorFile());
  process.ReadUntil("Progress: 42 %");
  EXPECT_FALSE(std::filesystem::exists(report));
  process.Signal(SIGKILL);
  EXPECT_EQ(process.Wait(), 1000 + SIGKILL);
  EXPECT_FALSE(std::filesystem::exists(report));
}

TEST_F(WhatIsLeft, OfAFailureIsAReportWithItsError) {
  const std::string report = iFolder.Path("report.json");
  EXPECT_EQ(Process(Command("update", "install-fails", {"--report", report}), ErrorFile()).Wait(), 6);
  EXPECT_EQ(nlohmann::json::parse(ContentOf(report))["errors"][0]["code"], "update-failed");
}

TEST_F(Peripheralctl, RootFollowsNoConfigurationThatOthersMayChangeUnlessToldSo) {
  if (geteuid() != 0) {
    GTEST_SKIP() << "the rule is for root";
  }
  const std::string file = iFolder.Path("config.toml");
  for (const std::string& place : {file, std::filesystem::path(file).parent_path().string()}) {
    const std::vector<std::string> arguments = Command("update", "succeeds");
    const std::filesystem::perms before = std::filesystem::status(place).permissions();
    std::filesystem::permissions(place, before | std::filesystem::perms::others_write);
    Process refused(arguments, ErrorFile());
    EXPECT_EQ(refused.Wait(), 11);
    EXPECT_THAT(refused.Err(),
                AllOf(HasSubstr("others than root may write '" + place + "'"), HasSubstr("--trust-config")));
    std::vector<std::string> trusting = arguments;
    trusting.emplace_back("--trust-config");
    EXPECT_EQ(Process(trusting, ErrorFile()).Wait(), 0);
    std::filesystem::permissions(place, before);
    EXPECT_EQ(Process(arguments, ErrorFile()).Wait(), 0);
  }
}

TEST_F(Peripheralctl, WritesThroughNoPlantedLink) {
  for (const std::string option : {"--log-file", "--trace", "--report"}) {
    const std::string target = iFolder.Write("target", "precious");
    const std::string link = iFolder.Path(option + ".html");
    std::filesystem::create_symlink(target, link);
    Process process(Command("update", "succeeds", {option, link}), ErrorFile());
    EXPECT_EQ(process.Wait(), 2) << option;
    EXPECT_THAT(process.Err(),
                HasSubstr("'" + link + "': it is a symbolic link. Choose another file after " + option));
    EXPECT_EQ(ContentOf(target), "precious");
    EXPECT_TRUE(std::filesystem::is_symlink(link));
  }
}

}  // namespace
