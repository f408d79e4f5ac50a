// FakeTransport: a stream over texts in memory that fails the test when a stream goes on after it was told of
// an error or a close.
#pragma once

#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <set>
#include <string>
#include <vector>

#include "wire/NetBase.h"

namespace support {

template <class Stream>
class FakeTransport : public Stream {
  public:
    static constexpr std::size_t kNever = static_cast<std::size_t>(-1);

    std::string input;              // what the peer sends; then it closes
    bool inputEndsInError = false;  // or the read fails
    std::size_t pieceSize = 4096;   // no read yields more
    std::set<std::size_t> cuts;     // no read goes past one of these places in the input

    std::vector<std::string> writes;
    std::size_t failingWrite = kNever;  // the number of the write, from 0, that fails

    std::string written() const {
        std::string all;
        for (const std::string& write : writes)
            all += write;
        return all;
    }

    std::uint32_t readFromTransport(void* dst, std::uint32_t len) override {
        EXPECT_FALSE(readEnded_) << "read again after the end";
        const auto cut = cuts.upper_bound(position_);
        const std::size_t end = std::min(cut != cuts.end() ? *cut : kNever, input.size());
        const std::size_t n = std::min({std::size_t{len}, pieceSize, end - position_});
        readEnded_ = n == 0;
        if (readEnded_) return inputEndsInError ? NetBase::kTransportError : 0;
        std::memcpy(dst, input.data() + position_, n);
        position_ += n;
        return static_cast<std::uint32_t>(n);
    }

    std::uint32_t writeToTransport(const void* src, std::uint32_t len) override {
        EXPECT_FALSE(writeFailed_) << "wrote again after a failure";
        writeFailed_ = writes.size() == failingWrite;
        if (writeFailed_) return NetBase::kTransportError;
        writes.emplace_back(static_cast<const char*>(src), len);
        return len;
    }

    std::uint32_t makeNetworkNumber(std::uint32_t value) const override { return htonl(value); }
    std::uint32_t makeHostNumber(std::uint32_t value) const override { return ntohl(value); }
    std::uint32_t SetReadWriteTimeout(std::uint32_t) override { return 0; }

  private:
    std::size_t position_ = 0;
    bool readEnded_ = false;
    bool writeFailed_ = false;
};

}  // namespace support
