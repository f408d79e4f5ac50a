#include "ServerEntry.h"

#include <cstdint>
#include <limits>
#include <optional>

#include "common/Text.h"
#include "protocol/QuilClient.h"

namespace {

constexpr std::size_t kLongestField = 31;
constexpr char kBlanks[] = " \t\n\v\f\r";

bool isBlank(const std::string& text) {
    return text.find_first_not_of(kBlanks) == std::string::npos;
}

// Why an entry yields no host and port.
std::string faultOfFields(const std::string& entry) {
    if (entry.empty()) return "the entry is empty";
    const std::vector<std::string> fields = split(entry, ',');
    const std::size_t n = fields.size();
    if (n != 2 && n != 3)
        return format("%zu field%s; an entry is host,port or sid,host,port", n, n == 1 ? "" : "s");
    static constexpr const char* kNames[] = {"SID", "host", "port"};
    for (std::size_t i = 0; i < n; ++i) {
        const char* name = kNames[i + 3 - n];
        if (isBlank(fields[i])) return format("the %s is empty", name);
        if (fields[i].size() > kLongestField)
            return format("the %s has %zu characters; at most %zu", name, fields[i].size(), kLongestField);
    }
    return "the gateway cannot take it apart";
}

// Blanks around the number do not count.
std::string faultOfPort(const std::string& port) {
    const std::size_t first = port.find_first_not_of(kBlanks);
    const std::string digits = port.substr(first, port.find_last_not_of(kBlanks) - first + 1);
    const bool isDecimal = digits.find_first_not_of("0123456789") == std::string::npos;
    const auto number = isDecimal ? parseNumber(digits) : std::nullopt;
    constexpr unsigned kHighest = std::numeric_limits<std::uint16_t>::max();
    if (number && *number >= 1 && *number <= kHighest) return "";
    return "the port " + digits + format(" is not between 1 and %u", kHighest);
}

ServerEntry takeApart(const std::string& text, std::size_t offset) {
    char sid[kLongestField + 1];
    char host[kLongestField + 1];
    char port[kLongestField + 1];
    parse_zorbi_server_param(text.c_str(), sid, host, port);
    ServerEntry entry{text, offset, sid, host, port, ""};
    if (isBlank(entry.host) || isBlank(entry.port)) {
        entry.fault = faultOfFields(text);
    } else if (entry.host.find_first_of(kBlanks) != std::string::npos) {
        entry.fault = "the host has a blank in it";
    } else {
        entry.fault = faultOfPort(entry.port);
    }
    return entry;
}

}  // namespace

std::vector<ServerEntry> entriesOf(const std::string& list) {
    std::vector<ServerEntry> entries;
    if (list.empty()) return entries;
    std::size_t offset = 0;
    for (const std::string& text : split(list, ':')) {
        entries.push_back(takeApart(text, offset));
        offset += text.size() + 1;
    }
    return entries;
}
