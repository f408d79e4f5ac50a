// QuilClient's choice of the application server, and the cookies that tell it what was chosen.
#include <strings.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>
#include <new>

#include "config/ClientKeys.h"
#include "protocol/QuilClient.h"

namespace {

constexpr std::size_t kServerFieldSize = 32;
constexpr std::uint32_t kSIDLength = 4;
constexpr std::uint32_t kUserRefWithSID = 28;
constexpr std::uint32_t kUserRefWithAddress = 36;
constexpr std::uint32_t kNoElement = 0xFFFFFFFFu;

// A server entry taken apart.
struct ServerFields {
    explicit ServerFields(const char* entry) { parse_zorbi_server_param(entry, sid, host, port); }

    char sid[kServerFieldSize];
    char host[kServerFieldSize];
    char port[kServerFieldSize];
};

// Element i of the list; empty when it cannot be read.
CText& takeElement(const Attribute& servers, std::uint32_t i, CText& out) {
    out.Clear();
    servers.getValueListElement(i, out);
    return out;
}

long hexNumber(const char* digits, std::size_t count) {
    char text[8] = {};
    std::memcpy(text, digits, std::min(count, sizeof text - 1));
    return std::strtol(text, nullptr, 16);
}

bool isUserRef(const CText& text) {
    return text.Length() == kUserRefWithSID || text.Length() == kUserRefWithAddress;
}

}  // namespace

void parse_zorbi_server_param(const char* entry, char* sid, char* host, char* port) {
    sid[0] = host[0] = port[0] = 0;
    if (entry == nullptr) return;
    const auto commas = std::count(entry, entry + std::strlen(entry), ',');
    if (commas != 1 && commas != 2) return;

    constexpr char kBlanks[] = " \t\n\v\f\r";
    char* const fields[] = {sid, host, port};
    const char* from = entry;
    for (int i = commas == 1 ? 1 : 0; i < 3; ++i) {
        const bool isThird = commas == 2 && i == 2;  // blanks around it do not count
        if (isThird) from += std::strspn(from, kBlanks);
        const std::size_t length = std::strcspn(from, isThird ? kBlanks : ",");
        if (length >= kServerFieldSize) {
            sid[0] = host[0] = port[0] = 0;
            return;
        }
        std::memcpy(fields[i], from, length);
        fields[i][length] = 0;
        if (length == 0) return;  // nothing after an empty field counts
        from += length + 1;
    }
}

bool QuilClient::ConnectToQuilServer(TQuilRequest* request, Stanza* clientSection, const char* clientName,
                                     bool /*oneShotClient*/) {
    if (clientSection == nullptr) return false;
    // With a text cut for want of memory the choice may have been another server, or the client's name
    // another one.
    const MemoryWatch memory;
    setClientName(clientName);
    return connectToChosenServer(request, *clientSection) && !memory.ranOut();
}

bool QuilClient::connectToChosenServer(const TQuilRequest* request, Stanza& clientSection) {
    Attribute servers;
    clientSection.getAttribute(key::VELARTO_SERVER.name, servers);
    servers.getValue(serverEntry_);
    const std::uint32_t n = servers.getValueListElementCount();
    if (request == nullptr || n == 1) {
        choice_ = ServerChoice::kOnly;
        return connectToServer(serverEntry_.GetTextEx());
    }

    addRouteCookie_ = true;
    CText argumentName;
    if (clientSection.getValue(key::FORCE_SERVER_ARG_NAME.name, argumentName)) {
        setSIDFromQueryString(request->GetParamAttribute(QUIL_PARAM_QUERY_STRING)->value(), argumentName);
        if (sid_[0] != 0) return connectToForcedServer(servers, n);
    }

    std::uint32_t lastFailed = kNoElement;
    return connectToUsersServer(request, servers, n, lastFailed) ||
           connectToRandomServer(servers, n, lastFailed);
}

// The element of the forced SID, or the last one when none has it. There is no second try: whoever forces a
// server wants that one.
bool QuilClient::connectToForcedServer(const Attribute& servers, std::uint32_t n) {
    choice_ = ServerChoice::kForced;
    addRouteCookie_ = false;
    ServerFields fields("");
    for (std::uint32_t i = 0; i < n; ++i) {
        fields = ServerFields(takeElement(servers, i, serverEntry_).GetTextEx());
        if (fields.sid[0] != 0 && std::strcmp(fields.sid, sid_) == 0) break;
    }
    return connectToServer(fields.host, fields.port);
}

// The servers that the user reference points at, if any; lastFailed becomes the element that failed last.
bool QuilClient::connectToUsersServer(const TQuilRequest* request, const Attribute& servers, std::uint32_t n,
                                      std::uint32_t& lastFailed) {
    CText refSid, refIp, refPort;
    if (!setUserRef(request) || !processUserRef(refSid, refIp, refPort)) return false;
    const bool bySid = refSid.Length() == kSIDLength;
    if (!bySid && (refIp.IsEmpty() || refPort.IsEmpty())) return false;
    CText key;
    key.Format("%s,%s", refIp.GetTextEx(), refPort.GetTextEx());

    CText element;
    for (std::uint32_t i = 0; i < n; ++i) {
        const char* entry = takeElement(servers, i, element).GetTextEx();
        const ServerFields fields(entry);
        const bool matches = bySid ? strcasecmp(fields.sid, refSid.GetTextEx()) == 0
                                   : std::strstr(entry, key.GetTextEx()) != nullptr;
        if (!matches) continue;
        if (bySid) {
            setSID(fields.sid);
        } else {
            resetSID();
        }
        choice_ = ServerChoice::kUsers;
        if (connectToServer(fields.host, fields.port)) return true;
        lastFailed = i;
    }
    return false;
}

// Every element once, from random places on, but for the one that has just failed.
bool QuilClient::connectToRandomServer(const Attribute& servers, std::uint32_t n, std::uint32_t lastFailed) {
    const std::unique_ptr<bool[]> tried(new (std::nothrow) bool[n]());
    if (tried == nullptr) return false;
    srandom(static_cast<unsigned>(std::time(nullptr)));
    for (std::uint32_t turn = 0; turn < n; ++turn) {
        auto r = static_cast<std::uint32_t>(static_cast<unsigned long>(random()) % n);
        while (tried[r])
            r = (r + 1) % n;
        tried[r] = true;
        if (r == lastFailed) continue;
        takeElement(servers, r, serverEntry_);
        if (serverEntry_.IsEmpty()) continue;
        choice_ = ServerChoice::kRandom;
        if (connectToServer(serverEntry_.GetTextEx())) return true;
    }
    return false;
}

bool QuilClient::connectToServer(const char* entry) {
    const ServerFields fields(entry);
    return connectToServer(fields.host, fields.port);
}

void QuilClient::setClientName(const char* name) {
    clientName_ = name;
}

void QuilClient::setSID(const char* text) {
    if (std::strlen(text) < sizeof sid_) std::strcpy(sid_, text);
}

void QuilClient::resetSID() {
    sid_[0] = 0;
}

void QuilClient::setSIDFromQueryString(const CText& query, const CText& argumentName) {
    CText value;
    ScanCookie(query, argumentName, value, '&');
    if (!value.IsEmpty()) setSID(value.GetTextEx());
}

bool QuilClient::setUserRef(const TQuilRequest* request) {
    if (request == nullptr) return false;
    CText value;
    ScanCookie(request->GetParamAttribute(QUIL_PARAM_HTTP_COOKIE)->value(), "Velarto_UserReference", value,
               ';');
    if (!isUserRef(value)) {
        ScanCookie(request->GetParamAttribute(QUIL_PARAM_QUERY_STRING)->value(), "_UserReference", value,
                   '&');
    }
    if (!isUserRef(value)) {
        const CData& body = request->postArgs();
        ScanCookie(reinterpret_cast<const char*>(body.GetBuffer()), body.GetDataSize(), "_UserReference",
                   value, '&');
    }
    if (!isUserRef(value)) return false;
    std::strcpy(userRef_, value.GetTextEx());
    return true;
}

bool QuilClient::processUserRef(CText& sid, CText& ip, CText& port) const {
    switch (std::strlen(userRef_)) {
        case kUserRefWithSID:
            sid = CText(userRef_, kSIDLength);
            return true;
        case kUserRefWithAddress: {
            const auto octet = [this](int i) {
                return static_cast<unsigned>(hexNumber(userRef_ + 2 * i, 2));
            };
            ip.Format("%u.%u.%u.%u", octet(0), octet(1), octet(2), octet(3));
            port.Format("%u", static_cast<unsigned>(hexNumber(userRef_ + 8, 4)));
            return true;
        }
        default:
            return false;
    }
}

CText& QuilClient::AddVelartoCookieWithIP(const CText& cookies, CText& out) {
    out = cookies;
    if (!out.IsEmpty()) out += "; ";
    out += "VelartoClient=";
    out += clientName_;
    if (addRouteCookie_) {
        out += "; Velarto_CGIIP=";
        appendRoute(out);
    }
    return out;
}

// The SID, or address and port in hexadecimal: as configured where the texts can be read so, else as
// connected.
void QuilClient::appendRoute(CText& out) const {
    if (std::strlen(sid_) == kSIDLength) {
        out += sid_;
        return;
    }
    unsigned octet[4];
    unsigned port = 0;
    const bool isQuad =
        std::sscanf(serverIP_, "%u.%u.%u.%u", &octet[0], &octet[1], &octet[2], &octet[3]) == 4 &&
        std::all_of(octet, octet + 4, [](unsigned o) { return o <= 255; });
    if (!isQuad) {
        for (int i = 0; i < 4; ++i)
            octet[i] = connectedAddress_ >> (24 - 8 * i) & 0xFF;
    }
    if (std::sscanf(serverPort_, "%u", &port) != 1 || port > 0xFFFF) port = connectedPort_;
    out.AppendFormat("%02X%02X%02X%02X%04X", octet[0], octet[1], octet[2], octet[3], port);
}
