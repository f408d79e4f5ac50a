#include "protocol/ServerList.h"

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <cstring>

#include "config/ClientKeys.h"

namespace {

constexpr char kBlanks[] = " \t\n\v\f\r";
constexpr unsigned kHighestPort = 65535;

enum Field : std::size_t { kSid, kHost, kPort, kFields };
constexpr const char* kFieldNames[kFields] = {"SID", "host", "port"};
constexpr std::size_t kFieldSizes[kFields] = {ServerEntry::kSidSize, ServerEntry::kHostSize,
                                              ServerEntry::kPortSize};

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

// The older form: one host and a value list of ports, of which the empty ones do not count.
void listFromHostAndPorts(Stanza& section, CText& list) {
    CText host;
    Attribute ports;
    section.getValue(key::VELARTO_HOST.name, host);
    section.getAttribute(key::VELARTO_PORT.name, ports);
    if (host.IsEmpty()) return;
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
    const bool isSidFine = fields < 3 || takeField(kSid, rest, ",");
    if (fields != 2 && fields != 3) {
        setFault(*text == 0 ? EntryFault::kEmpty : EntryFault::kFieldCount, kSid, fields);
    } else if (isSidFine && takeField(kHost, rest, ",")) {
        const bool isThird = fields == 3;  // blanks around it do not count
        if (isThird) rest += std::strspn(rest, kBlanks);
        if (takeField(kPort, rest, isThird ? kBlanks : ",")) judgeFields();
    }
}

bool ServerEntry::takeField(std::size_t field, const char*& from, const char* ends) {
    char* const fields[kFields] = {sid_, host_, port_};
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
    } else if (!isPortNumber(port_)) {
        setFault(EntryFault::kPortNumber, kPort, 0);
    }
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
        case EntryFault::kPortNumber:
            out.Format("the port %s is not between 1 and %u", port_, kHighestPort);
            break;
    }
    return out;
}

// ---- the list ----

ServerList::ServerList(Stanza& section) {
    section.getAttribute(key::VELARTO_SERVER.name, list_);
    CText& list = list_.value();
    if (list.IsEmpty()) {
        listFromHostAndPorts(section, list);
    } else if (isColonInsideEntries(list)) {
        swapColonsAndCommas(list);
    }
}

CText& ServerList::getEntry(std::uint32_t i, CText& out) const {
    out.Clear();
    list_.getValueListElement(i, out);
    return out;
}
