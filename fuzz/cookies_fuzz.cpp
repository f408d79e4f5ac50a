// What selects a server: user references in cookies, query string and body, the forced SID, the entries of
// the server list, and the cookies that tell what was chosen. Whatever comes out has its form and
// stood in the input.
//
// Input: cookies, query string, name of the query argument, server entry and client name, each with a zero
// byte after it; then the body.
#include "Fuzz.h"

namespace {

struct Input {
    Input(const std::uint8_t* data, std::size_t size) : whole(data, data + size), body(whole) {
        for (std::string* text : {&cookies, &query, &argument, &entry, &name}) {
            *text = body.c_str();
            body.erase(0, text->size() + 1);
        }
        request.SetParamAttribute(QUIL_PARAM_HTTP_COOKIE, cookies.c_str());
        request.SetParamAttribute(QUIL_PARAM_QUERY_STRING, query.c_str());
        request.SetPostArgs(data + size - body.size(), static_cast<std::uint32_t>(body.size()));
    }

    const std::string whole;
    std::string body, cookies, query, argument, entry, name;
    TQuilRequest request;
};

bool stoodIn(const std::string& input, const std::string& text) {
    return input.find(text) != std::string::npos;
}

// What the request asks for: a value; a SID; four characters of the input, or an address with a port.
void checkWishes(const Input& input) {
    CText out, sid, ip, port;
    const std::string value = ScanCookie(input.cookies.c_str(), input.argument.c_str(), out, ';').GetTextEx();
    assert(value.find_first_of("\r\n;") == std::string::npos && stoodIn(input.cookies, value));

    fuzz::Client client;
    client.setSIDFromQueryString(input.query.c_str(), input.argument.c_str());
    assert(std::string(client.sid()).size() < 32 && stoodIn(input.query, client.sid()));

    const bool found = client.setUserRef(&input.request);
    assert(client.processUserRef(sid, ip, port) == found);
    assert(found == (sid.IsEmpty() != ip.IsEmpty()) && ip.IsEmpty() == port.IsEmpty());
    assert(sid.IsEmpty() || (sid.Length() == 4 && stoodIn(input.whole, sid.GetTextEx())));
}

void checkEntry(const std::string& entry) {
    char sid[32], host[32], port[32];
    parse_zorbi_server_param(entry.c_str(), sid, host, port);
    assert(stoodIn(entry, sid) && stoodIn(entry, host) && stoodIn(entry, port));
    assert(*host != 0 || *port == 0);  // nothing after an empty field counts

    const ServerEntry longer(entry.c_str());
    CText fault;
    assert(longer.describeFault(fault).IsEmpty() == (longer.fault() == EntryFault::kNone));
    assert(longer.fault() != EntryFault::kNone || (*longer.host() != 0 && *longer.port() != 0));
    const std::string fields = std::string(longer.host()) + longer.port();
    assert(*host == 0 || fields == std::string(host) + port);
}

// The cookies after one of three servers was chosen, which are the same, tell its SID or its address and port. (Two
// numbers alone, 1:1, would be one server's host and port.)
void checkCookies(Input& input) {
    Stanza section("");
    section.addValue("VELARTO_SERVER", (input.entry + ":" + input.entry + ":" + input.entry).c_str());
    fuzz::Client client;
    const bool connected = client.ConnectToQuilServer(&input.request, &section, input.name.c_str(), true);
    assert(connected == (input.entry.find_first_not_of(':') != std::string::npos));

    CText text;
    const std::string all = client.AddVelartoCookieWithIP(input.cookies.c_str(), text).GetTextEx();
    const std::string expected = (input.cookies.empty() ? "" : input.cookies + "; ") +
                                 "VelartoClient=" + input.name + "; Velarto_CGIIP=";
    assert(all.substr(0, expected.size()) == expected);
    const std::string route = all.substr(expected.size());
    const bool isHex = route.find_first_not_of("0123456789ABCDEF") == std::string::npos;
    assert(route.size() == 4 || (route.size() == 12 && isHex));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    Input input(data, size);
    checkWishes(input);
    checkEntry(input.entry);
    checkCookies(input);
    return 0;
}
