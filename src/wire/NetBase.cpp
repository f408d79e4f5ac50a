#include "wire/NetBase.h"

#include <algorithm>
#include <cstring>

NetBase::NetBase(const NetBase& other) {
    *this = other;
    resetTheRealBuffer();
}

NetBase& NetBase::operator=(const NetBase& other) {
    if (this == &other) return *this;
    reading_ = other.reading_;
    readPosition_ = other.readPosition_;
    fill_ = other.fill_;
    bytesRead_ = other.bytesRead_;
    bytesWritten_ = other.bytesWritten_;
    streamGood_ = other.streamGood_;
    return *this;
}

bool NetBase::writeBuffer(const void* src, std::uint32_t len) {
    if (reading_) {
        if (unread() != 0) return false;
        invalidateBuffer();
        reading_ = false;
    }
    if (len > kBufferSize - fill_) {
        if (!internalWrite()) return false;
        if (len >= kBufferSize) return writeLargeBlock(static_cast<const unsigned char*>(src), len);
    }
    bytesWritten_ += len;
    return putBufferData(src, len);
}

// Past the empty buffer, except for the last 1 to 4096 bytes: they wait there, so that what follows a block
// (the next length, the footer) leaves together with its tail.
bool NetBase::writeLargeBlock(const unsigned char* src, std::uint32_t len) {
    if (src == nullptr || writeBegin() == 0) return false;
    while (len > kBufferSize) {
        const std::uint32_t step = std::min(transportStep_, (len - 1) / kBufferSize * kBufferSize);
        if (writeToTransport(src, step) != step) {
            writeEnd();
            return false;
        }
        bytesWritten_ += step;
        src += step;
        len -= step;
    }
    const std::uint32_t taken = putBufferData(src, len) ? len : writeToTransport(src, len);
    if (taken != kTransportError) bytesWritten_ += len;
    writeEnd();
    return taken == len;
}

bool NetBase::readBuffer(void* dst, std::uint32_t len) {
    if (!reading_) {
        if (unread() != 0) return false;
        reading_ = true;
    }
    if (dst == nullptr) return len == 0;
    auto* out = static_cast<unsigned char*>(dst);
    while (len > unread()) {
        std::uint32_t taken = unread();
        if (taken != 0) {
            getBufferData(out, taken);
        } else if (len < kBufferSize) {
            if (!internalRead()) return false;
        } else {
            taken = receive(out, std::min(len, transportStep_));
            if (taken == 0) return false;
        }
        bytesRead_ += taken;
        out += taken;
        len -= taken;
    }
    bytesRead_ += len;
    return len == 0 || getBufferData(out, len);
}

bool NetBase::flushBuffer() {
    if (!reading_ && !internalWrite()) return false;
    return invalidateBuffer();
}

bool NetBase::invalidateBuffer() {
    readPosition_ = 0;
    fill_ = 0;
    return true;
}

bool NetBase::writeNumber(std::uint32_t value) {
    const std::uint32_t wire = makeNetworkNumber(value);
    return writeToTransport(&wire, sizeof wire) == sizeof wire;
}

bool NetBase::readNumber(std::uint32_t& value) {
    value = 0;
    std::uint32_t wire = 0;
    if (readFromTransport(&wire, sizeof wire) != sizeof wire) return false;
    value = makeHostNumber(wire);
    return true;
}

// Sends the queued output. On failure it stays queued: the connection is lost anyway.
bool NetBase::internalWrite() {
    if (unread() == 0) return true;
    if (reading_ || writeBegin() == 0) return false;
    const bool sent = writeToTransport(buffer_, fill_) == fill_;
    if (sent) {
        invalidateBuffer();
    } else {
        streamGood_ = false;
    }
    writeEnd();
    return sent;
}

// Refills the drained buffer with what one transport read returns.
bool NetBase::internalRead() {
    if (!reading_) flushBuffer();
    reading_ = true;
    fill_ = receive(buffer_, kBufferSize);
    return fill_ != 0;
}

// One transport read past the drained buffer: the bytes received, 0 when the peer closed and on error.
std::uint32_t NetBase::receive(void* dst, std::uint32_t len) {
    invalidateBuffer();
    if (readBegin() == 0) return 0;
    const std::uint32_t n = readFromTransport(dst, len);
    readEnd();
    return n == kTransportError ? 0 : std::min(n, len);
}

void NetBase::resetTheRealBuffer() {
    std::memset(buffer_, 0, sizeof buffer_);
}

bool NetBase::putBufferData(const void* src, std::uint32_t len) {
    if (src == nullptr || len > kBufferSize - fill_) return false;
    std::memcpy(buffer_ + fill_, src, len);
    fill_ += len;
    return true;
}

bool NetBase::getBufferData(unsigned char* dst, std::uint32_t len) {
    if (dst == nullptr || len > unread()) return false;
    std::memcpy(dst, buffer_ + readPosition_, len);
    readPosition_ += len;
    return true;
}
