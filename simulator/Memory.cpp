#include "simulator/Memory.h"

#include <algorithm>
#include <array>
#include <limits>

namespace simulator {

namespace {

constexpr std::uint64_t kPageSize = 4096;
constexpr std::uint8_t kErased = 0xFF;

std::size_t RestOfPage(std::uint64_t address) {
  return static_cast<std::size_t>(kPageSize - address % kPageSize);
}

constexpr std::array<std::uint32_t, 256> MakeCrc32Table() {
  std::array<std::uint32_t, 256> table{};
  for (std::uint32_t index = 0; index < table.size(); ++index) {
    std::uint32_t remainder = index;
    for (int bit = 0; bit < 8; ++bit) {
      remainder = (remainder >> 1) ^ ((remainder & 1u) != 0 ? 0xEDB88320u : 0u);
    }
    table[index] = remainder;
  }
  return table;
}

constexpr std::array<std::uint32_t, 256> kCrc32Table = MakeCrc32Table();

}  // namespace

std::uint32_t Crc32(std::uint32_t crc, const std::vector<std::uint8_t>& data) {
  crc = ~crc;
  for (const std::uint8_t byte : data) {
    crc = (crc >> 8) ^ kCrc32Table[(crc ^ byte) & 0xFF];
  }
  return ~crc;
}

Memory::Memory(std::uint64_t base, std::uint64_t size) : iBase(base), iSize(size) {}

bool Memory::Contains(std::uint64_t address) const {
  return address >= iBase && address - iBase < iSize;
}

void Memory::Begin(std::uint64_t address) {
  const auto block = BlockAround(address);
  if (block != iBlocks.end()) {
    Erase(block->first);
  }
  iCurrent = address;
  iBlocks[address] = Block{};
}

bool Memory::Append(const std::vector<std::uint8_t>& data) {
  Block& block = iBlocks[iCurrent];
  const std::uint64_t begin = iCurrent + block.size;
  if (data.size() > iBase + iSize - begin) {
    return false;
  }
  EraseUpTo(begin + data.size());
  for (std::size_t done = 0; done < data.size();) {
    const std::size_t count = std::min(data.size() - done, RestOfPage(begin + done));
    std::copy_n(data.data() + done, count, &Cell(begin + done));
    done += count;
  }
  block.size += data.size();
  block.crc = Crc32(block.crc, data);
  return true;
}

void Memory::Complete() {
  const auto block = iBlocks.find(iCurrent);
  if (block != iBlocks.end()) {
    block->second.complete = true;
  }
}

bool Memory::Holds(std::uint64_t address) const {
  const auto block = BlockAround(address);
  return block != iBlocks.end() && block->second.complete && address - block->first < block->second.size;
}

bool Memory::Check(std::uint64_t address) const {
  const auto block = iBlocks.find(address);
  return block != iBlocks.end() && block->second.complete && block->second.size > 0 &&
         Crc32(0, Read(address, block->second.size)) == block->second.crc;
}

void Memory::Damage(std::uint64_t address) {
  std::uint8_t& cell = Cell(address);
  cell = static_cast<std::uint8_t>(cell ^ 0x01);
}

std::vector<std::uint8_t> Memory::Read(std::uint64_t address, std::uint64_t size) const {
  // Where addresses are shorter than 64 bits: the largest of them, which the vector refuses by itself.
  constexpr std::uint64_t kLargestSize = std::numeric_limits<std::size_t>::max();
  std::vector<std::uint8_t> bytes(static_cast<std::size_t>(std::min(size, kLargestSize)), kErased);
  for (std::size_t done = 0; done < bytes.size();) {
    const std::size_t count = std::min(bytes.size() - done, RestOfPage(address + done));
    const auto page = iPages.find((address + done) / kPageSize);
    if (page != iPages.end()) {
      std::copy_n(page->second.data() + (address + done) % kPageSize, count, bytes.data() + done);
    }
    done += count;
  }
  return bytes;
}

std::vector<std::uint8_t> Memory::Contents() const {
  if (iBlocks.empty()) {
    return {};
  }
  const std::uint64_t begin = iBlocks.begin()->first;
  return Read(begin, iBlocks.rbegin()->first + iBlocks.rbegin()->second.size - begin);
}

Memory::Blocks::const_iterator Memory::BlockAround(std::uint64_t address) const {
  auto block = iBlocks.upper_bound(address);
  if (block == iBlocks.begin()) {
    return iBlocks.end();
  }
  --block;
  const bool inside = address == block->first || address - block->first < block->second.size;
  return inside ? block : iBlocks.end();
}

void Memory::Erase(std::uint64_t address) {
  const std::uint64_t end = address + iBlocks[address].size;
  for (std::uint64_t begin = address; begin < end; begin += RestOfPage(begin)) {
    std::fill_n(&Cell(begin), std::min<std::uint64_t>(end - begin, RestOfPage(begin)), kErased);
  }
  iBlocks.erase(address);
}

void Memory::EraseUpTo(std::uint64_t end) {
  for (auto next = iBlocks.upper_bound(iCurrent); next != iBlocks.end() && next->first < end;
       next = iBlocks.upper_bound(iCurrent)) {
    Erase(next->first);
  }
}

std::uint8_t& Memory::Cell(std::uint64_t address) {
  Page& page = iPages[address / kPageSize];
  if (page.empty()) {
    page.resize(kPageSize, kErased);
  }
  return page[address % kPageSize];
}

}  // namespace simulator
