// A CGI program's streams (RFC 3875, 4.2 and 6): standard input and standard output.
#pragma once

#include "cgi/WebServerStreams.h"

class StandardInput final : public BodySource {
  public:
    std::int64_t read(void* buffer, std::uint32_t size) override;
    std::uint32_t most() const override { return 0xFFFFFFFF; }
    std::uint32_t mostWithoutLength() const override { return 0; }
};

// Async-signal-safe.
class StandardOutput final : public ResponseSink {
  public:
    bool write(iovec* pieces, int count) override;
};
