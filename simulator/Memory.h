#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <vector>

namespace simulator {

/// CRC-32 with the reflected polynomial 0xEDB88320, continued from `crc` (0 to begin).
std::uint32_t Crc32(std::uint32_t crc, const std::vector<std::uint8_t>& data);

/// One address range of a device. Bytes that were never written read as 0xFF. Only what was written takes
/// space in the simulator: at most the range's size.
class Memory {
 public:
  Memory(std::uint64_t base, std::uint64_t size);

  bool Contains(std::uint64_t address) const;
  /// Begins a write at `address`, which must be contained; erases the earlier write that this address lies
  /// in.
  void Begin(std::uint64_t address);
  /// Continues the write. False if the bytes do not all fit the range; nothing is stored then.
  bool Append(const std::vector<std::uint8_t>& data);
  /// Ends the write. Without it, its bytes can be read but count for nothing.
  void Complete();
  /// True if `address` lies in a completed write.
  bool Holds(std::uint64_t address) const;
  /// True if a completed write of at least one byte began at `address` and the bytes there are still the ones
  /// that were received.
  bool Check(std::uint64_t address) const;
  /// Inverts one bit at `address`, as a worn-out cell would.
  void Damage(std::uint64_t address);

  /// Throws std::length_error for more bytes than a process can hold.
  std::vector<std::uint8_t> Read(std::uint64_t address, std::uint64_t size) const;
  /// Everything from the lowest to the highest byte written; empty if there is none.
  std::vector<std::uint8_t> Contents() const;

 private:
  struct Block {
    std::uint64_t size = 0;
    std::uint32_t crc = 0;
    bool complete = false;
  };
  using Blocks = std::map<std::uint64_t, Block>;
  using Page = std::vector<std::uint8_t>;

  Blocks::const_iterator BlockAround(std::uint64_t address) const;
  void Erase(std::uint64_t address);
  void EraseUpTo(std::uint64_t end);
  std::uint8_t& Cell(std::uint64_t address);

  std::uint64_t iBase;
  std::uint64_t iSize;
  std::uint64_t iCurrent = 0;
  Blocks iBlocks;
  std::map<std::uint64_t, Page> iPages;
};

}  // namespace simulator
