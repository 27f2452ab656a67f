#pragma once

#include <cstddef>
#include <string>

/// Lets calls of the C library and the system fail that the module and the platform make. Linking the library
/// of this name puts it between an executable's own objects and each of these functions. Unarmed it hands
/// every call on.
namespace failing_calls {

enum class Call {
  kNone,
  kMalloc,
  kFopen,
  kFread,
  kFwrite,
  kFseek,
  kFtell,
  kFclose,
  kPthreadCreate,
  kStat,
  kFstat,
  kOpen,
  kClose,
  kFlock,
  kIoctl,
  kRead,
  kWrite,
  kPoll
};

/// What a failing call sets errno to; a call that fails without an error says that there is nothing: no byte
/// read, written or stored.
constexpr int kNothing = 0;

/// The `n`-th such call (from 1) of all threads but the exempt ones fails from now on, once. A read counts
/// only if bytes wait for it, a poll only if it was not in vain, so that waiting does not change the numbers.
void Arm(Call call, int error, unsigned n);

/// Nothing fails any more. Returns whether the call that was to fail has come.
bool Disarm();

/// From now on every second write of threads that are not exempt finds a driver without room.
void SetHesitantDriver(bool hesitant);

/// The calling thread's calls are no concern of this, for as long as it lives.
void ExemptThisThread();

/// Files that were opened and not closed.
std::size_t OpenFiles();

/// Closes these.
void CloseOpenFiles();

/// Threads that pthread_create has started and whose work is not done. Those of std::thread do not count.
std::size_t RunningThreads();

/// What was written to the standard error since the last call. It goes nowhere else.
std::string TakeStandardError();

}  // namespace failing_calls
