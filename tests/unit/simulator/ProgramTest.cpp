// Goal: the program that people start plays a device on a real pseudo-terminal, paced, and leaves cleanly.
// Method: the program runs as a child process; a small sender on this side plays transfers to its port in
// real time.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <thread>

#include "ScriptedHost.h"
#include "simulator/Xmodem.h"

namespace simulator {

namespace {

using testing::HasSubstr;
using Clock = std::chrono::steady_clock;

/// The program as a child, its output on a pipe.
class Program {
 public:
  /// Both outputs are read, but for what `prepare` changes in the child.
  explicit Program(
      std::vector<std::string> arguments, const std::function<void()>& prepare = [] {}) {
    arguments.insert(arguments.begin(), BOOTLOADER_SIMULATOR);
    std::vector<char*> argv;
    for (std::string& each : arguments) {
      argv.push_back(each.data());
    }
    argv.push_back(nullptr);
    int ends[2];
    EXPECT_EQ(pipe(ends), 0);
    iPid = fork();
    if (iPid == 0) {
      dup2(ends[1], STDOUT_FILENO);
      dup2(ends[1], STDERR_FILENO);
      prepare();
      execv(argv[0], argv.data());
      _exit(127);
    }
    close(ends[1]);
    iOutput = ends[0];
  }

  ~Program() {
    if (iPid > 0) {
      kill(iPid, SIGKILL);
      Wait();
    }
    close(iOutput);
  }

  std::string ReadLine() {
    std::string line;
    char character = 0;
    pollfd waiting{iOutput, POLLIN, 0};
    while (poll(&waiting, 1, 10000) == 1 && read(iOutput, &character, 1) == 1 && character != '\n') {
      line += character;
    }
    return line;
  }

  std::string Port() {
    const std::string line = ReadLine();
    EXPECT_EQ(line.substr(0, 14), "port: /dev/pts");
    return line.substr(std::min<std::size_t>(6, line.size()));
  }

  std::string Rest() {
    std::string all;
    for (std::string line = ReadLine(); !line.empty(); line = ReadLine()) {
      all += line + "\n";
    }
    return all;
  }

  void Signal(int number) { kill(iPid, number); }

  /// Exit code, or -1 if it was ended by a signal, as it is when it takes too long.
  int Wait() {
    const Clock::time_point deadline = Clock::now() + std::chrono::seconds(20);
    int status = 0;
    while (waitpid(iPid, &status, WNOHANG) == 0) {
      if (Clock::now() > deadline) {
        kill(iPid, SIGKILL);
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    iPid = 0;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }

 private:
  pid_t iPid = 0;
  int iOutput = -1;
};

/// The host's end of the real port.
class Port {
 public:
  explicit Port(const std::string& path) : iDescriptor(open(path.c_str(), O_RDWR | O_NOCTTY)) {
    EXPECT_GE(iDescriptor, 0) << path;
    tcflush(iDescriptor, TCIFLUSH);
  }
  ~Port() { close(iDescriptor); }
  Port(const Port&) = delete;
  Port& operator=(const Port&) = delete;

  int Read(int patience_ms) {
    pollfd waiting{iDescriptor, POLLIN, 0};
    std::uint8_t byte = 0;
    return poll(&waiting, 1, patience_ms) == 1 && read(iDescriptor, &byte, 1) == 1 ? byte : -1;
  }

  bool Write(const Bytes& bytes) {
    return write(iDescriptor, bytes.data(), bytes.size()) == static_cast<ssize_t>(bytes.size());
  }

  /// The next byte that is not one more solicitation from before the first block.
  int ReadReply() {
    int byte = Read(5000);
    while (byte == 'C') {
      byte = Read(5000);
    }
    return byte;
  }

  /// Sends blocks of 1024 bytes and EOT. False at the first wrong reply.
  bool Send(const Bytes& data) {
    if (Read(5000) != 'C') {
      return false;
    }
    std::uint8_t number = 1;
    for (std::size_t offset = 0; offset < data.size(); offset += kLongBlock, ++number) {
      const auto begin = data.begin() + static_cast<std::ptrdiff_t>(offset);
      const Bytes block(begin, begin + static_cast<std::ptrdiff_t>(kLongBlock));
      if (!Write(FrameBlock(number, block, Trailer::kCrc)) || ReadReply() != kAck) {
        return false;
      }
    }
    return Write({kEot}) && ReadReply() == kAck;
  }

 private:
  int iDescriptor;
};

std::string TemporaryPath(const std::string& name) {
  return testing::TempDir() + "simulator_" + std::to_string(getpid()) + "_" + name;
}

Bytes ReadFile(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  return Bytes(std::istreambuf_iterator<char>(file), {});
}

/// The end to write to of a pipe that nobody reads.
int ClosedPipe() {
  int ends[2] = {-1, -1};
  EXPECT_EQ(pipe(ends), 0);
  close(ends[0]);
  return ends[1];
}

/// The end to write to of a pipe that takes nothing more; the other end is in `reader`.
int FullPipe(int& reader) {
  int ends[2] = {-1, -1};
  EXPECT_EQ(pipe2(ends, O_NONBLOCK), 0);
  while (write(ends[1], "x", 1) == 1) {
  }
  fcntl(ends[1], F_SETFL, 0);
  reader = ends[0];
  return ends[1];
}

bool Exists(const std::string& path) {
  struct stat status {};
  return lstat(path.c_str(), &status) == 0;
}

bool Appears(const std::string& path) {
  const Clock::time_point deadline = Clock::now() + std::chrono::seconds(10);
  while (!Exists(path) && Clock::now() < deadline) {
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  return Exists(path);
}

}  // namespace

TEST(Program, TakesASanyoImageAtTheSpeedOfTheLineAndExitsOnce) {
  const std::string dump = TemporaryPath("flash");
  Program program({"--device", "sanyo", "--once", "--dump-flash", dump, "--baud", "115200"});
  const Bytes image = Pattern(16 * 1024);
  const Clock::time_point begin = Clock::now();
  {
    Port port(program.Port());
    ASSERT_TRUE(port.Send(image));
  }
  const double seconds = std::chrono::duration<double>(Clock::now() - begin).count();
  EXPECT_EQ(program.Wait(), 0);
  EXPECT_EQ(ReadFile(dump), image);
  // 16 blocks of 1029 bytes, 17 replies and EOT take 1.43 s on the line.
  EXPECT_GE(seconds, 1.43);
  EXPECT_LT(seconds, 10.0);
  unlink(dump.c_str());
}

TEST(Program, SurvivesTheHostOpeningAndClosingThePort) {
  Program program({"--device", "sanyo", "--baud", "0"});
  const std::string path = program.Port();
  for (int round = 0; round < 20; ++round) {
    Port port(path);
  }
  for (int round = 0; round < 2; ++round) {
    Port port(path);
    EXPECT_TRUE(port.Send(Pattern(4096)));
  }
  program.Signal(SIGTERM);
  EXPECT_EQ(program.Wait(), 0);
  EXPECT_THAT(program.Rest(), HasSubstr("sanyo: image: 4096 bytes"));
}

TEST(Program, LinksToThePortAndDumpsAtASignal) {
  const std::string link = TemporaryPath("link");
  const std::string dump = TemporaryPath("ram");
  ASSERT_EQ(symlink("/dev/pts/left", link.c_str()), 0);
  Program program({"--link", link, "--dump-ram", dump, "--device", "can,sanyo"});
  const std::string path = program.Port();
  char target[256] = {};
  ASSERT_GT(readlink(link.c_str(), target, sizeof(target) - 1), 0);
  EXPECT_EQ(path, target);
  program.Signal(SIGINT);
  EXPECT_EQ(program.Wait(), 0);
  EXPECT_FALSE(Exists(link));
  EXPECT_TRUE(Exists(dump + ".1"));
  EXPECT_TRUE(Exists(dump + ".2"));
  unlink((dump + ".1").c_str());
  unlink((dump + ".2").c_str());
}

TEST(Program, LeavesCleanlyWhenItsTerminalIsClosed) {
  const std::string link = TemporaryPath("link");
  // These tests may run under nohup.
  Program program({"--link", link}, [] { signal(SIGHUP, SIG_DFL); });
  program.Port();
  program.Signal(SIGHUP);
  EXPECT_EQ(program.Wait(), 0);
  EXPECT_FALSE(Exists(link));
  unlink(link.c_str());
}

TEST(Program, SurvivesItsTerminalUnderNohup) {
  Program program({"--device", "sanyo"}, [] { signal(SIGHUP, SIG_IGN); });
  Port port(program.Port());
  program.Signal(SIGHUP);
  EXPECT_EQ(port.Read(5000), 'C');
  EXPECT_EQ(port.Read(5000), 'C');
  program.Signal(SIGTERM);
  EXPECT_EQ(program.Wait(), 0);
}

TEST(Program, ADumpIsForItsOwnerAloneWhateverTheMask) {
  const std::string dump = TemporaryPath("flash");
  const mode_t mask = umask(0);
  Program program({"--dump-flash", dump});
  umask(mask);
  program.Port();
  program.Signal(SIGTERM);
  EXPECT_EQ(program.Wait(), 0);
  struct stat status {};
  ASSERT_EQ(stat(dump.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 0600u);
  unlink(dump.c_str());
}

TEST(Program, NoDumpGoesWhereALinkLeads) {
  const std::string file = TemporaryPath("file");
  const std::string link = TemporaryPath("flash");
  std::ofstream(file) << "precious";
  ASSERT_EQ(symlink(file.c_str(), link.c_str()), 0);
  const std::string fault =
      "Cannot write the dump " + link + ": it is a symbolic link. Name a file that can be written.\n";
  Program refused({"--dump-flash", link});
  EXPECT_EQ(refused.Wait(), 3);
  EXPECT_EQ(refused.Rest(), fault);
  unlink(link.c_str());
  Program program({"--dump-flash", link});
  program.Port();
  ASSERT_EQ(symlink(file.c_str(), link.c_str()), 0);
  program.Signal(SIGTERM);
  EXPECT_EQ(program.Wait(), 3);
  EXPECT_EQ(program.Rest(), fault);
  EXPECT_EQ(ReadFile(file), FromText("precious"));
  unlink(link.c_str());
  unlink(file.c_str());
}

TEST(Program, NoDumpGoesIntoWhatIsNoRegularFile) {
  const std::string pipe = TemporaryPath("flash");
  const std::string fault =
      "Cannot write the dump " + pipe + ": it is no regular file. Name a file that can be written.\n";
  ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
  Program refused({"--dump-flash", pipe});
  EXPECT_EQ(refused.Wait(), 3);
  EXPECT_EQ(refused.Rest(), fault);
  for (const bool is_read : {true, false}) {
    unlink(pipe.c_str());
    Program program({"--dump-flash", pipe});
    program.Port();
    ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
    const int other_end = is_read ? open(pipe.c_str(), O_RDONLY | O_NONBLOCK) : -1;
    program.Signal(SIGTERM);
    EXPECT_EQ(program.Wait(), 3);
    EXPECT_EQ(program.Rest(), fault);
    close(other_end);
  }
  unlink(pipe.c_str());
}

TEST(Program, TellsNothingOnTheLineWhenItsOutputIsClosed) {
  const std::string link = TemporaryPath("link");
  Program program({"--device", "sanyo", "--link", link}, [] { close(STDOUT_FILENO); });
  ASSERT_TRUE(Appears(link));
  const int port = open(link.c_str(), O_RDWR | O_NOCTTY);
  pollfd waiting{port, POLLIN, 0};
  char heard = 0;
  EXPECT_EQ(poll(&waiting, 1, 10000), 1);
  EXPECT_EQ(read(port, &heard, 1), 1);
  EXPECT_EQ(heard, 'C');
  close(port);
  unlink(link.c_str());
}

TEST(Program, TellsItsVersion) {
  Program program({"--version"});
  EXPECT_THAT(program.ReadLine(), testing::MatchesRegex("bootloader-simulator [0-9]+\\.[0-9]+\\.[0-9]+"));
  EXPECT_EQ(program.Wait(), 0);
}

TEST(Program, NeverReplacesAFileByALink) {
  const std::string file = TemporaryPath("file");
  std::ofstream(file) << "precious";
  Program program({"--link", file});
  EXPECT_EQ(program.Wait(), 3);
  EXPECT_EQ(ReadFile(file), FromText("precious"));
  EXPECT_THAT(program.Rest(), HasSubstr(file));
  unlink(file.c_str());
}

TEST(Program, NeverReplacesALinkOfSomebodyElse) {
  const std::string link = TemporaryPath("link");
  ASSERT_EQ(symlink("/nowhere", link.c_str()), 0);
  Program program({"--link", link});
  EXPECT_EQ(program.Wait(), 3);
  EXPECT_THAT(program.Rest(), HasSubstr("Cannot make the link " + link + ": File exists."));
  EXPECT_TRUE(Exists(link));
  unlink(link.c_str());
}

TEST(Program, NeverTakesALinkFromASimulatorThatRuns) {
  const std::string link = TemporaryPath("link");
  Program first({"--link", link});
  const std::string port = first.Port();
  Program second({"--link", link});
  EXPECT_EQ(second.Wait(), 3);
  EXPECT_EQ(second.Rest(), "Cannot make the link " + link +
                               ": the simulator that made it still runs. "
                               "End that one or choose another path for --link.\n");
  EXPECT_EQ(std::filesystem::read_symlink(link), port);
  first.Signal(SIGTERM);
  EXPECT_EQ(first.Wait(), 0);
  EXPECT_FALSE(Exists(link));
}

TEST(Program, ReplacesTheLinkOfAKilledOneThoughAnotherHasItsPort) {
  const std::string link = TemporaryPath("link");
  Program killed({"--link", link});
  killed.Port();
  killed.Signal(SIGKILL);
  EXPECT_EQ(killed.Wait(), -1);
  // The system gives the lowest number that is free.
  Program another({"--link", link + "2"});
  another.Port();
  Program program({"--link", link});
  const std::string port = program.Port();
  EXPECT_EQ(std::filesystem::read_symlink(link), port);
  for (Program* each : {&another, &program}) {
    each->Signal(SIGTERM);
    EXPECT_EQ(each->Wait(), 0);
  }
}

TEST(Program, AnsweringOnceIsOverOnlyWhenTheHostHasReadIt) {
  Program program({"--device", "sanyo", "--baud", "0", "--once"});
  Port port(program.Port());
  ASSERT_EQ(port.Read(5000), 'C');
  ASSERT_TRUE(port.Write(FrameBlock(1, Pattern(1024), Trailer::kCrc)));
  ASSERT_EQ(port.ReadReply(), kAck);
  ASSERT_TRUE(port.Write({kEot}));
  std::this_thread::sleep_for(std::chrono::milliseconds(300));
  EXPECT_EQ(port.Read(1000), kAck);
}

TEST(Program, ClosesThePortWhenUnplugged) {
  Program program({"--device", "sanyo", "--baud", "0", "--unplug-after", "3000", "--once"});
  Port port(program.Port());
  EXPECT_FALSE(port.Send(Pattern(8192)));
  EXPECT_EQ(program.Wait(), 1);
  EXPECT_FALSE(port.Write({kEot}));
}

TEST(Program, WithOnceAFailedUpdateIsExitCodeOne) {
  Program program({"--device", "sanyo", "--baud", "0", "--cancel-after", "3000", "--once"});
  Port port(program.Port());
  EXPECT_FALSE(port.Send(Pattern(8192)));
  EXPECT_EQ(port.Read(1000), kCan);
  EXPECT_THAT(program.ReadLine(), HasSubstr("sanyo: failed: cancelled on purpose"));
  EXPECT_EQ(program.Wait(), 1);
}

TEST(Program, PlaysTheLinesOfAScenarioAtOnce) {
  const std::string scenario = TemporaryPath("scenario.toml");
  const std::string left = TemporaryPath("left");
  const std::string right = TemporaryPath("right");
  std::ofstream(scenario) << "[[line]]\nname = 'left'\nonce = true\nbaud = 0\ndump-flash = '" << left << "'\n"
                          << "[[line.device]]\nkind = 'sanyo'\n"
                          << "[[line]]\nname = 'right'\nonce = true\nbaud = 0\ndump-flash = '" << right
                          << "'\n"
                          << "[[line.device]]\nkind = 'sanyo'\n[[line.device]]\nkind = 'sanyo'\n";
  Program program({"--scenario", scenario});
  const std::string first = program.ReadLine();
  const std::string second = program.ReadLine();
  ASSERT_EQ(first.substr(0, 11), "left port: ");
  ASSERT_EQ(second.substr(0, 12), "right port: ");
  {
    // Turn and turn about: the one line ends while the other has still something to do.
    Port port_right(second.substr(12));
    EXPECT_TRUE(port_right.Send(Pattern(2048)));
    {
      Port port_left(first.substr(11));
      EXPECT_TRUE(port_left.Send(Pattern(4096)));
    }
    EXPECT_TRUE(port_right.Send(Pattern(3072)));
  }
  EXPECT_EQ(program.Wait(), 0);
  EXPECT_EQ(ReadFile(left), Pattern(4096));
  EXPECT_EQ(ReadFile(right + ".1"), Pattern(2048));
  EXPECT_EQ(ReadFile(right + ".2"), Pattern(3072));
  EXPECT_THAT(program.Rest(), testing::AllOf(HasSubstr(" left sanyo: image: 4096 bytes\n"),
                                             HasSubstr(" right sanyo: image: 3072 bytes\n")));
  for (const std::string& path : {scenario, left, right + ".1", right + ".2"}) {
    unlink(path.c_str());
  }
}

TEST(Program, OfAScenarioEndsWithTheWorstOfItsLines) {
  const std::string scenario = TemporaryPath("scenario.toml");
  std::ofstream(scenario)
      << "[[line]]\nbaud = 0\nunplug-at = 0.1\n[[line.device]]\nkind = 'sanyo'\n"
      << "[[line]]\nbaud = 0\nonce = true\nunplug-at = 0.2\n[[line.device]]\nkind = 'can'\n";
  Program program({"--scenario", scenario});
  EXPECT_EQ(program.Wait(), 1);
  unlink(scenario.c_str());
}

TEST(Program, TellsWhatIsWrongWithAScenario) {
  const std::string scenario = TemporaryPath("scenario.toml");
  std::ofstream(scenario) << "[[line]]\nspeed = 1\n[[line.device]]\nkind = 'radio'\n";
  Program program({"--scenario", scenario});
  EXPECT_EQ(program.Wait(), 2);
  EXPECT_THAT(program.Rest(), testing::AllOf(HasSubstr(scenario + ":2:9: unknown key 'speed'."),
                                             HasSubstr(scenario + ":4:8: 'kind' wants")));
  unlink(scenario.c_str());
}

TEST(Program, TakesNoOtherOptionWithAScenarioHoweverItIsNamed) {
  const std::string scenario = TemporaryPath("scenario.toml");
  std::ofstream(scenario) << "[[line]]\nunplug-at = 0\n[[line.device]]\nkind = 'sanyo'\n";
  for (const std::vector<std::string>& named :
       std::vector<std::vector<std::string>>{{"--scenario", scenario}, {"--scenario=" + scenario}}) {
    Program alone(named);
    EXPECT_EQ(alone.Wait(), 0);
    std::vector<std::string> more = named;
    more.emplace_back("--once");
    Program with_more(more);
    EXPECT_EQ(with_more.Wait(), 2);
    EXPECT_THAT(with_more.Rest(), HasSubstr("no other option goes with it"));
  }
  unlink(scenario.c_str());
}

TEST(Program, IdlesWithoutUsingTheProcessor) {
  rusage earlier{};
  getrusage(RUSAGE_CHILDREN, &earlier);
  Program program({"--device", "sanyo"});
  program.Port();
  std::this_thread::sleep_for(std::chrono::milliseconds(500));
  program.Signal(SIGTERM);
  EXPECT_EQ(program.Wait(), 0);
  rusage usage{};
  getrusage(RUSAGE_CHILDREN, &usage);
  const auto used_us = [](const rusage& each) {
    return (each.ru_utime.tv_sec + each.ru_stime.tv_sec) * kSecond + each.ru_utime.tv_usec +
           each.ru_stime.tv_usec;
  };
  EXPECT_LT(used_us(usage) - used_us(earlier), 250 * kMillisecond);
}

TEST(Program, RefusesWrongOptionsWithAnExitCodeOfTheirOwn) {
  for (const std::vector<std::string>& arguments :
       std::vector<std::vector<std::string>>{{"--device", "radio"},
                                             {"--refuse", "xx"},
                                             {"--silent-after", "lunch"},
                                             {"--noise", "2"},
                                             {"--what"}}) {
    Program program(arguments);
    EXPECT_EQ(program.Wait(), 2) << arguments[0];
    EXPECT_THAT(program.Rest(), HasSubstr(arguments[0]));
  }
}

TEST(Program, DumpsNoTwoMemoriesIntoOneFile) {
  const std::string file = TemporaryPath("both");
  const std::string same = testing::TempDir() + "/./simulator_" + std::to_string(getpid()) + "_both";
  for (const std::string devices : {"can", "can,sanyo"}) {
    Program program({"--device", devices, "--dump-ram", file, "--dump-flash", same});
    EXPECT_EQ(program.Wait(), 2);
    EXPECT_THAT(program.Rest(),
                testing::StartsWith("--dump-flash: --dump-ram names this file already. Each needs its own."));
  }
}

TEST(Program, HelpNamesEveryOption) {
  Program program({"--help"});
  EXPECT_EQ(program.Wait(), 0);
  std::string help;
  for (int line = 0; line < 200; ++line) {
    help += program.ReadLine() + "\n";
  }
  for (const std::string option :
       {"--scenario",      "--device",     "--baud",         "--link",         "--dump-ram",
        "--dump-flash",    "--once",       "--version-text", "--ram-base",     "--ram-size",
        "--flash-base",    "--flash-size", "--refuse",       "--silent-after", "--slow",
        "--corrupt-flash", "--checksum",   "--nak-every",    "--nak-eot",      "--damage-every",
        "--cancel-after",  "--faulty",     "--noise",        "--seed",         "--unplug-after",
        "--patience",      "--version"}) {
    EXPECT_THAT(help, HasSubstr(option));
  }
}

TEST(Program, HelpFitsTheWidthThatIsAskedFor) {
  for (const auto& [columns, indent] : {std::pair(80U, 30U), std::pair(40U, 6U)}) {
    setenv("COLUMNS", std::to_string(columns).c_str(), 1);
    Program program({"--help"});
    unsetenv("COLUMNS");
    EXPECT_EQ(program.Wait(), 0);
    int texts = 0;
    for (std::string line = program.ReadLine(); line != "Examples:"; line = program.ReadLine()) {
      const bool isText = line.rfind(std::string(indent, ' '), 0) == 0;
      texts += isText ? 1 : 0;
      // Names of options are not broken, and in the usage stands where the program is.
      EXPECT_LE(line.size(),
                isText ? columns : std::max<std::size_t>(80, line.rfind("Usage", 0) == 0 ? line.size() : 0))
          << line;
    }
    EXPECT_GT(texts, 10);
  }
}

TEST(Program, WhatItCouldNotSayIsNoSuccess) {
  const std::string loss = "bootloader-simulator: standard output could not be written. Is the disk full?\n";
  const std::string link = TemporaryPath("link");
  for (const char* file : {"/dev/full", "a pipe that nobody reads"}) {
    Program program({"--device", "sanyo", "--baud", "0", "--once", "--link", link},
                    [file] { dup2(file[0] == '/' ? open(file, O_WRONLY) : ClosedPipe(), STDOUT_FILENO); });
    ASSERT_TRUE(Appears(link));
    {
      Port port(link);
      EXPECT_TRUE(port.Send(Pattern(2048)));
    }
    EXPECT_EQ(program.Wait(), 3) << file;
    EXPECT_EQ(program.Rest(), loss);
  }
}

TEST(Program, EndsAtASignalWhileNobodyReadsWhatItSays) {
  int reader = -1;
  const int pipe = FullPipe(reader);
  const std::string link = TemporaryPath("link");
  Program program({"--link", link}, [pipe] {
    dup2(pipe, STDOUT_FILENO);
    dup2(pipe, STDERR_FILENO);
  });
  ASSERT_TRUE(Appears(link));
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  program.Signal(SIGTERM);
  EXPECT_EQ(program.Wait(), 3);
  EXPECT_FALSE(Exists(link));
  close(pipe);
  close(reader);
}

TEST(Program, WaitsForWhoeverReadsWhatItSays) {
  int reader = -1;
  const int pipe = FullPipe(reader);
  const std::string link = TemporaryPath("link");
  Program program({"--link", link}, [pipe] { dup2(pipe, STDOUT_FILENO); });
  ASSERT_TRUE(Appears(link));
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  std::string said;
  pollfd waiting{reader, POLLIN, 0};
  for (char letter = 0; letter != '\n' && poll(&waiting, 1, 10000) == 1;) {
    ASSERT_EQ(read(reader, &letter, 1), 1);
    said += letter;
  }
  EXPECT_THAT(said, HasSubstr("xport: /dev/pts/"));
  program.Signal(SIGTERM);
  EXPECT_EQ(program.Wait(), 0);
  close(pipe);
  close(reader);
}

TEST(Program, AFailureIsToldByItsExitCodeWhateverCouldNotBeSaid) {
  const std::string link = TemporaryPath("link");
  Program program({"--once", "--link", link}, [] { dup2(open("/dev/full", O_WRONLY), STDOUT_FILENO); });
  ASSERT_TRUE(Appears(link));
  program.Signal(SIGTERM);
  EXPECT_EQ(program.Wait(), 1);
  EXPECT_THAT(program.Rest(), HasSubstr("standard output could not be written"));
}

TEST(Program, HelpThatCannotBeWrittenIsNoSuccess) {
  for (const char* option : {"--help", "--version"}) {
    Program program({option}, [] { dup2(open("/dev/full", O_WRONLY), STDOUT_FILENO); });
    EXPECT_EQ(program.Wait(), 3);
    EXPECT_EQ(program.Rest(),
              "bootloader-simulator: standard output could not be written. Is the disk full?\n");
  }
}

}  // namespace simulator
