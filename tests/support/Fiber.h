#pragma once

#include <ucontext.h>

#include <cstddef>
#include <functional>
#include <memory>

/// A function on a stack of its own that takes turns with the thread that made it. Everything happens on that
/// thread, so that a program of fibers runs the same every time.
class Fiber {
 public:
  /// Nothing runs before the first Resume.
  explicit Fiber(std::function<void()> body);
  /// The body must have ended, or never begun.
  ~Fiber();
  Fiber(const Fiber&) = delete;
  Fiber& operator=(const Fiber&) = delete;

  /// Lets the body run until it yields or ends. Not from inside a fiber.
  void Resume();
  bool Ended() const { return iEnded; }

  /// The fiber that runs now, null outside of all of them.
  static Fiber* Current();
  /// From inside: back to whoever resumed this fiber.
  void Yield();

 private:
  static void Enter(unsigned high, unsigned low);
  void Run();
  void SwitchIn();
  void SwitchOut();

  std::function<void()> iBody;
  std::unique_ptr<char[]> iStack;
  ucontext_t iOwn = {};
  ucontext_t iResumer = {};
  bool iEnded = false;

  // What AddressSanitizer wants to know of a change of stacks.
  void* iFakeStack = nullptr;
  void* iResumerFakeStack = nullptr;
  const void* iResumerStack = nullptr;
  std::size_t iResumerStackSize = 0;
};
