#include "Process.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdint>

namespace {

using Clock = std::chrono::steady_clock;

int Left_ms(Clock::time_point deadline) {
  const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
  return static_cast<int>(std::max<std::int64_t>(left.count(), 0));
}

}  // namespace

Process::Process(const std::string& program, std::vector<std::string> arguments,
                 const std::vector<std::string>& environment, int line) {
  arguments.insert(arguments.begin(), program);
  std::vector<char*> argv;
  for (std::string& argument : arguments) {
    argv.push_back(argument.data());
  }
  argv.push_back(nullptr);
  int ends[2] = {-1, -1};
  if (pipe2(ends, O_CLOEXEC) != 0) {
    ends[0] = ends[1] = -1;
  }
  iPipe = ends[0];
  iPid = fork();
  if (iPid == 0) {
    for (const std::string& entry : environment) {
      putenv(const_cast<char*>(entry.c_str()));
    }
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    // Whoever runs the tests may ignore them, which the program would then do too.
    for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
      std::signal(signal, SIG_DFL);
    }
    if (line != -1) {
      dup2(line, STDIN_FILENO);
    }
    dup2(line == -1 ? ends[1] : line, STDOUT_FILENO);
    dup2(ends[1], STDERR_FILENO);
    execv(program.c_str(), argv.data());
    _exit(127);
  }
  close(ends[1]);
}

Process::~Process() {
  if (iPid > 0) {
    kill(iPid, SIGKILL);
    waitpid(iPid, nullptr, 0);
  }
  close(iPipe);
}

bool Process::WaitForOutput(const std::string& text, int limit_ms) {
  const Clock::time_point deadline = Clock::now() + std::chrono::milliseconds(limit_ms);
  while (iOutput.find(text) == std::string::npos) {
    if (!ReadSome(Left_ms(deadline))) {
      return false;
    }
  }
  return true;
}

int Process::WaitForEnd(int limit_ms) {
  const Clock::time_point deadline = Clock::now() + std::chrono::milliseconds(limit_ms);
  while (ReadSome(Left_ms(deadline))) {
  }
  int status = 0;
  pid_t ended = waitpid(iPid, &status, WNOHANG);
  while (ended == 0 && Clock::now() < deadline) {
    usleep(10'000);
    ended = waitpid(iPid, &status, WNOHANG);
  }
  if (ended == 0) {
    return -1;
  }
  iPid = -1;
  return WIFEXITED(status) ? WEXITSTATUS(status) : 1000 + WTERMSIG(status);
}

void Process::Signal(int signal) const {
  kill(iPid, signal);
}

// False at the end of the output or when nothing came in time.
bool Process::ReadSome(int limit_ms) {
  pollfd waiting = {iPipe, POLLIN, 0};
  if (poll(&waiting, 1, limit_ms) <= 0) {
    return false;
  }
  char bytes[4096];
  const ssize_t count = read(iPipe, bytes, sizeof bytes);
  iOutput.append(bytes, count > 0 ? static_cast<std::size_t>(count) : 0);
  return count > 0;
}
