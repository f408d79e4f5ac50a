// What selects a server: user references in cookies, query string and body, the forced SID, the entries of
// the server list, and the cookies that tell what was chosen. Whatever comes out has its form and
// stood in the input.
//
// Input: cookies, query string, name of the query argument, server entry and client name, each with a zero
// byte after it; then the body.
#include "Fuzz.h"

namespace {

constexpr std::size_t kLongestField = 31;

class Client : public fuzz::Client {
  public:
    using fuzz::Client::connectToServer;

    bool connectToServer(const char* host, const char* port) override {
        setServer(host, port, 0x7F000001, 18155);
        return true;
    }
};

bool stoodIn(const std::string& input, const std::string& text) {
    return input.find(text) != std::string::npos;
}

void checkScan(const std::string& cookies, const std::string& name) {
    CText out;
    const std::string value = ScanCookie(cookies.c_str(), name.c_str(), out, ';').GetTextEx();
    assert(value.find_first_of("\r\n;") == std::string::npos && stoodIn(cookies, value));
    assert(value.empty() || (!name.empty() && stoodIn(cookies, name)));
}

void checkEntry(const std::string& entry) {
    char sid[32], host[32], port[32];
    parse_zorbi_server_param(entry.c_str(), sid, host, port);
    for (const char* field : {sid, host, port})
        assert(stoodIn(entry, field));
    assert(*host != 0 || *port == 0);  // nothing after an empty field counts
}

void checkForcedSid(const std::string& query, const std::string& argument) {
    Client client;
    client.setSID("old");
    client.setSIDFromQueryString(query.c_str(), argument.c_str());
    const std::string sid = client.sid();
    assert(sid == "old" || (!sid.empty() && sid.size() <= kLongestField && stoodIn(query, sid)));
}

// Four characters of the input, or an address with a port.
void checkUserReference(const TQuilRequest& request, const std::string& input) {
    Client client;
    CText sid, ip, port;
    const bool found = client.setUserRef(&request);
    assert(client.processUserRef(sid, ip, port) == found);
    if (!found) return;
    const std::string address = ip.GetTextEx();
    const bool isSid = sid.Length() == 4 && stoodIn(input, sid.GetTextEx());
    const bool isAddress = sid.IsEmpty() && std::count(address.begin(), address.end(), '.') == 3;
    assert(isSid ? address.empty() && port.IsEmpty() : isAddress && !port.IsEmpty());
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

    checkScan(cookies, argument);
    checkEntry(entry);
    checkForcedSid(query, argument);
    checkUserReference(request, std::string(reinterpret_cast<const char*>(data), size));
    checkCookies(request, cookies, entry, name);
    return 0;
}
