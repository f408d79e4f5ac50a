#include "cgi/ZorbiCGI.h"

#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <new>

#include "Server/General/FixedText.h"
#include "cgi/VeHttpResponse.h"
#include "client/QuilClientError.h"
#include "platform/memory_impl.h"
#include "platform/osfile_impl.h"

namespace {

constexpr unsigned kLongestRun = 300;  // seconds, then the alarm ends the process

char StanzaName[256];  // the program's base name: the client's name

CData heldHeader;  // of the response, until something follows it: a small page leaves in one write

// The CGI variable of each parameter that has one, in id order.
struct ParamVariable {
    TQUILReqParamID id;
    const char* variable;
};

constexpr ParamVariable kParamVariables[] = {
    {QUIL_PARAM_QUERY_STRING, "QUERY_STRING"},
    {QUIL_PARAM_PATH_INFO, "PATH_INFO"},
    {QUIL_PARAM_PATH_TRANSLATED, "PATH_TRANSLATED"},
    {QUIL_PARAM_REQUEST_METHOD, "REQUEST_METHOD"},
    {QUIL_PARAM_REMOTE_HOST, "REMOTE_HOST"},
    {QUIL_PARAM_REMOTE_IDENT, "REMOTE_IDENT"},
    {QUIL_PARAM_REMOTE_USER, "REMOTE_USER"},
    {QUIL_PARAM_REMOTE_NAME, "REMOTE_NAME"},
    {QUIL_PARAM_REMOTE_PORT, "REMOTE_PORT"},
    {QUIL_PARAM_SERVER_NAME, "SERVER_NAME"},
    {QUIL_PARAM_SERVER_PORT, "SERVER_PORT"},
    {QUIL_PARAM_SCRIPT_NAME, "SCRIPT_NAME"},
    {QUIL_PARAM_HTTP_REFERER, "HTTP_REFERER"},
    {QUIL_PARAM_HTTP_USER_AGENT, "HTTP_USER_AGENT"},
    {QUIL_PARAM_CONTENT_TYPE, "CONTENT_TYPE"},
    {QUIL_PARAM_CONTENT_LENGTH, "CONTENT_LENGTH"},
    {QUIL_PARAM_PLUGIN, "PLUGIN"},
    {QUIL_PARAM_REMOTE_ADDR, "REMOTE_ADDR"},
    {QUIL_PARAM_HTTP_COOKIE, "HTTP_COOKIE"},
    {QUIL_PARAM_HTTP_FROM, "HTTP_FROM"},
    {QUIL_PARAM_HTTP_ACCEPT, "HTTP_ACCEPT"},
    {QUIL_PARAM_SOAPACTION, "SOAPACTION"},
};

bool isNphMode(const char* name) {
    return std::strncmp(name, "nph-", 4) == 0;
}

// The system ends a process that hangs, also under a parent that ignores or blocks the signal.
void setAlarm() {
    sigset_t alarmOnly;
    sigemptyset(&alarmOnly);
    sigaddset(&alarmOnly, SIGALRM);
    std::signal(SIGALRM, SIG_DFL);
    sigprocmask(SIG_UNBLOCK, &alarmOnly, nullptr);
    alarm(kLongestRun);
}

// Nothing may reach a browser through standard error. The descriptor stays occupied, and so do 0 and 1 when
// the caller left them closed: a socket that got such a number would receive every diagnostic of the C
// library, or the response.
//
// What stood there stays open under another number until the process ends. A prefork Apache reads standard
// error beside the output. Where nothing but the end of the output wakes it, it often does so before the
// process is dead, finds it alive, and waits 47 ms.
void closeStandardError() {
    fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
    close(STDERR_FILENO);
    int null;
    do {
        null = open("/dev/null", O_RDWR);
    } while (null >= 0 && null < STDERR_FILENO);
    if (null > STDERR_FILENO) close(null);
}

void setStanzaName(const char* programPath) {
    const char* slash = std::strrchr(programPath, '/');
    CopyFixedText(StanzaName, slash != nullptr ? slash + 1 : programPath);
}

bool readPostArgs(ve_hrequest_t* request, const char* contentLength) {
    // 64 bits wide in every build: a length beyond 32 bits must not turn into a small one.
    const long long length = contentLength != nullptr ? std::strtoll(contentLength, nullptr, 10) : 0;
    if (length == 0) return true;
    if (length < 0 || length > 0xFFFFFFFFLL) return false;
    const auto size = static_cast<std::uint32_t>(length);
    ForbidCoreDumps();  // a body may be a password
    unsigned char* buffer = VeRequestGetPostArgBuffer(request, size);
    return buffer != nullptr && ReadOSFile(STDIN_FILENO, buffer, size) == length &&
           VeRequestSetPostArgDataSize(request, size);
}

// Passes the bytes on, after what is held, which is then gone. Whether somebody still reads them is not
// examined.
void writeOutput(const char* bytes, std::uint32_t length) {
    iovec parts[] = {{heldHeader.GetBuffer(), heldHeader.GetDataSize()}, {const_cast<char*>(bytes), length}};
    WriteOSFile(STDOUT_FILENO, parts, 2);
    heldHeader.Clear();
}

iovec part(const char* text) {
    return {const_cast<char*>(text), std::strlen(text)};
}

// What an "nph-" program begins an error page with, in place of the web server; nothing for any other.
std::array<iovec, 5> nphLines(const char* name) {
    if (!isNphMode(name)) return {};
    const char* protocol = std::getenv("SERVER_PROTOCOL");
    const char* software = std::getenv("SERVER_SOFTWARE");
    std::array<iovec, 5> lines = {part(protocol != nullptr ? protocol : "HTTP/1.0"),
                                  part(" 500 Internal Server Error\n")};
    if (software != nullptr) {
        lines[2] = part("Server: ");
        lines[3] = part(software);
        lines[4] = part("\n");
    }
    return lines;
}

// In one piece, as any output: the C library's stream would lose what an interrupted or blocked write had.
void writeErrorPage(std::uint32_t code) {
    char shortPage[512];
    const char* page = VeClientGetErrorHtml(nullptr, code);
    if (*page == 0) {  // there was no memory to put it together
        std::snprintf(shortPage, sizeof shortPage, VE_ERR_HTML_TEMPLATE, static_cast<int>(code),
                      "There is not enough memory.", "");
        page = shortPage;
    }
    const std::array<iovec, 5> lines = nphLines(StanzaName);
    iovec parts[] = {lines[0],  lines[1], lines[2],
                     lines[3],  lines[4], part("Content-type: text/html\r\n\r\n"),
                     part(page)};
    writeOutput(nullptr, 0);
    WriteOSFile(STDOUT_FILENO, parts, static_cast<int>(std::size(parts)));
}

// Where new finds no memory. Blocks of bytes, which may be large, tell their failures; this is about the
// small objects around them, whose lack would stop the process by an assertion, or without a page.
[[noreturn]] void endWithoutMemory() {
    writeErrorPage(CLIENT_ERR_INTERNAL);
    _exit(CLIENT_ERR_INTERNAL);
}

// One request from the environment set-up to the end of the response; 0 or the client error code.
int serveRequest(const char* programPath) {
    if (!VeClientInitEnvironment(true, nullptr, StanzaName)) {
        writeErrorPage(CLIENT_ERR_ENVIRONMENT);
        return CLIENT_ERR_ENVIRONMENT;
    }
    ve_hrequest_t* request = nullptr;
    ve_hclient_t* connection = VeClientCreateConnection(0);
    const auto fail = [&](QuilClientErrorCode code) {
        writeErrorPage(code);
        VeClientFreeRequest(connection, request);
        VeClientDestroyConnection(connection);
        return static_cast<int>(code);
    };

    if (connection == nullptr) return fail(CLIENT_ERR_CONNECTION);
    request = PrepareVelartoRequest(connection, programPath);
    if (request == nullptr) return fail(CLIENT_ERR_PREPARE);
    if (!VeClientConnectToServer(connection, request)) return fail(CLIENT_ERR_CONNECT);
    if (!VeClientSendRequest(connection, request)) return fail(CLIENT_ERR_SEND);
    VeClientFreeRequest(connection, request);
    request = nullptr;
    if (!VeClientDispatchRequests(connection, VeClientDispatchCB, nullptr)) return fail(CLIENT_ERR_DISPATCH);
    return 0;  // the connection ends with the process
}

}  // namespace

void write_nph(std::FILE* out, const char* name) {
    for (const iovec& line : nphLines(name))
        std::fwrite(line.iov_base, 1, line.iov_len, out);
}

ve_hrequest_t* PrepareVelartoRequest(ve_hclient_t* connection, const char* commandLine) {
    ve_hrequest_t* request = VeClientAllocRequest(connection);
    if (request == nullptr) return nullptr;
    const MemoryWatch memory;
    const char* contentLength = std::getenv("CONTENT_LENGTH");
    if (!readPostArgs(request, contentLength)) {
        VeClientFreeRequest(connection, request);
        return nullptr;
    }
    for (const ParamVariable& param : kParamVariables) {
        VeRequestSetAtrtibute(request, param.id, std::getenv(param.variable));
    }
    if (contentLength == nullptr) VeRequestSetAtrtibute(request, QUIL_PARAM_CONTENT_LENGTH, "0");
    VeRequestSetAtrtibute(request, QUIL_PARAM_COMMANDLINE, commandLine);
    VeRequestSetAtrtibute(request, QUIL_PARAM_FULLHEADER, "");
    if (memory.ranOut()) {
        VeClientFreeRequest(connection, request);
        return nullptr;
    }
    return request;
}

bool VeClientDispatchCB(ve_hclient_t* /*connection*/, TQUILReqType type, const char* data,
                        std::uint32_t length, void* /*user*/) {
    switch (type) {
        case QUIL_HTTP_HEADER: {
            void* response = VeHttpParseResponse(data, false);
            if (response == nullptr) return false;
            if (!isNphMode(StanzaName)) {  // the web server makes its own status line
                data = VeHttpFirstResponseHeader(response);
                length = static_cast<std::uint32_t>(std::strlen(data));
            }
            VeHttpReleaseResponse(response);
            writeOutput(nullptr, 0);
            if (heldHeader.SetEqualTo(data, length, 0) != length) {
                heldHeader.Clear();
                writeOutput(data, length);
            }
            return true;
        }
        case QUIL_BODY_DATA:
            writeOutput(data, length);
            return true;
        case QUIL_END:
            writeOutput(nullptr, 0);
            return true;
        default:
            return true;
    }
}

int main(int argc, char** argv) {
    std::set_new_handler(endWithoutMemory);
    setAlarm();
    closeStandardError();
    const char* programPath = argc > 0 ? argv[0] : "";
    setStanzaName(programPath);
    const int code = serveRequest(programPath);

    // The end of the process closes standard output in the same breath as it ends: a web server that sees the
    // end of the output while the process still lives may wait for it.
    _exit(code);
}
