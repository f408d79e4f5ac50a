#include "Server/Common_Classes/UData.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "Server/Common_Classes/MemoryWatch.h"

namespace {

// A shrink that would give back fewer bytes than this is not worth a reallocation.
constexpr std::uint32_t kLeastShrink = 32;

// Growth goes in small steps while the buffer is small, in pages beyond.
constexpr std::uint32_t kSmallBuffer = 4096;
constexpr std::uint32_t kSmallStep = 16;
constexpr std::uint32_t kLargeStep = 4096;

// The least multiple of the step above n, or 0 when 32 bits cannot hold it.
std::uint32_t roundUp(std::uint32_t n, std::uint32_t bufferSize) {
    const std::uint32_t step = bufferSize <= kSmallBuffer ? kSmallStep : kLargeStep;
    return (n & ~(step - 1)) + step;
}

// memmove that takes null for "no bytes".
void moveBytes(unsigned char* dest, const void* src, std::uint32_t n) {
    if (src != nullptr && n != 0) std::memmove(dest, src, n);
}

}  // namespace

CData::CData(std::uint32_t bufferSize) {
    if (bufferSize != 0) CData::SetBufferSize(bufferSize);
}

CData::CData(void* buffer, std::uint32_t bufferSize, std::uint32_t dataSize) {
    SetBuffer(buffer, bufferSize, dataSize);
}

CData::CData(const CData& other) {
    CData::SetEqualTo(other);
}

CData& CData::operator=(const CData& other) {
    SetEqualTo(other);
    return *this;
}

CData::~CData() {
    if (!foreign_) std::free(buffer_);
}

std::uint32_t CData::SetUsableDataSize(std::uint32_t n) {
    return SetDataSize(n);
}

std::uint32_t CData::GetUsableDataSize() const {
    return dataSize_;
}

std::uint32_t CData::SetDataSize(std::uint32_t n) {
    if (n <= bufferSize_) dataSize_ = n;
    return dataSize_;
}

bool CData::SetBufferSize(std::uint32_t n) {
    if (foreign_) return n <= bufferSize_;
    if (n == 0) {
        ReleaseData();
        return true;
    }
    if (n <= bufferSize_ && bufferSize_ - n < kLeastShrink) return true;

    const bool grows = bufferSize_ != 0 && n > bufferSize_;
    const std::uint32_t size = grows ? roundUp(n, bufferSize_) : n;
    if (size == 0) return false;

    void* resized = std::realloc(buffer_, size);
    if (resized == nullptr) {
        MemoryWatch::countFailure();
        return n <= bufferSize_;
    }
    const bool first = buffer_ == nullptr;
    buffer_ = static_cast<unsigned char*>(resized);
    if (first) buffer_[0] = 0;
    bufferSize_ = size;
    dataSize_ = std::min(dataSize_, size);
    return true;
}

void CData::SetBuffer(void* buffer, std::uint32_t bufferSize, std::uint32_t dataSize) {
    ReleaseData();
    buffer_ = static_cast<unsigned char*>(buffer);
    bufferSize_ = buffer == nullptr ? 0 : bufferSize;
    dataSize_ = std::min(dataSize, bufferSize_);
    foreign_ = true;
}

unsigned char* CData::ReleaseBuffer(std::uint32_t* dataSize, std::uint32_t* bufferSize) {
    if (dataSize != nullptr) *dataSize = dataSize_;
    if (bufferSize != nullptr) *bufferSize = bufferSize_;
    unsigned char* released = buffer_;
    buffer_ = nullptr;
    dataSize_ = 0;
    bufferSize_ = 0;
    return released;
}

void CData::ReleaseData() {
    Clear();
    if (!foreign_) {
        std::free(buffer_);
        buffer_ = nullptr;
    }
    bufferSize_ = 0;
}

void CData::Clear() {
    dataSize_ = 0;
    if (bufferSize_ != 0) buffer_[0] = 0;
}

bool CData::Equals(const CData& other) const {
    return dataSize_ == other.dataSize_ &&
           (dataSize_ == 0 || std::memcmp(buffer_, other.buffer_, dataSize_) == 0);
}

bool CData::Equals(const char* bytes, std::uint32_t n) const {
    return dataSize_ == n && (n == 0 || std::memcmp(buffer_, bytes, n) == 0);
}

std::uint32_t CData::SetEqualTo(const CData& other) {
    if (const std::uint32_t own = ownBytesFrom(other.buffer_); own != 0) {
        // The bytes move before the buffer is resized: resizing first could take them away.
        const std::uint32_t n = std::min(other.dataSize_, own);
        moveBytes(buffer_, other.buffer_, n);
        dataSize_ = n;
        SetBufferSize(n);
    } else if (SetBufferSize(other.dataSize_) && buffer_ != nullptr) {
        moveBytes(buffer_, other.buffer_, other.dataSize_);
        dataSize_ = other.dataSize_;
    }
    return dataSize_;
}

std::uint32_t CData::SetEqualTo(const void* src, std::uint32_t len, std::uint32_t bufSize) {
    const std::uint32_t need = std::max(len, bufSize);
    if (const std::uint32_t own = ownBytesFrom(src); own != 0) {
        len = std::min(len, own);
    } else if (!SetBufferSize(need)) {
        const std::uint32_t reserve = need - len;
        if (reserve >= bufferSize_) {
            Clear();
            return dataSize_;
        }
        len = std::min(len, bufferSize_ - reserve);
    }
    if (buffer_ != nullptr) {
        moveBytes(buffer_, src, len);
        dataSize_ = len;
    }
    return dataSize_;
}

void CData::Copy(CData& dest, std::uint32_t start, std::uint32_t count) const {
    start = std::min(start, dataSize_);
    dest.SetEqualTo(buffer_ + start, std::min(dataSize_ - start, count), 0);
}

std::uint32_t CData::Copy(unsigned char* dest, std::uint32_t destSize) const {
    return CData::Copy(dest, destSize, 0, dataSize_);
}

std::uint32_t CData::Copy(unsigned char* dest, std::uint32_t destSize, std::uint32_t start,
                          std::uint32_t count) const {
    if (dest == nullptr || start >= dataSize_) return 0;
    const std::uint32_t n = std::min({dataSize_ - start, count, destSize});
    moveBytes(dest, buffer_ + start, n);
    return n;
}

void CData::Replace(std::uint32_t pos, std::uint32_t count, const CData& other) {
    Replace(pos, count, other.buffer_, other.dataSize_);
}

void CData::Replace(std::uint32_t pos, std::uint32_t count, const void* src, std::uint32_t srcLen) {
    if (dataSize_ == 0) {
        SetEqualTo(src, srcLen, 0);
        return;
    }
    if (srcLen != 0 && ownBytesFrom(src) != 0) {  // the splice would move its own source away
        CData copy;
        if (copy.SetEqualTo(src, srcLen, 0) == srcLen) Replace(pos, count, copy.buffer_, srcLen);
        return;
    }

    pos = std::min(pos, dataSize_);
    count = std::min(count, dataSize_ - pos);
    if (srcLen > count) {
        const std::uint32_t extra = srcLen - count;
        if (extra > bufferSize_ - dataSize_ &&
            (extra > UINT32_MAX - bufferSize_ || !SetBufferSize(bufferSize_ + extra))) {
            return;
        }
    }
    const std::uint32_t tail = dataSize_ - pos - count;
    moveBytes(buffer_ + pos + srcLen, buffer_ + pos + count, tail);
    moveBytes(buffer_ + pos, src, srcLen);
    dataSize_ = pos + srcLen + tail;
}

void CData::Replace(std::uint32_t pos, std::uint32_t count, unsigned char c) {
    Replace(pos, count, &c, 1);
}

void CData::Replace(std::uint32_t pos, std::uint32_t count, long number) {
    char digits[24];
    const int n = std::snprintf(digits, sizeof digits, "%ld", number);
    Replace(pos, count, digits, static_cast<std::uint32_t>(n));
}

const unsigned char& CData::operator[](std::uint32_t i) const {
    static constexpr unsigned char zero = 0;
    return i < dataSize_ ? buffer_[i] : zero;
}

std::uint32_t CData::ownBytesFrom(const void* p) const {
    const std::uintptr_t offset =
        reinterpret_cast<std::uintptr_t>(p) - reinterpret_cast<std::uintptr_t>(buffer_);
    return offset < bufferSize_ ? bufferSize_ - static_cast<std::uint32_t>(offset) : 0;
}
