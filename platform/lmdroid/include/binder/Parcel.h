// android::Parcel for a Linux box: the same binary layout as Android's
// (little-endian, every item padded to 4 bytes, C strings NUL-terminated and
// zero-padded), so request and reply bytes are those a TV build produces.
#pragma once

#include <cstddef>
#include <cstdint>

namespace android {

typedef int32_t status_t;

enum {
    OK = 0,
    NO_ERROR = 0,
    NO_MEMORY = -12,
    BAD_VALUE = -22,
    NOT_ENOUGH_DATA = -61,
};

class Parcel {
public:
    Parcel();
    ~Parcel();
    Parcel(const Parcel&) = delete;
    Parcel& operator=(const Parcel&) = delete;

    const uint8_t* data() const;
    size_t dataSize() const;
    size_t dataAvail() const;
    size_t dataPosition() const;
    size_t dataCapacity() const;

    status_t setDataSize(size_t size);
    // Reads and writes go on from here. Positions past the end make every
    // later read fail.
    void setDataPosition(size_t pos) const;
    status_t setDataCapacity(size_t size);
    // Replaces the contents with a copy of buffer; the position goes to 0.
    status_t setData(const uint8_t* buffer, size_t len);
    void freeData();

    // Raw bytes, padded with zeros to a multiple of 4.
    status_t write(const void* data, size_t len);
    void* writeInplace(size_t len);
    status_t writeInt32(int32_t val);
    status_t writeUint32(uint32_t val);
    status_t writeInt64(int64_t val);
    status_t writeUint64(uint64_t val);
    status_t writeBool(bool val);
    status_t writeChar(char16_t val);
    status_t writeByte(int8_t val);
    status_t writeCString(const char* str);

    // Reads that run past the end return 0 (or NOT_ENOUGH_DATA) and leave
    // the position where it was.
    status_t read(void* outData, size_t len) const;
    const void* readInplace(size_t len) const;
    int32_t readInt32() const;
    status_t readInt32(int32_t* val) const;
    uint32_t readUint32() const;
    int64_t readInt64() const;
    status_t readInt64(int64_t* val) const;
    uint64_t readUint64() const;
    bool readBool() const;
    char16_t readChar() const;
    int8_t readByte() const;
    // A pointer into the Parcel's data, valid while the Parcel lives; null
    // when no NUL-terminated string starts at the position.
    const char* readCString() const;

private:
    status_t growData(size_t len);
    template <typename T> status_t writeAligned(T val);
    template <typename T> status_t readAligned(T* out) const;
    // The value read, or 0 when there is no whole value left.
    template <typename T> T readOrZero() const;

    uint8_t* mData;
    size_t mDataSize;
    size_t mDataCapacity;
    mutable size_t mDataPos;
};

}  // namespace android
