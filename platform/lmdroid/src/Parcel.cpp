// android::Parcel with Android's wire layout: little-endian values, every item
// padded with zero bytes to a multiple of 4.
//
// Invariant kept by every function: the bytes from mDataSize up to
// mDataCapacity are zero. Writes past the end (after setDataPosition beyond
// the size, or after setDataSize shrank the data) therefore put zeros on the
// wire rather than stale heap contents.

#include <binder/Parcel.h>

#include <climits>
#include <cstdlib>
#include <cstring>
#include <type_traits>

namespace android {

namespace {

// Largest data a Parcel holds; larger sizes come from a negative int turned
// into size_t, or from a position set far past the end.
constexpr size_t kMaxParcelSize = INT32_MAX;
constexpr size_t kMinCapacity = 64;

constexpr size_t pad_size(size_t n) { return (n + 3) & ~size_t(3); }

}  // namespace

Parcel::Parcel() : mData(nullptr), mDataSize(0), mDataCapacity(0), mDataPos(0) {}

Parcel::~Parcel() { freeData(); }

const uint8_t* Parcel::data() const { return mData; }
size_t Parcel::dataSize() const { return mDataSize; }
size_t Parcel::dataAvail() const { return mDataPos < mDataSize ? mDataSize - mDataPos : 0; }
size_t Parcel::dataPosition() const { return mDataPos; }
size_t Parcel::dataCapacity() const { return mDataCapacity; }

void Parcel::setDataPosition(size_t pos) const { mDataPos = pos; }

void Parcel::freeData() {
    free(mData);
    mData = nullptr;
    mDataSize = 0;
    mDataCapacity = 0;
    mDataPos = 0;
}

status_t Parcel::setDataCapacity(size_t size) {
    if (size <= mDataCapacity && mData != nullptr) return OK;
    if (size > kMaxParcelSize) return NO_MEMORY;
    size_t cap = size < kMinCapacity ? kMinCapacity : size;
    uint8_t* grown = static_cast<uint8_t*>(realloc(mData, cap));
    if (grown == nullptr) return NO_MEMORY;
    memset(grown + mDataCapacity, 0, cap - mDataCapacity);
    mData = grown;
    mDataCapacity = cap;
    return OK;
}

status_t Parcel::setDataSize(size_t size) {
    status_t err = setDataCapacity(size);
    if (err != OK) return err;
    if (size < mDataSize) memset(mData + size, 0, mDataSize - size);
    mDataSize = size;
    if (mDataPos > size) mDataPos = size;
    return OK;
}

status_t Parcel::setData(const uint8_t* buffer, size_t len) {
    if (len > kMaxParcelSize || (buffer == nullptr && len != 0)) return BAD_VALUE;
    // A buffer of exactly len bytes: reads past the end then land outside the
    // allocation, where the address sanitizer sees them. Copying before the
    // old buffer is freed also makes setData(data(), n) safe.
    uint8_t* fresh = static_cast<uint8_t*>(malloc(len != 0 ? len : 1));
    if (fresh == nullptr) return NO_MEMORY;
    if (len != 0) memcpy(fresh, buffer, len);
    free(mData);
    mData = fresh;
    mDataSize = len;
    mDataCapacity = len;
    mDataPos = 0;
    return OK;
}

// Makes room for len more bytes at the position, growing by half again what
// is needed so that a run of small writes does not reallocate each time.
status_t Parcel::growData(size_t len) {
    if (len > kMaxParcelSize) return BAD_VALUE;
    if (mDataPos > kMaxParcelSize - len) return NO_MEMORY;
    size_t need = mDataPos + len;
    if (need <= mDataCapacity && mData != nullptr) return OK;
    size_t cap = need + need / 2;
    if (cap > kMaxParcelSize) cap = kMaxParcelSize;
    return setDataCapacity(cap);
}

void* Parcel::writeInplace(size_t len) {
    if (len > kMaxParcelSize) return nullptr;
    const size_t padded = pad_size(len);
    if (growData(padded) != OK) return nullptr;
    uint8_t* at = mData + mDataPos;
    memset(at, 0, padded);
    mDataPos += padded;
    if (mDataPos > mDataSize) mDataSize = mDataPos;
    return at;
}

status_t Parcel::write(const void* data, size_t len) {
    if (len > kMaxParcelSize || (data == nullptr && len != 0)) return BAD_VALUE;
    void* at = writeInplace(len);
    if (at == nullptr) return NO_MEMORY;
    if (len != 0) memcpy(at, data, len);
    return OK;
}

template <typename T>
status_t Parcel::writeAligned(T val) {
    static_assert(sizeof(T) % 4 == 0, "aligned values are whole words");
    status_t err = growData(sizeof(T));
    if (err != OK) return err;
    uint8_t* at = mData + mDataPos;
    for (size_t i = 0; i < sizeof(T); ++i) at[i] = static_cast<uint8_t>(val >> (8 * i));
    mDataPos += sizeof(T);
    if (mDataPos > mDataSize) mDataSize = mDataPos;
    return OK;
}

status_t Parcel::writeInt32(int32_t val) { return writeAligned(static_cast<uint32_t>(val)); }
status_t Parcel::writeUint32(uint32_t val) { return writeAligned(val); }
status_t Parcel::writeInt64(int64_t val) { return writeAligned(static_cast<uint64_t>(val)); }
status_t Parcel::writeUint64(uint64_t val) { return writeAligned(val); }
status_t Parcel::writeBool(bool val) { return writeInt32(val ? 1 : 0); }
status_t Parcel::writeChar(char16_t val) { return writeInt32(static_cast<int32_t>(val)); }
status_t Parcel::writeByte(int8_t val) { return writeInt32(static_cast<int32_t>(val)); }

status_t Parcel::writeCString(const char* str) {
    if (str == nullptr) return BAD_VALUE;
    return write(str, strlen(str) + 1);
}

// Signed values are assembled as their unsigned bits, then converted.
template <typename T>
status_t Parcel::readAligned(T* out) const {
    using Raw = std::make_unsigned_t<T>;
    if (mDataPos > mDataSize || sizeof(T) > mDataSize - mDataPos) return NOT_ENOUGH_DATA;
    const uint8_t* at = mData + mDataPos;
    Raw val = 0;
    for (size_t i = 0; i < sizeof(T); ++i) val |= static_cast<Raw>(at[i]) << (8 * i);
    *out = static_cast<T>(val);
    mDataPos += sizeof(T);
    return OK;
}

template <typename T>
T Parcel::readOrZero() const {
    T v = 0;
    readAligned(&v);
    return v;
}

const void* Parcel::readInplace(size_t len) const {
    if (len > kMaxParcelSize) return nullptr;
    const size_t padded = pad_size(len);
    if (mDataPos > mDataSize || padded > mDataSize - mDataPos) return nullptr;
    const uint8_t* at = mData + mDataPos;
    mDataPos += padded;
    return at;
}

status_t Parcel::read(void* outData, size_t len) const {
    if (len > kMaxParcelSize) return BAD_VALUE;
    if (outData == nullptr && len != 0) return BAD_VALUE;
    const size_t padded = pad_size(len);
    if (mDataPos > mDataSize || padded > mDataSize - mDataPos) return NOT_ENOUGH_DATA;
    if (len != 0) memcpy(outData, mData + mDataPos, len);
    mDataPos += padded;
    return OK;
}

status_t Parcel::readInt32(int32_t* val) const { return readAligned(val); }
status_t Parcel::readInt64(int64_t* val) const { return readAligned(val); }
int32_t Parcel::readInt32() const { return readOrZero<int32_t>(); }
uint32_t Parcel::readUint32() const { return readOrZero<uint32_t>(); }
int64_t Parcel::readInt64() const { return readOrZero<int64_t>(); }
uint64_t Parcel::readUint64() const { return readOrZero<uint64_t>(); }

bool Parcel::readBool() const { return readInt32() != 0; }
char16_t Parcel::readChar() const { return static_cast<char16_t>(readInt32()); }
int8_t Parcel::readByte() const { return static_cast<int8_t>(readInt32()); }

const char* Parcel::readCString() const {
    if (mDataPos >= mDataSize) return nullptr;
    const char* str = reinterpret_cast<const char*>(mData + mDataPos);
    const void* nul = memchr(str, 0, mDataSize - mDataPos);
    if (nul == nullptr) return nullptr;
    size_t len = static_cast<const char*>(nul) - str;
    // The padding may lie past the end of data that was not padded; the
    // position then sits past the end and later reads fail.
    mDataPos += pad_size(len + 1);
    return str;
}

}  // namespace android
