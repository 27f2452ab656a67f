// Goal: the facts of the wire that both halves of the bootloader's XMODEM rest on are the standard's, not
// ours. Method: published check values and whole blocks written out.
#include "simulator/Xmodem.h"

#include <gtest/gtest.h>

#include "ScriptedHost.h"
#include "simulator/Memory.h"

namespace simulator {

TEST(Crc16, GivesTheStandardCheckValue) {
  EXPECT_EQ(Crc16(FromText("123456789")), 0x31C3);
}

TEST(Crc16, OfZerosIsZero) {
  EXPECT_EQ(Crc16(Filled(128, 0)), 0x0000);
}

TEST(Crc32, GivesTheStandardCheckValueInOnePieceAndInTwo) {
  EXPECT_EQ(Crc32(0, FromText("123456789")), 0xCBF43926u);
  EXPECT_EQ(Crc32(Crc32(0, FromText("1234")), FromText("56789")), 0xCBF43926u);
}

TEST(Checksum, IsTheSumModulo256) {
  EXPECT_EQ(Checksum(FromText("123456789")), 0xDD);
  EXPECT_EQ(Checksum(Filled(128, 2)), 0x00);
}

TEST(Frame, ShortBlockHasHeaderDataAndCrcHighByteFirst) {
  Bytes data = FromText("123456789");
  data.insert(data.begin(), 119, 0);  // Leading zeros leave the check value as it is.
  const Bytes frame = FrameBlock(7, data, Trailer::kCrc);
  EXPECT_EQ(frame, (Bytes{0x01, 0x07, 0xF8} + data + Bytes{0x31, 0xC3}));
}

TEST(Frame, LongBlockBeginsWithStxAndMayEndInAChecksum) {
  const Bytes frame = FrameBlock(255, Filled(1024, 1), Trailer::kChecksum);
  EXPECT_EQ(frame, (Bytes{0x02, 0xFF, 0x00} + Filled(1024, 1) + Bytes{0x00}));
}

}  // namespace simulator
