#pragma once

#include <cstddef>
#include <cstdint>

/// What the module takes from the C library and must give back. The executable is linked with --wrap for each
/// of the functions here, so that its own objects' calls are counted and can be made to fail.
namespace proving::resources {

enum class Call : std::uint8_t { kMalloc, kOpen, kRead, kThread };

/// The `n`-th call from now on (from 1) fails, once; 0: none does.
void FailNth(Call call, std::uint32_t n);
/// Whether the call that was to fail has come.
bool HasFailed();

/// Blocks and files taken and not given back.
std::size_t Blocks();
std::size_t Files();

/// Gives back whatever is still held, and lets nothing fail any more.
void Reset();

/// For whoever creates threads: whether this one shall fail.
bool ThreadShallFail();

}  // namespace proving::resources
