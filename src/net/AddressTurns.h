// The addresses of a host, and how a connection takes turns at them.
#pragma once

#include <cstdint>

#include "Server/Common_Classes/UText.h"

// The addresses that a host stands for, joined with ",": an address or a path (see AddressFamily()) stands for itself, a
// name for its first IPv4 address, or with all for each of both families in the order of RFC 6724. A look-up takes as long
// as the system gives it. Returns out, empty when there is no address.
CText& ListAddresses(const char* host, bool all, CText& out);

// One thread at a time.
class AddressTurns {
  public:
    // Of such a list, which must outlive the object. All turns together may take the milliseconds, which begin with the
    // first.
    AddressTurns(const CText& addresses, std::uint32_t milliseconds)
        : rest_(addresses.GetTextEx()), left_(milliseconds) {}

    // The next address, and the milliseconds that it may take: its share of what is left. False when there is none.
    bool next(CText& address, std::uint32_t& milliseconds);

  private:
    const char* rest_;
    std::int64_t left_;      // milliseconds
    std::int64_t seen_ = 0;  // when the clock was read last, nanoseconds
};
