// What selects a server: user references in cookies, query string and body, the forced SID, the entries of
// the server list, and the cookies that tell what was chosen; each against a second opinion.
//
// Input: cookies, query string, name of the query argument, server entry and client name, each with a zero
// byte after it; then the body.
#include <vector>

#include "Fuzz.h"

namespace {

constexpr std::size_t kLongestField = 31;

using Texts = std::vector<std::string>;

class Client : public fuzz::Client {
  public:
    using fuzz::Client::connectToServer;

    bool connectToServer(const char* host, const char* port) override {
        setServer(host, port, 0x7F000001, 18155);
        return true;
    }
};

Texts split(const std::string& text, char separator) {
    Texts parts;
    std::size_t from = 0;
    for (std::size_t at; (at = text.find(separator, from)) != std::string::npos; from = at + 1)
        parts.push_back(text.substr(from, at - from));
    parts.push_back(text.substr(from));
    return parts;
}

// ---- second opinions ----

std::string valueOf(const std::string& pairs, const std::string& name, char separator) {
    if (name.empty()) return "";
    const std::string text = pairs.c_str();  // up to a zero byte
    std::size_t at = 0;
    while ((at = text.find(name, at)) != std::string::npos) {
        const std::size_t end = at + name.size();
        const std::size_t equals = std::min(text.find_first_not_of(' ', end), text.size());
        if (text[equals] == '=') {
            const std::size_t after = equals + 1;
            const std::size_t begin =
                equals == end ? after : std::min(text.find_first_not_of(' ', after), text.size());
            const std::string ends = {'\r', '\n', separator};
            return text.substr(begin, text.find_first_of(ends, begin) - begin);
        }
        at = text.find(separator, equals);
    }
    return "";
}

std::string userReference(const std::string& cookies, const std::string& query, const std::string& body) {
    for (const std::string& value :
         {valueOf(cookies, "Velarto_UserReference", ';'), valueOf(query, "_UserReference", '&'),
          valueOf(body, "_UserReference", '&')}) {
        if (value.size() == 28 || value.size() == 36) return value;
    }
    return "";
}

// SID, address and port that a user reference holds.
Texts decoded(const std::string& reference) {
    if (reference.size() == 28) return {reference.substr(0, 4), "", ""};
    const auto number = [&](std::size_t at, std::size_t n) {
        return std::to_string(
            static_cast<unsigned>(std::strtol(reference.substr(at, n).c_str(), nullptr, 16)));
    };
    return {"", number(0, 2) + "." + number(2, 2) + "." + number(4, 2) + "." + number(6, 2), number(8, 4)};
}

// SID, host and port of a server entry; nothing after an empty field counts.
Texts entryFields(const std::string& entry) {
    constexpr char kBlanks[] = " \t\n\v\f\r";
    Texts fields = split(entry, ',');
    if (fields.size() != 2 && fields.size() != 3) return {"", "", ""};
    if (fields.size() == 3) {
        std::string& port = fields[2];
        port.erase(0, port.find_first_not_of(kBlanks));
        port.erase(std::min(port.find_first_of(kBlanks), port.size()));
    }
    for (std::size_t i = 0; i < fields.size(); ++i) {
        if (fields[i].size() > kLongestField) return {"", "", ""};
        if (fields[i].empty()) std::fill(fields.begin() + static_cast<std::ptrdiff_t>(i), fields.end(), "");
    }
    if (fields.size() == 2) fields.insert(fields.begin(), "");
    return fields;
}

// ---- the checks ----

void checkEntry(const std::string& entry) {
    char sid[32], host[32], port[32];
    parse_zorbi_server_param(entry.c_str(), sid, host, port);
    assert((Texts{sid, host, port}) == entryFields(entry));
}

void checkUserReference(const TQuilRequest& request, const std::string& reference) {
    Client client;
    CText sid, ip, port;
    const bool found = client.setUserRef(&request);
    assert(found == !reference.empty() && client.processUserRef(sid, ip, port) == found);
    if (found) assert((Texts{sid.GetTextEx(), ip.GetTextEx(), port.GetTextEx()}) == decoded(reference));
}

void checkForcedSid(const std::string& query, const std::string& argument) {
    Client client;
    client.setSID("old");
    client.setSIDFromQueryString(query.c_str(), argument.c_str());
    const std::string value = valueOf(query, argument, '&');
    const bool taken = !value.empty() && value.size() <= kLongestField;
    assert(client.sid() == (taken ? value : "old"));
}

// Whether it is a SID or an address and a port.
bool isRoute(const std::string& text) {
    return text.size() == 4 ||
           (text.size() == 12 && text.find_first_not_of("0123456789ABCDEF") == std::string::npos);
}

// The cookies after one of two servers was chosen, which are the same.
void checkCookies(TQuilRequest& request, const std::string& cookies, const std::string& entry,
                  const std::string& name) {
    Stanza section("");
    section.addValue("VELARTO_SERVER", (entry + ":" + entry).c_str());
    Client client;
    const bool connected = client.ConnectToQuilServer(&request, &section, name.c_str(), true);
    assert(connected == (entry.find_first_not_of(':') != std::string::npos));

    CText text;
    const std::string all = client.AddVelartoCookieWithIP(cookies.c_str(), text).GetTextEx();
    const std::string expected = (cookies.empty() ? "" : cookies + "; ") + "VelartoClient=" + name;
    const std::string route = "; Velarto_CGIIP=";
    assert(all.substr(0, expected.size()) == expected);
    assert(all.substr(expected.size(), route.size()) == route);
    assert(isRoute(all.substr(expected.size() + route.size())));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    std::string body(reinterpret_cast<const char*>(data), size);
    const auto take = [&body] {
        const std::string text = body.c_str();
        body.erase(0, text.size() + 1);
        return text;
    };
    const std::string cookies = take(), query = take(), argument = take(), entry = take(), name = take();

    TQuilRequest request;
    request.SetParamAttribute(QUIL_PARAM_HTTP_COOKIE, cookies.c_str());
    request.SetParamAttribute(QUIL_PARAM_QUERY_STRING, query.c_str());
    request.SetPostArgs(reinterpret_cast<const unsigned char*>(body.data()),
                        static_cast<std::uint32_t>(body.size()));

    CText value;
    assert(ScanCookie(cookies.c_str(), argument.c_str(), value, ';').GetTextEx() ==
           valueOf(cookies, argument, ';'));
    checkEntry(entry);
    checkForcedSid(query, argument);
    checkUserReference(request, userReference(cookies, query, body));
    checkCookies(request, cookies, entry, name);
    return 0;
}
