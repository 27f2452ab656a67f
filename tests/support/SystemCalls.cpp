#include "SystemCalls.h"

#include <deque>
#include <utility>

namespace {

struct State {
  std::function<void(const std::string&)> hook;
  std::deque<int> answers;
};

State& Present() {
  static State state;
  return state;
}

}  // namespace

namespace system_calls {

void OnCall(std::function<void(const std::string& command)> hook) {
  Present().hook = std::move(hook);
}

void Answer(std::vector<int> statuses) {
  Present().answers.assign(statuses.begin(), statuses.end());
}

void Reset() {
  Present() = {};
}

}  // namespace system_calls

// The names are the linker's: --wrap=system sends calls of system to __wrap_system and calls of __real_system
// to system.
extern "C" {

int __real_system(const char* command);

int __wrap_system(const char* command) {
  State& state = Present();
  if (state.hook) {
    state.hook(command);
  }
  if (state.answers.empty()) {
    return __real_system(command);
  }
  const int status = state.answers.front();
  state.answers.pop_front();
  return status;
}

}  // extern "C"
