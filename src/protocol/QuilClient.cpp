#include "protocol/QuilClient.h"

#include <strings.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>
#include <new>

#include "Server/Common_Classes/MemoryWatch.h"
#include "Server/General/FirstInPlace.h"
#include "Server/General/FixedText.h"
#include "config/ClientKeys.h"
#include "platform/FileContent.h"
#include "platform/random_impl.h"
#include "protocol/ServerState.h"

namespace {

constexpr std::uint32_t kScratchMin = 5120;
constexpr std::uint32_t kScratchMax = 32767;
constexpr std::uint32_t kSIDLength = 4;
constexpr std::uint32_t kUserRefWithSID = 28;
constexpr std::uint32_t kUserRefWithAddress = 36;

// Modification time in seconds since 1970, 0 when there is no such file.
std::uint32_t fileTime(const CText& path) {
    struct stat status {};
    if (path.IsEmpty() || stat(path.GetTextEx(), &status) != 0) return 0;
    return static_cast<std::uint32_t>(status.st_mtime);
}

long hexNumber(const char* digits, std::size_t count) {
    char text[8] = {};
    std::memcpy(text, digits, std::min(count, sizeof text - 1));
    return std::strtol(text, nullptr, 16);
}

constexpr char kClientCookie[] = "VelartoClient";
constexpr char kRouteCookie[] = "Velarto_CGIIP";

// Whether the cookie, up to length, has that name; letter case and blanks around it do not count.
bool isCookie(const char* cookie, std::size_t length, const char* name) {
    const std::size_t blanks = std::strspn(cookie, " \t");
    const std::size_t nameLength = std::strlen(name);
    if (blanks + nameLength > length || strncasecmp(cookie + blanks, name, nameLength) != 0) return false;
    const char* behind = cookie + blanks + nameLength;
    behind += std::strspn(behind, " \t");
    return behind >= cookie + length || *behind == '=';
}

// The cookies of a request's field but for those of the gateway's names, which it writes itself.
void copyForeignCookies(const char* cookies, CText& out) {
    out.Clear();
    for (const char* cookie = cookies; *cookie != '\0';) {
        const std::size_t length = std::strcspn(cookie, ";");
        if (!isCookie(cookie, length, kClientCookie) && !isCookie(cookie, length, kRouteCookie)) {
            if (!out.IsEmpty()) out += ';';
            out += CText(cookie, static_cast<std::uint32_t>(length));
        }
        cookie += length;
        if (*cookie == ';') ++cookie;
    }
}

bool isUserRef(const CText& text) {
    return text.Length() == kUserRefWithSID || text.Length() == kUserRefWithAddress;
}

}  // namespace

void parse_zorbi_server_param(const char* entry, char* sid, char* host, char* port) {
    constexpr std::size_t kFieldSize = 32;
    const ServerEntry parts(entry);
    const bool fits = parts.isTakenApart() && std::strlen(parts.host()) < kFieldSize;
    std::strcpy(sid, fits ? parts.sid() : "");
    std::strcpy(host, fits ? parts.host() : "");
    std::strcpy(port, fits ? parts.port() : "");
}

QuilClient::QuilClient() = default;

QuilClient::QuilClient(const QuilClient&) : QuilClient() {}

QuilClient::~QuilClient() {
    handleTag_.revoke();
}

QuilClient* QuilClient::CastHandleToQuilClient(void* handle) {
    return HandleTag::isOn(handle) ? static_cast<QuilClient*>(handle) : nullptr;
}

// ---- server selection ----

bool QuilClient::ConnectToQuilServer(TQuilRequest* request, Stanza* clientSection, const char* clientName,
                                     bool /*oneShotClient*/) {
    if (clientSection == nullptr) return false;
    // With a text cut for want of memory the choice may have been another server, or the client's name
    // another one.
    const MemoryWatch memory;
    setClientName(clientName);
    settings_ = ConnectionSettings(*clientSection, clientName_);
    return connectToChosenServer(request, *clientSection) && !memory.ranOut();
}

bool QuilClient::connectToChosenServer(const TQuilRequest* request, Stanza& clientSection) {
    const ServerList servers(clientSection);
    serverEntry_ = servers.text();
    if (request == nullptr || servers.size() == 1)
        return attempt(ServerChoice::kOnly, ServerEntry(serverEntry_.GetTextEx()));

    ServerWishes wishes;
    readWishes(*request, clientSection, wishes);
    addRouteCookie_ = wishes.forcedSid.IsEmpty();
    const auto seed = static_cast<std::uint32_t>(
        settings_.choosesAtRandom ? RandomNumber() : static_cast<std::uint64_t>(std::time(nullptr)));
    const ServerSelection turns(servers, wishes, seed);
    ServerState state;
    if (settings_.retryAfter != 0) state.open(settings_.statePath.GetTextEx(), ServerState::kShare);
    enum Offer : char { kNotYet, kLeftOut, kFailed };
    const std::unique_ptr<Offer[]> offers(new (std::nothrow) Offer[servers.size()]());
    if (offers == nullptr) return false;
    for (const auto& [entry, choice] : turns) {
        const ServerEntry server(servers.getEntry(entry, serverEntry_).GetTextEx());
        if (choice != ServerChoice::kForced && state.leavesOut(server, settings_.retryAfter)) {
            if (offers[entry] == kNotYet) offers[entry] = kLeftOut;
            continue;
        }
        if (offer(choice, server, wishes, state)) return true;
        offers[entry] = kFailed;
    }
    // All that are not out have failed, too: better a server that may be back than none.
    for (const auto& [entry, choice] : turns) {
        if (offers[entry] != kLeftOut) continue;
        const ServerEntry server(servers.getEntry(entry, serverEntry_).GetTextEx());
        if (offer(choice, server, wishes, state)) return true;
        offers[entry] = kFailed;
    }
    return false;
}

bool QuilClient::offer(ServerChoice choice, const ServerEntry& server, const ServerWishes& wishes,
                       ServerState& state) {
    if (choice == ServerChoice::kRandom && serverEntry_.IsEmpty()) return false;
    if (choice == ServerChoice::kUsers) setSID(wishes.usersSid.IsEmpty() ? "" : server.sid());
    const bool isConnected = attempt(choice, server);
    if (isConnected) {
        state.setIn(server);
    } else {
        state.setOut(server, settings_.retryAfter, failureCause_);
    }
    return isConnected;
}

bool QuilClient::attempt(ServerChoice choice, const ServerEntry& entry) {
    choice_ = choice;
    if (connectToServer(entry.host(), entry.port())) {
        if (isBeyondIPv4_) setSID(entry.sid());  // the only name that a route has for it
        return true;
    }
    if (!settings_.namesFailures) return false;
    if (!failedAttempts_.IsEmpty()) failedAttempts_ += "; ";
    failedAttempts_ += serverEntry_;
    failedAttempts_ += ": ";
    failedAttempts_ += failureReason_;
    return false;
}

bool QuilClient::failConnection(int cause, const char* reason) {
    failureCause_ = cause;
    failureReason_ = reason;
    return false;
}

// A forced server, or the user's: whoever forces a server wants that one.
void QuilClient::readWishes(const TQuilRequest& request, Stanza& clientSection, ServerWishes& wishes) {
    CText argumentName;
    if (clientSection.getValue(key::FORCE_SERVER_ARG_NAME.name, argumentName)) {
        setSIDFromQueryString(request.GetParamAttribute(QUIL_PARAM_QUERY_STRING)->value(), argumentName);
        wishes.forcedSid = sid_;
        if (!wishes.forcedSid.IsEmpty()) return;
    }
    CText ip, port;
    if (setUserRef(&request) && processUserRef(wishes.usersSid, ip, port) && !ip.IsEmpty())
        wishes.usersAddress.Format("%s,%s", ip.GetTextEx(), port.GetTextEx());
}

bool QuilClient::connectToServer(const char* entry) {
    const ServerEntry server(entry);
    return connectToServer(server.host(), server.port());
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
            const auto octet = [this](std::size_t i) {
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
    if (settings_.takesOwnCookiesOut) {
        copyForeignCookies(cookies.GetTextEx(), out);
    } else {
        out = cookies;
    }
    if (!out.IsEmpty()) out += "; ";
    out.AppendFormat("%s=", kClientCookie);
    out += clientName_;
    if (hasRoute()) {
        out.AppendFormat("; %s=", kRouteCookie);
        appendRoute(out);
    }
    return out;
}

bool QuilClient::hasRoute() const {
    return addRouteCookie_ && (!isBeyondIPv4_ || std::strlen(sid_) == kSIDLength);
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

// ---- messages ----

bool QuilClient::SendQuilRequest(TQuilRequest* request) {
    if (request == nullptr) return false;
    if (!marshallHeader(QUIL_REQUEST, QUIL_PROTOCOL_VERSION) ||
        !marshallULONG(fileTime(request->GetParamAttribute(QUIL_PARAM_PATH_TRANSLATED)->value())) ||
        !marshallData(request->postArgs())) {
        return false;
    }
    const MemoryWatch memory;
    CText cookies;
    AddVelartoCookieWithIP(request->GetParamAttribute(QUIL_PARAM_HTTP_COOKIE)->value(), cookies);
    request->SetParamAttribute(QUIL_PARAM_HTTP_COOKIE, cookies.GetTextEx());
    if (memory.ranOut()) return false;
    for (std::uint32_t id = 0; id < QUIL_PARAM_NONE; ++id) {
        if (!marshallAttribute(*request->GetParamAttribute(static_cast<TQUILReqParamID>(id)))) return false;
    }
    return marshallFooter();
}

bool QuilClient::receiveFirstHeader(std::uint32_t& type, std::uint32_t& version) {
    if (settings_.answerTimeout == 0) return unmarshallHeader(type, version);
    const std::uint32_t usual = SetReadWriteTimeout(settings_.answerTimeout);
    const bool received = unmarshallHeader(type, version);
    SetReadWriteTimeout(usual);
    return received;
}

bool QuilClient::DispatchQuilRequests(DispatchCallback callback, void* user, bool parseFilePaths) {
    for (bool isFirst = true;; isFirst = false) {
        payload_.Clear();
        std::uint32_t type = 0;
        std::uint32_t version = 0;
        const bool received = isFirst ? receiveFirstHeader(type, version) : unmarshallHeader(type, version);
        if (!received || version != QUIL_PROTOCOL_VERSION) return false;

        switch (type) {
            case QUIL_BODY_DATA:
            case QUIL_HTTP_HEADER:
                if (!unmarshallText(payload_) || !unmarshallFooter()) return false;
                CompleteQuilRequest(type, true);  // a lost connection shows at the next read
                break;
            case QUIL_FILE_REQUEST:
                processFileRequest(payload_, parseFilePaths);  // likewise
                break;
            case QUIL_END:
                if (!unmarshallFooter()) return false;
                break;
            default:  // no body is known for it: its footer fails the next header
                break;
        }
        if (callback != nullptr && !callback(*this, static_cast<TQUILReqType>(type), payload_.GetTextEx(),
                                             payload_.Length(), user)) {
            return false;
        }
        if (type == QUIL_END) return true;
    }
}

bool QuilClient::CompleteQuilRequest(std::uint32_t type, bool ok) {
    return marshallHeader(type, QUIL_PROTOCOL_VERSION) && marshallRETCODE(ok) && marshallFooter();
}

bool QuilClient::CompleteQuilDataRequest(std::uint32_t type, bool ok, const CData& data) {
    return marshallHeader(type, QUIL_PROTOCOL_VERSION) && marshallRETCODE(ok) && marshallData(data) &&
           marshallFooter();
}

bool QuilClient::processFileRequest(CText& path, bool parseFilePaths) {
    if (!unmarshallText(path) || !unmarshallFooter()) return false;
    if (parseFilePaths) FileToNativePath(path);

    // A path with a NUL inside would be cut there, and a cut path names another file.
    const bool isPlainText = std::strlen(path.GetTextEx()) == path.Length();
    CData content;
    std::uint32_t size = 0;
    if (!isPlainText || !readFile(path, content, size) || content.GetDataSize() == 0) {
        if (refusedFile_.IsEmpty()) refusedFile_ = path;
        CompleteQuilRequest(QUIL_FILE_REPLY, false);
        return false;
    }
    return CompleteQuilDataRequest(QUIL_FILE_REPLY, true, content);
}

bool QuilClient::readFile(const CText& path, CData& content, std::uint32_t& size) const {
    const std::uint32_t limit = settings_.fileLimit != 0 ? settings_.fileLimit : kLargestContent;
    const char* folders = settings_.fileRoots.GetTextEx();
    return *folders == '\0' ? ReadFileContent(path.GetTextEx(), content, size, limit)
                            : ReadFileContentBelow(folders, path.GetTextEx(), content, size, limit);
}

void QuilClient::FileToNativePath(CText& path) {
    for (std::uint32_t i = 0; i < path.Length(); ++i) {
        unsigned char& c = path.GetBuffer()[i];
        if (c == '\\') c = '/';
    }
}

TQuilRequest* QuilClient::AllocQuilRequest() {
    return FirstInPlace<TQuilRequest>::create();
}

void QuilClient::FreeQuilRequest(TQuilRequest* request) {
    FirstInPlace<TQuilRequest>::destroy(request);
}

CData& QuilClient::GetScratchBuffer(std::uint32_t size) {
    const std::uint32_t current = scratch_.GetBufferSize();
    // Asking for nothing particular gives back an oversized buffer's excess; asking for a small one gives
    // back all of it.
    const std::uint32_t wanted = size > kScratchMin ? size : kScratchMin;
    const std::uint32_t keepUpTo = size < kScratchMax ? kScratchMax : current;
    if (current < wanted) {
        scratch_.SetBufferSize(wanted);
    } else if (current > keepUpTo) {
        scratch_.SetBufferSize(size == 0 ? kScratchMax : wanted);
    }
    return scratch_;
}

void QuilClient::setServer(const char* addressText, const char* portText, std::uint32_t address,
                           std::uint16_t port) {
    CopyFixedText(serverIP_, addressText);
    CopyFixedText(serverPort_, portText);
    isBeyondIPv4_ = false;
    connectedAddress_ = address;
    connectedPort_ = port;
}

void QuilClient::setServerBeyondIPv4(const char* addressText, const char* portText) {
    CopyFixedText(serverIP_, addressText);
    CopyFixedText(serverPort_, portText);
    isBeyondIPv4_ = true;
}
