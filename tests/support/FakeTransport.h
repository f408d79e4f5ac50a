// FakeTransport: a stream over texts in memory. An assertion fails when one goes on writing after a failure.
#pragma once

#include <arpa/inet.h>

#include <algorithm>
#include <cassert>
#include <cstdint>
#include <set>
#include <string>
#include <vector>

namespace support {

template <class Stream>
class FakeTransport : public Stream {
  public:
    std::string input;           // what the peer sends; then it closes
    std::size_t position = 0;    // how much of it was read
    std::set<std::size_t> cuts;  // no read goes past one of these places in the input

    std::vector<std::string> writes;
    std::string written;                  // all of them
    std::size_t failingWrite = SIZE_MAX;  // the number, from 0, of the one that fails

    std::uint32_t readFromTransport(void* dst, std::uint32_t len) override {
        const auto cut = cuts.upper_bound(position);
        const std::size_t left = (cut != cuts.end() ? *cut : input.size()) - position;
        const std::size_t n = input.copy(static_cast<char*>(dst), std::min<std::size_t>(len, left), position);
        position += n;
        return static_cast<std::uint32_t>(n);
    }

    std::uint32_t writeToTransport(const void* src, std::uint32_t len) override {
        assert(writes.size() <= failingWrite);
        writes.emplace_back(static_cast<const char*>(src), len);
        written += writes.back();
        return writes.size() <= failingWrite ? len : Stream::kTransportError;
    }

    std::uint32_t makeNetworkNumber(std::uint32_t value) const override { return htonl(value); }
    std::uint32_t makeHostNumber(std::uint32_t value) const override { return ntohl(value); }
    std::uint32_t SetReadWriteTimeout(std::uint32_t) override { return 0; }
};

}  // namespace support
