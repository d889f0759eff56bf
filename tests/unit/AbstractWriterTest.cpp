#include <gtest/gtest.h>

#include <algorithm>
#include <vector>

#include "DBTestSupport.h"
#include "snapshot/AbstractWriter.h"

namespace {

TEST(AbstractWriterTest, PrimitivesAreLittleEndian) {
  MemoryWriter writer(64);
  writer.writeByte(0x1FF);
  writer.writeShort(0x1234);
  writer.writeInt(-2);
  writer.writeLong(0x0102030405060708LL);
  writer.writeFloat(1.0f);
  writer.writeDouble(-2.0);
  writer.writeOID(0x7777777712345678LL);
  EXPECT_EQ((std::vector<unsigned char>{0xFF, 0x34, 0x12, 0xFE, 0xFF, 0xFF, 0xFF, 0x08, 0x07, 0x06, 0x05,
                                        0x04, 0x03, 0x02, 0x01, 0x00, 0x00, 0x80, 0x3F, 0, 0, 0, 0, 0, 0,
                                        0x00, 0xC0, 0x78, 0x56, 0x34, 0x12}),
            writer.bytes());
}

TEST(AbstractWriterTest, StringsCarryTheirLengthAndNullIsMinusOne) {
  MemoryWriter writer(64);
  writer.writeString("");
  writer.writeString(nullptr);
  writer.writeString("h\xC3\xA9");
  wchar_t wide[] = {L'A', static_cast<wchar_t>(0x1E9E3)};
  writer.writeWString(2, wide);
  EXPECT_EQ((std::vector<unsigned char>{0, 0, 0, 0, 0xFF, 0xFF, 0xFF, 0xFF, 3, 0, 0, 0, 'h', 0xC3, 0xA9, 2, 0, 0,
                                        0, 'A', 0, 0xE3, 0xE9}),
            writer.bytes());
}

TEST(AbstractWriterTest, AFullBufferFlushesBeforeTheNextByteNotAfterTheLast) {
  MemoryWriter writer(4);
  writer.writeInt(1);
  EXPECT_EQ(0, writer.myFlushes);
  EXPECT_EQ(4, writer.getBufferedCount());
  writer.writeByte(2);
  EXPECT_EQ(1, writer.myFlushes);
  EXPECT_EQ(1, writer.getBufferedCount());
  EXPECT_EQ((std::vector<unsigned char>{1, 0, 0, 0, 2}), writer.bytes());
}

TEST(AbstractWriterTest, IntsAndLongsAcrossTheBufferEndKeepTheirBytes) {
  // Every buffer size from one byte up puts the boundary somewhere inside an int or a long.
  // The buffer never holds more than its capacity: a byte past it would go unseen in the output.
  auto write = [](jint capacity) {
    MemoryWriter writer(capacity);
    jint most = 0;
    auto note = [&]() { most = std::max(most, writer.getBufferedCount()); };
    writer.writeByte(9);
    writer.writeInt(0x04030201);
    note();
    writer.writeOID(-3);
    note();
    writer.writeLong(0x0D0C0B0A08070605LL);
    note();
    writer.writeInt(-0x10000000);
    note();
    EXPECT_LE(most, capacity);
    return writer.bytes();
  };
  std::vector<unsigned char> expected{9, 1, 2, 3, 4, 0xFD, 0xFF, 0xFF, 0xFF, 5, 6, 7, 8, 0x0A, 0x0B, 0x0C, 0x0D, 0, 0, 0, 0xF0};
  for (jint capacity = 1; capacity <= 12; capacity++) {
    EXPECT_EQ(expected, write(capacity)) << "buffer of " << capacity;
  }
}

}  // namespace
