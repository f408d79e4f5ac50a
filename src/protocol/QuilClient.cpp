// The client itself, the conversation with the server and the file service. Server selection:
// ServerSelection.cpp.
#include "protocol/QuilClient.h"

#include <sys/stat.h>

#include <cstring>

#include "Server/General/FirstInPlace.h"
#include "Server/General/FixedText.h"
#include "protocol/FileContent.h"

namespace {

constexpr std::uint32_t kScratchMin = 5120;
constexpr std::uint32_t kScratchMax = 32767;

// Modification time in seconds since 1970, 0 when there is no such file.
std::uint32_t fileTime(const CText& path) {
    struct stat status {};
    if (path.IsEmpty() || stat(path.GetTextEx(), &status) != 0) return 0;
    return static_cast<std::uint32_t>(status.st_mtime);
}

}  // namespace

QuilClient::QuilClient() = default;

QuilClient::QuilClient(const QuilClient&) : QuilClient() {}

QuilClient::~QuilClient() {
    handleTag_.revoke();
}

// Until the tag has been seen, the handle need not be a client's at all.
__attribute__((no_sanitize("vptr"))) QuilClient* QuilClient::CastHandleToQuilClient(void* handle) {
    auto* client = static_cast<QuilClient*>(handle);
    return client != nullptr && client->handleTag_.holds() ? client : nullptr;
}

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

bool QuilClient::DispatchQuilRequests(DispatchCallback callback, void* user, bool parseFilePaths) {
    for (;;) {
        payload_.Clear();
        std::uint32_t type = 0;
        std::uint32_t version = 0;
        if (!unmarshallHeader(type, version) || version != QUIL_PROTOCOL_VERSION) return false;

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
    if (!isPlainText || !ReadFileContent(path.GetTextEx(), content, size) || content.GetDataSize() == 0) {
        CompleteQuilRequest(QUIL_FILE_REPLY, false);
        return false;
    }
    return CompleteQuilDataRequest(QUIL_FILE_REPLY, true, content);
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
    connectedAddress_ = address;
    connectedPort_ = port;
}
