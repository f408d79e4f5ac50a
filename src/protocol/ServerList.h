// The application servers of a client's section: ServerList, the list in all its forms; ServerEntry, one of its
// entries taken apart.
#pragma once

#include <cstddef>
#include <cstdint>

#include "Server/Common_Classes/UText.h"
#include "config/Stanza.h"

// Why no connection can come of an entry.
enum class EntryFault {
    kNone,
    kEmpty,
    kFieldCount,
    kEmptyField,
    kLongField,
    kBlankInHost,
    kNoAddress,
    kPortNumber,
    kPortOfPath,
};

// An entry, "host,port" or "sid,host,port", or "path" or "sid,path" of a unix socket; a path begins with "/". A host is a
// name, an IPv4 address, or an IPv6 address in brackets or without. Nothing after an empty field counts. A field that is
// too long, or a wrong number of them, leaves host and port empty; a first field that can be the SID of such an entry is
// kept, because whoever forces that server wants no other.
class ServerEntry {
  public:
    static constexpr std::size_t kSidSize = 32;    // bytes, each with the NUL
    static constexpr std::size_t kHostSize = 254;  // a host name has up to 253 characters (RFC 1035)
    static constexpr std::size_t kPortSize = 32;
    static constexpr std::size_t kPathSize = 108;  // what the address of a unix socket takes (unix(7))

    explicit ServerEntry(const char* text);  // null counts as empty

    const char* sid() const { return sid_; }    // "" without one
    const char* host() const { return host_; }  // or path; an IPv6 address without brackets
    const char* port() const { return port_; }  // "" with a path

    // Whether it has as many fields as one of the forms, and none is too long.
    bool isTakenApart() const;

    // Whether its host is an IPv6 address or a path: a user reference by address cannot mean it.
    bool isBeyondIPv4() const;

    // A port that is no number, or too large a one, is a fault, though a connection may be tried: its digits in front
    // modulo 65536 lead to another server than the one that was meant.
    EntryFault fault() const { return fault_; }
    CText& describeFault(CText& out) const;  // for people; empty when there is none; returns out

  private:
    bool takeField(std::size_t field, const char*& from, const char* ends);
    void judgeFields();
    bool takeBracketsOff();
    void setFault(EntryFault fault, std::size_t field, std::size_t number);

    char sid_[kSidSize] = {};
    char host_[kHostSize] = {};
    char port_[kPortSize] = {};
    EntryFault fault_ = EntryFault::kNone;
    std::size_t field_ = 0;   // that has the fault: 0 SID, 1 host, 2 port, 3 path
    std::size_t number_ = 0;  // of its characters, or of the fields
};

// The servers that a section means: VELARTO_SERVER, its entries joined with ":" (or, where every entry is host:port,
// with ","); without it, each port of VELARTO_PORT on VELARTO_HOST. The section stays as it is.
//
// Every ":" ends an entry but those of an IPv6 address, which stands in the host's place of a whole entry: in brackets, or
// without them behind a SID, unless it has the form of "1::b", because "a,1::b,2" has always been two servers and an empty
// entry.
class ServerList {
  public:
    explicit ServerList(Stanza& section);

    // In the form host,port:host,port; empty when the section has no servers.
    const CText& text() const { return list_; }

    // Entries; one that is empty counts.
    std::uint32_t size() const;

    // The text of entry i. Returns out, empty when there is no such entry.
    CText& getEntry(std::uint32_t i, CText& out) const;

  private:
    CText list_;
};
