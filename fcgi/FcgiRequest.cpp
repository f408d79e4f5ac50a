#include "FcgiRequest.h"

#include <fcgios.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <climits>
#include <cstring>

namespace {

// "USER_AGENT" as "User-Agent".
std::string fieldName(const char* name, const char* end) {
    std::string text;
    bool isFirst = true;
    for (; name != end; ++name) {
        const auto c = static_cast<unsigned char>(*name);
        text += c == '_' ? '-' : static_cast<char>(isFirst ? std::toupper(c) : std::tolower(c));
        isFirst = c == '_';
    }
    return text;
}

thread_local RecordGuard* guardOfThread = nullptr;

// While one lives, what the thread reads by libfcgi is guarded.
class Guarded {
  public:
    explicit Guarded(RecordGuard& guard) { guardOfThread = &guard; }
    Guarded(const Guarded&) = delete;
    Guarded& operator=(const Guarded&) = delete;
    ~Guarded() { guardOfThread = nullptr; }
};

}  // namespace

// Takes the place of libfcgi's own function of that name, by which it reads from a connection.
extern "C" int OS_Read(int connection, char* buffer, std::size_t size) {
    const ssize_t count = ::read(connection, buffer, size);
    if (count > 0 && guardOfThread != nullptr &&
        !guardOfThread->allows(buffer, static_cast<std::size_t>(count))) {
        errno = EPROTO;
        return -1;
    }
    return static_cast<int>(count);
}

// libfcgi accepts no connection here: it is given one, in the place and the state in which it keeps one for another
// request.
FcgiRequest::FcgiRequest(int connection, std::uint32_t mostOfBody) : mostOfBody_(mostOfBody) {
    FCGX_InitRequest(&request_, -1, FCGI_FAIL_ACCEPT_ON_INTR);
    request_.ipcFd = connection;
    request_.keepConnection = 1;
}

FcgiRequest::~FcgiRequest() {
    release();
}

bool FcgiRequest::begin() {
    const Guarded guarded(guard_);
    isOpen_ = FCGX_Accept_r(&request_) == 0;
    return isOpen_ && FCGX_GetError(request_.in) == 0;  // variables that were cut look whole but for that
}

bool FcgiRequest::refuse() {
    static char page[] =
        "Status: 503 Service Unavailable\r\nRetry-After: 10\r\nContent-type: text/html\r\n\r\n"
        "<html><body><h1>503 Service Unavailable</h1></body></html>\n";
    iovec whole{page, sizeof page - 1};
    return !hasBegun_ && write(&whole, 1);
}

void FcgiRequest::finish(bool isWhole) {
    if (!isWhole) {
        spoil();
        return;
    }
    isGone_ |= FCGX_FClose(request_.err) != 0;
    isGone_ |= FCGX_FClose(request_.out) != 0;
    isKept_ = request_.keepConnection != 0 && !isGone_ && takeRestOfBody();
}

// nginx takes the connection's end for the response's where it keeps no connections, and hides what is missing. A record
// of an unknown version is a failure to every web server.
void FcgiRequest::spoil() {
    constexpr char kNoRecord[8] = {};
    if (flush()) send(request_.ipcFd, kNoRecord, sizeof kNoRecord, MSG_DONTWAIT | MSG_NOSIGNAL);
}

// What is left of a body would be taken for the next request's. The mark of its end is left of every one.
bool FcgiRequest::takeRestOfBody() {
    const Guarded guarded(guard_);
    char scrap[4096];
    for (int i = 0; i < 16; ++i) {
        const int count = FCGX_GetStr(scrap, sizeof scrap, request_.in);
        if (count < static_cast<int>(sizeof scrap)) break;
    }
    return FCGX_HasSeenEOF(request_.in) != 0 && FCGX_GetError(request_.in) == 0;
}

bool FcgiRequest::release() {
    if (!isOpen_) return false;
    isOpen_ = false;
    FCGX_Free(&request_, isKept_ ? 0 : 1);
    return isKept_;
}

const char* FcgiRequest::get(const char* name) const {
    const std::size_t length = std::strlen(name);
    for (char** variable = request_.envp; *variable != nullptr; ++variable) {
        const char* text = *variable;
        if (text[0] == name[0] && std::strncmp(text, name, length) == 0 && text[length] == '=')
            return text + length + 1;
    }
    return nullptr;
}

std::string FcgiRequest::headerFields() const {
    constexpr char kPrefix[] = "HTTP_";
    constexpr std::size_t kPrefixLength = sizeof kPrefix - 1;
    std::string fields;
    for (char** variable = request_.envp; *variable != nullptr; ++variable) {
        const char* name = *variable;
        const char* equals = std::strchr(name, '=');
        if (equals == nullptr) continue;
        if (std::strncmp(name, kPrefix, kPrefixLength) == 0) {
            name += kPrefixLength;
        } else if (std::strncmp(name, "CONTENT_TYPE=", 13) != 0 &&
                   std::strncmp(name, "CONTENT_LENGTH=", 15) != 0) {
            continue;
        }
        if (equals[1] != '\0') fields += fieldName(name, equals) + ": " + (equals + 1) + "\r\n";
    }
    return fields;
}

std::int64_t FcgiRequest::read(void* buffer, std::uint32_t size) {
    const Guarded guarded(guard_);
    std::uint32_t done = 0;
    while (done < size) {
        const int wanted = static_cast<int>(std::min<std::uint32_t>(size - done, INT_MAX));
        const int count = FCGX_GetStr(static_cast<char*>(buffer) + done, wanted, request_.in);
        if (count <= 0) break;
        done += static_cast<std::uint32_t>(count);
    }
    return FCGX_GetError(request_.in) == 0 ? static_cast<std::int64_t>(done) : -1;
}

bool FcgiRequest::write(iovec* pieces, int count) {
    hasBegun_ = true;
    holdsOutput_ = true;
    for (; count > 0; ++pieces, --count) {
        const char* bytes = static_cast<const char*>(pieces->iov_base);
        for (std::size_t left = pieces->iov_len; left > 0;) {
            const int part = static_cast<int>(std::min<std::size_t>(left, INT_MAX));
            isGone_ |= FCGX_PutStr(bytes, part, request_.out) != part;
            if (isGone_) return false;
            bytes += part;
            left -= static_cast<std::size_t>(part);
        }
    }
    return true;
}

bool FcgiRequest::flush() {
    if (!holdsOutput_) return true;
    holdsOutput_ = false;
    isGone_ |= FCGX_FFlush(request_.out) != 0;
    return !isGone_;
}
