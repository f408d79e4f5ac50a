// NetBase: the half-duplex buffered stream under every connection.
#pragma once

#include <cstdint>

// One 4096-byte buffer, used for output or for input, over a transport that a derived class supplies. Output
// is collected until the buffer would overflow or is flushed; input is read in blocks of up to 4096 bytes and
// handed out piecewise. Large blocks pass the buffer by. Switching direction requires a drained buffer: a
// writer flushes before it reads, a reader takes all input before it writes.
//
// Errors: every operation reports failure by a false result; afterwards the position in the byte stream is
// undefined and the connection is abandoned. Threads: one at a time.
class NetBase {
  public:
    static constexpr std::uint32_t kBufferSize = 4096;
    static constexpr std::uint32_t kTransportError = 0xFFFFFFFFu;

    NetBase() { resetTheRealBuffer(); }
    NetBase(const NetBase& other);  // state and counters; the buffered bytes are not copied
    NetBase& operator=(const NetBase& other);

    // ---- the transport ----
    // At most len bytes into dst: the count, 0 when the peer closed, kTransportError on error or time-out.
    virtual std::uint32_t readFromTransport(void* dst, std::uint32_t len) = 0;
    // All len bytes: the count, kTransportError on error or time-out.
    virtual std::uint32_t writeToTransport(const void* src, std::uint32_t len) = 0;
    // Bracket every refill, flush and large block; 0 from a begin stops it.
    virtual std::uint32_t readBegin() { return 1; }
    virtual void readEnd() {}
    virtual std::uint32_t writeBegin() { return 1; }
    virtual void writeEnd() {}
    virtual std::uint32_t makeNetworkNumber(std::uint32_t hostValue) const = 0;
    virtual std::uint32_t makeHostNumber(std::uint32_t wireValue) const = 0;
    virtual ~NetBase() = default;
    virtual std::uint32_t SetReadWriteTimeout(std::uint32_t milliseconds) = 0;  // returns the previous one

    // ---- the stream ----
    // Queues or sends len bytes. Blocks of 4096 bytes and more go straight to the transport, except for their
    // last 1 to 4096 bytes, which wait for a flush.
    bool writeBuffer(const void* src, std::uint32_t len);
    // Takes exactly len bytes. As long as 4096 bytes and more are missing, they are received into dst itself.
    bool readBuffer(void* dst, std::uint32_t len);
    // Sends what is queued; when reading, drops unread input.
    bool flushBuffer();
    bool invalidateBuffer();  // drops what is buffered; always true

    // One number straight to or from the transport, past the buffer.
    bool writeNumber(std::uint32_t value);
    bool readNumber(std::uint32_t& value);

    bool isStreamGood() const { return streamGood_; }
    std::uint32_t bytesRead() const { return bytesRead_; }  // handed out since construction, modulo 2^32
    std::uint32_t bytesWritten() const { return bytesWritten_; }  // accepted since construction, modulo 2^32

  protected:
    void markStreamBad() { streamGood_ = false; }

    // How many bytes of a large block one transport call is to move: a positive multiple of kBufferSize, and
    // just that unless a transport that does better with more says so. A copy starts with kBufferSize again.
    void setTransportStep(std::uint32_t bytes) { transportStep_ = bytes; }

  private:
    bool internalWrite();
    bool internalRead();
    std::uint32_t receive(void* dst, std::uint32_t len);
    bool putBufferData(const void* src, std::uint32_t len);
    bool getBufferData(unsigned char* dst, std::uint32_t len);
    void resetTheRealBuffer();
    bool writeLargeBlock(const unsigned char* src, std::uint32_t len);
    std::uint32_t unread() const { return fill_ - readPosition_; }

    unsigned char buffer_[kBufferSize];
    bool reading_ = false;
    std::uint32_t readPosition_ = 0;  // next input byte to hand out; 0 while writing
    std::uint32_t fill_ = 0;          // valid bytes: input received, or output queued
    std::uint32_t bytesRead_ = 0;
    std::uint32_t bytesWritten_ = 0;
    bool streamGood_ = true;
    std::uint32_t transportStep_ = kBufferSize;
};
