#include "protocol/ServerList.h"

#include <arpa/inet.h>
#include <sys/socket.h>

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <cstring>

#include "config/Attribute.h"
#include "config/ClientKeys.h"
#include "platform/AddressFamily.h"

namespace {

constexpr char kBlanks[] = " \t\n\v\f\r";
constexpr unsigned kHighestPort = 65535;

enum Field : std::size_t { kSid, kHost, kPort, kPath, kFields };
constexpr const char* kFieldNames[kFields] = {"SID", "host", "port", "path"};
constexpr std::size_t kFieldSizes[kFields] = {ServerEntry::kSidSize, ServerEntry::kHostSize,
                                              ServerEntry::kPortSize, ServerEntry::kPathSize};

bool isBlank(const char* text) {
    return text[std::strspn(text, kBlanks)] == 0;
}

// Blanks around the number do not count.
bool isPortNumber(const char* text) {
    text += std::strspn(text, kBlanks);
    if (!isBlank(text + std::strspn(text, "0123456789"))) return false;
    const unsigned long number = std::strtoul(text, nullptr, 10);
    return number >= 1 && number <= kHighestPort;
}

// Whether the piece up to end is a host, a colon and a decimal port.
bool isHostColonPort(const char* piece, const char* end) {
    const auto* colon =
        static_cast<const char*>(std::memchr(piece, ':', static_cast<std::size_t>(end - piece)));
    if (colon == nullptr || colon == piece || colon + 1 == end) return false;
    return std::all_of(colon + 1, end,
                       [](char c) { return std::isdigit(static_cast<unsigned char>(c)) != 0; });
}

bool isColonInsideEntries(const CText& list) {
    for (const char* piece = list.GetTextEx();; ++piece) {
        const char* end = piece + std::strcspn(piece, ",");
        if (!isHostColonPort(piece, end)) return false;
        piece = end;
        if (*piece == 0) return true;
    }
}

void swapColonsAndCommas(CText& list) {
    for (std::uint32_t i = 0; i < list.Length(); ++i) {
        unsigned char& c = list.GetBuffer()[i];
        if (c == ':') {
            c = ',';
        } else if (c == ',') {
            c = ':';
        }
    }
}

// Whether the address, with a SID before it, could also be a port, an empty entry and a host: "a,1::b,2" are two servers.
bool canBePortAndHost(const char* address) {
    const char* colons = address + std::strspn(address, "0123456789");
    return colons != address && std::strncmp(colons, "::", 2) == 0 && std::strchr(colons + 2, ':') == nullptr;
}

// The length of an entry with an IPv6 address at the beginning of a list; 0 when none is there.
std::size_t lengthWithIPv6(const char* list) {
    const char* host = list;
    if (*host != '[') {  // a SID
        host += std::strcspn(host, ":,");
        if (host == list || *host != ',') return 0;
        ++host;
    }
    const bool isInBrackets = *host == '[';
    const char* begin = host + (isInBrackets ? 1 : 0);
    const std::size_t length = std::strcspn(begin, "],");
    char address[INET6_ADDRSTRLEN] = {};
    if (length >= sizeof address) return 0;
    std::memcpy(address, begin, length);
    if (AddressFamily(address) != AF_INET6 || (!isInBrackets && canBePortAndHost(address))) return 0;

    const char* comma = begin + length;
    if (isInBrackets && *comma++ != ']') return 0;
    const std::size_t digits = *comma == ',' ? std::strspn(comma + 1, "0123456789") : 0;
    if (digits == 0) return 0;
    const char* end = comma + 1 + digits;
    return *end == ':' || *end == 0 ? static_cast<std::size_t>(end - list) : 0;
}

// The length of the first entry of a list.
std::size_t entryLength(const char* list) {
    const std::size_t length = lengthWithIPv6(list);
    return length != 0 ? length : std::strcspn(list, ":");
}

// The older form: one host and a value list of ports, of which the empty ones do not count.
void listFromHostAndPorts(Stanza& section, CText& list) {
    CText host;
    Attribute ports;
    section.getValue(key::VELARTO_HOST.name, host);
    section.getAttribute(key::VELARTO_PORT.name, ports);
    if (host.IsEmpty()) return;
    if (AddressFamily(host.GetTextEx()) == AF_INET6) {
        const CText address(host);
        host.Format("[%s]", address.GetTextEx());
    }
    for (std::uint32_t i = 0; i < ports.getValueListElementCount(); ++i) {
        CText port;
        ports.getValueListElement(i, port);
        if (port.IsEmpty()) continue;
        if (!list.IsEmpty()) list += ':';
        list += host;
        list += ',';
        list += port;
    }
}

}  // namespace

// ---- an entry ----

ServerEntry::ServerEntry(const char* text) {
    if (text == nullptr) text = "";
    const auto fields = 1 + static_cast<std::size_t>(std::count(text, text + std::strlen(text), ','));
    const char* rest = text;
    const char* last = fields == 2 ? std::strchr(text, ',') + 1 : text;
    const bool isPath = fields <= 2 && *last == '/';
    const bool isSidFine = fields < (isPath ? 2 : 3) || takeField(kSid, rest, ",");
    if (isPath) {
        if (isSidFine) takeField(kPath, rest, "");
    } else if (fields != 2 && fields != 3) {
        setFault(*text == 0 ? EntryFault::kEmpty : EntryFault::kFieldCount, kSid, fields);
    } else if (isSidFine && takeField(kHost, rest, ",")) {
        const bool isThird = fields == 3;  // blanks around it do not count
        if (isThird) rest += std::strspn(rest, kBlanks);
        if (takeField(kPort, rest, isThird ? kBlanks : ",")) judgeFields();
    }
}

bool ServerEntry::takeField(std::size_t field, const char*& from, const char* ends) {
    char* const fields[kFields] = {sid_, host_, port_, host_};
    const std::size_t length = std::strcspn(from, ends);
    if (length == 0) {
        setFault(EntryFault::kEmptyField, field, 0);
    } else if (length >= kFieldSizes[field]) {
        setFault(EntryFault::kLongField, field, length);
        host_[0] = 0;
    } else {
        std::memcpy(fields[field], from, length);
        from += length + 1;
    }
    return fault_ == EntryFault::kNone;
}

void ServerEntry::judgeFields() {
    if (isBlank(host_) || isBlank(port_)) {
        setFault(EntryFault::kEmptyField, isBlank(host_) ? kHost : kPort, 0);
    } else if (std::strpbrk(host_, kBlanks) != nullptr) {
        setFault(EntryFault::kBlankInHost, kHost, 0);
    } else if (AddressFamily(host_) == AF_UNIX) {
        setFault(EntryFault::kPortOfPath, kPort, 0);
        host_[0] = 0;
    } else if (!takeBracketsOff()) {
        setFault(EntryFault::kNoAddress, kHost, 0);
    } else if (!isPortNumber(port_)) {
        setFault(EntryFault::kPortNumber, kPort, 0);
    }
}

// False when what stands in them, or has a colon in it, is no IPv6 address.
bool ServerEntry::takeBracketsOff() {
    if (std::strpbrk(host_, "[]:") == nullptr) return true;
    const std::size_t length = std::strlen(host_);
    char bare[kHostSize] = {};
    const bool isInBrackets = host_[0] == '[' && host_[length - 1] == ']';
    std::memcpy(bare, host_ + (isInBrackets ? 1 : 0), length - (isInBrackets ? 2 : 0));
    if (AddressFamily(bare) != AF_INET6) return false;
    std::memcpy(host_, bare, sizeof bare);
    return true;
}

void ServerEntry::setFault(EntryFault fault, std::size_t field, std::size_t number) {
    fault_ = fault;
    field_ = field;
    number_ = number;
}

bool ServerEntry::isTakenApart() const {
    return fault_ != EntryFault::kEmpty && fault_ != EntryFault::kFieldCount &&
           fault_ != EntryFault::kLongField;
}

bool ServerEntry::isBeyondIPv4() const {
    const int family = AddressFamily(host_);
    return family == AF_INET6 || family == AF_UNIX;
}

CText& ServerEntry::describeFault(CText& out) const {
    out.Clear();
    switch (fault_) {
        case EntryFault::kNone:
            break;
        case EntryFault::kEmpty:
            out = "the entry is empty";
            break;
        case EntryFault::kFieldCount:
            out.Format("%zu field%s; an entry is host,port or sid,host,port", number_,
                       number_ == 1 ? "" : "s");
            break;
        case EntryFault::kEmptyField:
            out.Format("the %s is empty", kFieldNames[field_]);
            break;
        case EntryFault::kLongField:
            out.Format("the %s has %zu characters; at most %zu", kFieldNames[field_], number_,
                       kFieldSizes[field_] - 1);
            break;
        case EntryFault::kBlankInHost:
            out = "the host has a blank in it";
            break;
        case EntryFault::kNoAddress:
            out.Format("%s is no IPv6 address", host_);
            break;
        case EntryFault::kPortOfPath:
            out = "the path of a unix socket has no port";
            break;
        case EntryFault::kPortNumber:
            out.Format("the port %s is not between 1 and %u", port_, kHighestPort);
            break;
    }
    return out;
}

// ---- the list ----

ServerList::ServerList(Stanza& section) {
    section.getValue(key::VELARTO_SERVER.name, list_);
    if (list_.IsEmpty()) {
        listFromHostAndPorts(section, list_);
    } else if (isColonInsideEntries(list_)) {
        swapColonsAndCommas(list_);
    }
}

std::uint32_t ServerList::size() const {
    if (list_.IsEmpty()) return 0;
    std::uint32_t count = 1;
    for (const char* entry = list_.GetTextEx(); *(entry += entryLength(entry)) != 0; ++entry)
        ++count;
    return count;
}

CText& ServerList::getEntry(std::uint32_t i, CText& out) const {
    const char* entry = list_.GetTextEx();
    for (; i > 0 && *entry != 0; --i) {
        entry += entryLength(entry);
        if (*entry != 0) ++entry;
    }
    out.Clear();
    if (*entry != 0) out.SetEqualTo(entry, static_cast<std::uint32_t>(entryLength(entry)), 0);
    return out;
}
