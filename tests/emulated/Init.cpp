// The first process of the emulated machine: mounts what every program expects, loads the drivers that are
// listed in /drivers in that order, runs one program on the second serial line and switches the machine off.
#include <fcntl.h>
#include <sys/mount.h>
#include <sys/reboot.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>

namespace {

constexpr const char* kResultLine = "/dev/ttyS1";

void Complain(const char* what, const std::string& about) {
  std::printf("init: %s %s: %s\n", what, about.c_str(), std::strerror(errno));
}

void MountSystem(const char* type, const char* where) {
  mkdir(where, 0755);
  if (mount(type, where, type, 0, nullptr) != 0) {
    Complain("cannot mount", where);
  }
}

// Makes `path` the standard descriptor `number`.
void OpenAs(int number, const char* path, int mode) {
  const int opened = open(path, mode | O_NOCTTY);
  if (opened != number) {
    dup2(opened, number);
    close(opened);
  }
}

// Without a terminal to answer on, no tool asks questions.
void OpenStandardFiles() {
  OpenAs(STDIN_FILENO, "/dev/null", O_RDONLY);
  OpenAs(STDOUT_FILENO, kResultLine, O_WRONLY);
  OpenAs(STDERR_FILENO, kResultLine, O_WRONLY);
}

void LoadDrivers() {
  std::ifstream list("/drivers");
  for (std::string path; std::getline(list, path);) {
    const int driver = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (syscall(SYS_finit_module, driver, "", 0) != 0) {
      Complain("cannot load driver", path);
    }
    close(driver);
  }
}

void RunAndWait(char** command) {
  const pid_t child = fork();
  if (child == 0) {
    execv(command[0], command);
    Complain("cannot run", command[0]);
    _exit(127);
  }
  int status = 0;
  waitpid(child, &status, 0);
  std::printf("init: %s ended with wait status %d\n", command[0], status);
}

}  // namespace

int main(int argc, char** argv) {
  MountSystem("devtmpfs", "/dev");
  OpenStandardFiles();
  MountSystem("proc", "/proc");
  MountSystem("sysfs", "/sys");
  setenv("PATH", "/usr/sbin:/usr/bin:/sbin:/bin", 1);
  LoadDrivers();
  if (argc > 1) {
    RunAndWait(argv + 1);
  }
  std::fflush(stdout);
  sync();
  reboot(RB_POWER_OFF);
  return EXIT_FAILURE;
}
