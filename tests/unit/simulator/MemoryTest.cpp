// Goal: a device's memory holds exactly what was written and knows when it no longer does.
// Method: writes of every kind at the edges of a small range.
#include "simulator/Memory.h"

#include <gtest/gtest.h>

#include "ScriptedHost.h"

namespace simulator {

namespace {

void Write(Memory& memory, std::uint64_t address, const Bytes& data) {
  memory.Begin(address);
  ASSERT_TRUE(memory.Append(data));
  memory.Complete();
}

}  // namespace

TEST(Memory, ContainsItsRangeOnly) {
  const Memory memory(0x1000, 0x100);
  EXPECT_FALSE(memory.Contains(0xFFF));
  EXPECT_TRUE(memory.Contains(0x1000));
  EXPECT_TRUE(memory.Contains(0x10FF));
  EXPECT_FALSE(memory.Contains(0x1100));
}

TEST(Memory, UnwrittenBytesReadAsFF) {
  Memory memory(0, 0x10000);
  Write(memory, 0x0FFF, {1, 2});
  EXPECT_EQ(memory.Read(0x0FFE, 4), (Bytes{0xFF, 1, 2, 0xFF}));
}

TEST(Memory, MoreBytesThanAProcessCanHoldAreNotRead) {
  const Memory memory(0, 0x10000);
  constexpr std::uint64_t kTooMany = std::uint64_t{1} << (sizeof(std::size_t) == 4 ? 32 : 63);
  EXPECT_THROW(memory.Read(0, kTooMany), std::length_error);
}

TEST(Memory, WriteThatDoesNotFitIsRefusedAndTheLastByteThatFitsIsNot) {
  Memory memory(0x1000, 0x100);
  memory.Begin(0x1080);
  EXPECT_TRUE(memory.Append(Filled(127, 1)));
  EXPECT_FALSE(memory.Append(Filled(2, 1)));
  EXPECT_TRUE(memory.Append(Filled(1, 1)));
  EXPECT_FALSE(memory.Append(Filled(1, 1)));
}

TEST(Memory, HoldsAndChecksCompletedWritesOnly) {
  Memory memory(0, 0x1000);
  memory.Begin(0x100);
  memory.Append(Filled(16, 1));
  EXPECT_FALSE(memory.Holds(0x100));
  EXPECT_FALSE(memory.Check(0x100));
  memory.Complete();
  EXPECT_TRUE(memory.Holds(0x10F));
  EXPECT_FALSE(memory.Holds(0x110));
  EXPECT_TRUE(memory.Check(0x100));
  EXPECT_FALSE(memory.Check(0x101));
}

TEST(Memory, EmptyWriteIsHeldAndCheckedAsNothing) {
  Memory memory(0, 0x1000);
  memory.Begin(0x100);
  memory.Complete();
  EXPECT_FALSE(memory.Holds(0x100));
  EXPECT_FALSE(memory.Check(0x100));
  EXPECT_EQ(memory.Contents(), Bytes{});
}

TEST(Memory, DamagedByteFailsTheCheck) {
  Memory memory(0, 0x1000);
  Write(memory, 0x100, Filled(16, 1));
  memory.Damage(0x105);
  EXPECT_FALSE(memory.Check(0x100));
  EXPECT_EQ(memory.Read(0x105, 1), Bytes{0});
}

TEST(Memory, ShorterRewriteLeavesNothingOfTheLongerOne) {
  Memory memory(0, 0x10000);
  Write(memory, 0x100, Pattern(5000));
  Write(memory, 0x100, Filled(10, 1));
  EXPECT_EQ(memory.Contents(), Filled(10, 1));
  EXPECT_EQ(memory.Read(0x100, 11), Filled(10, 1) + Filled(1, 0xFF));
}

TEST(Memory, WriteThatRunsIntoALaterOneErasesIt) {
  Memory memory(0, 0x10000);
  Write(memory, 0x200, Filled(64, 2));
  Write(memory, 0x100, Filled(0x110, 1));
  EXPECT_EQ(memory.Contents(), Filled(0x110, 1));
  EXPECT_FALSE(memory.Check(0x200));
  EXPECT_TRUE(memory.Check(0x100));
}

TEST(Memory, ContentsReachFromTheLowestToTheHighestByte) {
  Memory memory(0, 0x10000);
  Write(memory, 0x100, {1, 2});
  Write(memory, 0x104, {3});
  EXPECT_EQ(memory.Contents(), (Bytes{1, 2, 0xFF, 0xFF, 3}));
}

}  // namespace simulator
