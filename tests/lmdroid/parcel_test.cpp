// Parcel bytes against vectors written out by hand from Android's layout, and reads of short or unterminated
// data. setData allocates exactly the data, so under the address sanitizer any read past the end is an error.
#include <binder/Parcel.h>

#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <string>

using android::Parcel;

namespace {
std::string hex(const Parcel& p) {
    std::string s;
    char b[4];
    for (size_t i = 0; i < p.dataSize(); ++i) {
        snprintf(b, sizeof b, i ? " %02x" : "%02x", p.data()[i]);
        s += b;
    }
    return s;
}

}  // namespace

TEST(ParcelWrite, WordsAndPaddedBytes) {
    Parcel p;
    p.writeInt32(-2);
    p.writeInt64(0x0102030405060708);  // no alignment gap after a word
    p.writeBool(true);
    p.writeChar(char16_t(0xffff));
    p.writeByte(-1);  // sign-extended to a word
    EXPECT_EQ("fe ff ff ff 08 07 06 05 04 03 02 01 01 00 00 00 ff ff 00 00 ff ff ff ff", hex(p));
    const char* strings[][2] = {{"", "00 00 00 00"}, {"abc", "61 62 63 00"},
                                {"abcd", "61 62 63 64 00 00 00 00"}};
    for (auto& c : strings) {
        Parcel s;
        s.writeCString(c[0]);
        EXPECT_EQ(c[1], hex(s)) << '"' << c[0] << '"';
    }
    Parcel r;
    const uint8_t raw[5] = {0xa1, 0xa2, 0xa3, 0xa4, 0xa5};
    r.write(raw, sizeof raw);
    static_cast<uint8_t*>(r.writeInplace(1))[0] = 0x11;
    EXPECT_EQ("a1 a2 a3 a4 a5 00 00 00 11 00 00 00", hex(r));
}

TEST(ParcelWrite, RequestLayoutAndReadBack) {
    Parcel p;  // command word, path, flags, offset
    p.writeInt32(0x4c554d01);
    p.writeCString("/mnt/usb1/a.mp3");
    p.writeInt32(3);
    p.writeInt64(-4096);
    EXPECT_EQ("01 4d 55 4c 2f 6d 6e 74 2f 75 73 62 31 2f 61 2e 6d 70 33 00 "
              "03 00 00 00 00 f0 ff ff ff ff ff ff",
              hex(p));
    p.setDataPosition(0);
    EXPECT_EQ(0x4c554d01, p.readInt32());
    const char* path = p.readCString();
    EXPECT_EQ(reinterpret_cast<const char*>(p.data()) + 4, path);
    EXPECT_STREQ("/mnt/usb1/a.mp3", path);
    EXPECT_EQ(3, p.readInt32());
    EXPECT_EQ(-4096, p.readInt64());
    EXPECT_EQ(0u, p.dataAvail());
    Parcel q;
    q.writeUint64(UINT64_MAX);
    q.writeChar(u'\u20ac');
    q.writeByte(-7);
    q.write("xyz", 3);
    q.setDataPosition(0);
    EXPECT_EQ(UINT64_MAX, q.readUint64());
    EXPECT_EQ(u'\u20ac', q.readChar());
    EXPECT_EQ(-7, q.readByte());
    char xyz[3];
    EXPECT_EQ(android::OK, q.read(xyz, 3));
    EXPECT_EQ(0, memcmp("xyz", xyz, 3));
}

TEST(ParcelWrite, OverwriteGrowAndGapsAreZero) {
    Parcel p;
    for (int v : {1, 2, 3}) p.writeInt32(v);
    p.setDataPosition(4);
    p.writeInt32(9);   // inside: size unchanged
    p.writeInt64(-1);  // across the end: size grows
    EXPECT_EQ("01 00 00 00 09 00 00 00 ff ff ff ff ff ff ff ff", hex(p));
    p.setDataSize(4);  // shrink, then write past the end: no stale bytes come back
    p.setDataPosition(8);
    p.writeInt32(5);
    EXPECT_EQ("01 00 00 00 00 00 00 00 05 00 00 00", hex(p));
    p.setData(p.data() + 8, 4);  // a copy of its own bytes
    EXPECT_EQ("05 00 00 00", hex(p));
    for (int i = 0; i < 10000; ++i) ASSERT_EQ(android::OK, p.writeInt32(i));
    p.setDataPosition(0);
    for (int i = 0; i < 10000; ++i) ASSERT_EQ(i, p.readInt32());
    // Sizes no Parcel can reach fail and leave everything as it was.
    p.setData(p.data(), 4);
    for (size_t pos : {size_t(INT32_MAX) - 2, SIZE_MAX - 2, SIZE_MAX}) {
        p.setDataPosition(pos);
        EXPECT_NE(android::OK, p.writeInt32(1));
        EXPECT_NE(android::OK, p.writeCString("x"));
        EXPECT_EQ(nullptr, p.writeInplace(4));
        EXPECT_EQ(pos, p.dataPosition());
    }
    p.setDataPosition(4);
    EXPECT_EQ(android::BAD_VALUE, p.write("x", size_t(INT32_MAX) + 1));
    EXPECT_EQ(nullptr, p.writeInplace(SIZE_MAX - 2));  // pad_size would wrap to 0
    EXPECT_EQ("00 00 00 00", hex(p));
}

TEST(ParcelRead, ShortDataFailsAndKeepsThePosition) {
    Parcel p;
    const uint8_t bytes[] = {5, 0, 0, 0, 0x61, 0x62};  // an int32, then "ab" unterminated
    p.setData(bytes, sizeof bytes);
    EXPECT_EQ(5, p.readInt32());
    int32_t v = 77;
    EXPECT_EQ(android::NOT_ENOUGH_DATA, p.readInt32(&v));
    EXPECT_EQ(77, v);
    EXPECT_EQ(0, p.readInt64());
    EXPECT_EQ(nullptr, p.readCString());
    uint8_t buf[8];
    EXPECT_EQ(android::NOT_ENOUGH_DATA, p.read(buf, 2));  // needs its padding too
    EXPECT_EQ(android::BAD_VALUE, p.read(buf, SIZE_MAX));
    EXPECT_EQ(4u, p.dataPosition());
    const uint8_t ab[] = {0x61, 0x62, 0};  // terminated, padding missing
    p.setData(ab, sizeof ab);
    EXPECT_STREQ("ab", p.readCString());
    EXPECT_EQ(4u, p.dataPosition());
    EXPECT_EQ(nullptr, p.readCString());
    EXPECT_EQ(0, p.readInt32());
    for (size_t pos : {size_t(5), size_t(INT32_MAX), SIZE_MAX - 3, SIZE_MAX}) {
        p.setDataPosition(pos);
        EXPECT_EQ(0, p.readInt32());
        EXPECT_EQ(nullptr, p.readCString());
        EXPECT_EQ(nullptr, p.readInplace(4));
        EXPECT_EQ(android::NOT_ENOUGH_DATA, p.read(buf, 4));
        EXPECT_EQ(pos, p.dataPosition());
    }
}
