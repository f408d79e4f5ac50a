// The two byte streams between a web server and a request: the body that it sends and the response that it takes.
#pragma once

#include <sys/uio.h>

#include <cstdint>

// The request's body.
class BodySource {
  public:
    // Fills the buffer unless the body ends before; the number of bytes, or -1 on failure.
    virtual std::int64_t read(void* buffer, std::uint32_t size) = 0;

    // The most bytes that a body may have, and the most where the web server does not tell its length; 0: such a
    // body is not read.
    virtual std::uint32_t most() const = 0;
    virtual std::uint32_t mostWithoutLength() const = 0;

  protected:
    ~BodySource() = default;
};

// The response.
class ResponseSink {
  public:
    // Takes all bytes of the pieces, which it may change; false when it could not.
    virtual bool write(iovec* pieces, int count) = 0;

  protected:
    ~ResponseSink() = default;
};
