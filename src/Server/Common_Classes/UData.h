// CData: an owned, growable block of bytes; the base of the text string CText.
#pragma once

#include <cstdint>

// A block of bytes with a data size (bytes stored) and a buffer size (bytes allocated).
//
// Ownership: an owned buffer comes from realloc() and is released with free(). A block may instead be laid
// over a foreign buffer, which is never resized and never freed.
//
// Errors: nothing throws. When memory is short a block keeps what it had, or stores what fits; the result
// tells.
//
// Operations call one another through their virtual slots, so that the sizing rule of a derived class holds
// inside the operations of the base too.
//
// Threads: a block is used by one thread at a time.
class CData {
  public:
    constexpr CData() noexcept = default;
    explicit CData(std::uint32_t bufferSize);  // exact allocation; 0 allocates nothing
    CData(void* buffer, std::uint32_t bufferSize, std::uint32_t dataSize);  // over a foreign buffer
    CData(const CData& other);
    CData& operator=(const CData& other);
    virtual ~CData();

    // Sets the data size to n bytes when n fits in the buffer, else leaves it. Returns the resulting data
    // size.
    virtual std::uint32_t SetUsableDataSize(std::uint32_t n);
    virtual std::uint32_t GetUsableDataSize() const;

    // Makes room for n bytes; 0 releases the storage. Growth of an existing buffer is rounded up (16-byte
    // steps up to 4096 bytes, then 4096-byte steps), a shrink by fewer than 32 bytes keeps the allocation.
    // Returns whether the buffer can hold n bytes afterwards; on false nothing changed.
    virtual bool SetBufferSize(std::uint32_t n);

    // Hands the buffer to the caller, who frees it with free(); the block is empty afterwards. Either pointer
    // may be null.
    virtual unsigned char* ReleaseBuffer(std::uint32_t* dataSize, std::uint32_t* bufferSize);

    virtual void ReleaseData();  // empties the block and frees an owned buffer
    virtual void Clear();        // empties the block and keeps the buffer

    virtual bool Equals(const CData& other) const;
    virtual bool Equals(const char* bytes, std::uint32_t n) const;

    // Replaces the content. The three-argument form stores len bytes and keeps room for bufSize bytes in all;
    // when that room cannot be had, what fits is stored with the reserve (bufSize - len) left free. src may
    // lie in this block. Both return the new data size.
    virtual std::uint32_t SetEqualTo(const CData& other);
    virtual std::uint32_t SetEqualTo(const void* src, std::uint32_t len, std::uint32_t bufSize);

    // Copies count bytes from offset start, as many as there are and fit. The last two return the number of
    // bytes.
    virtual void Copy(CData& dest, std::uint32_t start, std::uint32_t count) const;
    virtual std::uint32_t Copy(unsigned char* dest, std::uint32_t destSize) const;
    virtual std::uint32_t Copy(unsigned char* dest, std::uint32_t destSize, std::uint32_t start,
                               std::uint32_t count) const;

    // Splices: the count bytes at pos give way to the new ones. pos and count are cut to the data; when the
    // block cannot grow, nothing changes. The long form inserts the decimal digits of the number.
    virtual void Replace(std::uint32_t pos, std::uint32_t count, const CData& other);
    virtual void Replace(std::uint32_t pos, std::uint32_t count, const void* src, std::uint32_t srcLen);
    virtual void Replace(std::uint32_t pos, std::uint32_t count, unsigned char c);
    virtual void Replace(std::uint32_t pos, std::uint32_t count, long number);

    // Drops what the block holds and lays it over a foreign buffer.
    void SetBuffer(void* buffer, std::uint32_t bufferSize, std::uint32_t dataSize);

    std::uint32_t SetDataSize(std::uint32_t n);  // as SetUsableDataSize, without a derived class's rule

    std::uint32_t GetDataSize() const { return dataSize_; }
    std::uint32_t GetBufferSize() const { return bufferSize_; }

    // The bytes in place, null when nothing was ever stored; valid until the next change.
    unsigned char* GetBuffer() { return buffer_; }
    const unsigned char* GetBuffer() const { return buffer_; }

    // Byte i, or a zero byte when i lies outside the data.
    const unsigned char& operator[](std::uint32_t i) const;

  protected:
    unsigned char* buffer_ = nullptr;
    std::uint32_t dataSize_ = 0;
    std::uint32_t bufferSize_ = 0;
    bool foreign_ = false;

  private:
    // The number of bytes from p to the end of the buffer; 0 when p points elsewhere.
    std::uint32_t ownBytesFrom(const void* p) const;
};
