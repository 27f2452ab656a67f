#include "Fiber.h"

#include <cstdint>
#include <utility>
#include <vector>

#ifdef UNDER_ADDRESS_SANITIZER
#include <sanitizer/common_interface_defs.h>
#endif

namespace {

constexpr std::size_t kStackSize = 256 * 1024;

Fiber* current = nullptr;

// Stacks are used again: a world that runs a million times must not ask the system for each.
std::vector<std::unique_ptr<char[]>>& SpareStacks() {
  static std::vector<std::unique_ptr<char[]>> stacks;
  return stacks;
}

std::unique_ptr<char[]> TakeStack() {
  auto& spare = SpareStacks();
  if (spare.empty()) {
    return std::unique_ptr<char[]>(new char[kStackSize]);
  }
  auto stack = std::move(spare.back());
  spare.pop_back();
  return stack;
}

}  // namespace

Fiber::Fiber(std::function<void()> body) : iBody(std::move(body)), iStack(TakeStack()) {
  getcontext(&iOwn);
  iOwn.uc_stack.ss_sp = iStack.get();
  iOwn.uc_stack.ss_size = kStackSize;
  iOwn.uc_link = nullptr;
  // makecontext hands over nothing but integers.
  const auto self = static_cast<std::uint64_t>(reinterpret_cast<std::uintptr_t>(this));
  makecontext(&iOwn, reinterpret_cast<void (*)()>(&Fiber::Enter), 2, static_cast<unsigned>(self >> 32),
              static_cast<unsigned>(self & 0xFFFFFFFFu));
}

Fiber::~Fiber() {
  SpareStacks().push_back(std::move(iStack));
}

Fiber* Fiber::Current() {
  return current;
}

void Fiber::Resume() {
  current = this;
  SwitchIn();
  current = nullptr;
}

void Fiber::Yield() {
  SwitchOut();
}

void Fiber::Enter(unsigned high, unsigned low) {
  const std::uint64_t self = (std::uint64_t{high} << 32) | low;
  reinterpret_cast<Fiber*>(static_cast<std::uintptr_t>(self))->Run();
}

void Fiber::Run() {
#ifdef UNDER_ADDRESS_SANITIZER
  __sanitizer_finish_switch_fiber(nullptr, &iResumerStack, &iResumerStackSize);
#endif
  iBody();
  iEnded = true;
  SwitchOut();
}

void Fiber::SwitchIn() {
#ifdef UNDER_ADDRESS_SANITIZER
  __sanitizer_start_switch_fiber(&iResumerFakeStack, iStack.get(), kStackSize);
#endif
  swapcontext(&iResumer, &iOwn);
#ifdef UNDER_ADDRESS_SANITIZER
  __sanitizer_finish_switch_fiber(iResumerFakeStack, nullptr, nullptr);
#endif
}

void Fiber::SwitchOut() {
#ifdef UNDER_ADDRESS_SANITIZER
  // An ended fiber gives its fake stack back.
  __sanitizer_start_switch_fiber(iEnded ? nullptr : &iFakeStack, iResumerStack, iResumerStackSize);
#endif
  swapcontext(&iOwn, &iResumer);
#ifdef UNDER_ADDRESS_SANITIZER
  __sanitizer_finish_switch_fiber(iFakeStack, &iResumerStack, &iResumerStackSize);
#endif
}
