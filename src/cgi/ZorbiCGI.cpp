#include "cgi/ZorbiCGI.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <new>

#include "Server/Common_Classes/MemoryWatch.h"
#include "Server/General/FixedText.h"
#include "cgi/ByHand.h"
#include "cgi/NphLines.h"
#include "cgi/RequestLog.h"
#include "cgi/ResponseWriter.h"
#include "client/QuilClientError.h"
#include "platform/confine_impl.h"
#include "platform/memory_impl.h"
#include "platform/osfile_impl.h"
#include "protocol/QuilClient.h"

namespace {

constexpr unsigned kLongestRun = 300;  // seconds, then the alarm ends the process

char StanzaName[256];  // the program's base name: the client's name

ResponseWriter response(STDOUT_FILENO);
RequestLog requestLog;

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

// The system ends a process that hangs, also under a parent that ignores or blocks the signal.
void setAlarm() {
    sigset_t alarmOnly;
    sigemptyset(&alarmOnly);
    sigaddset(&alarmOnly, SIGALRM);
    std::signal(SIGALRM, SIG_DFL);
    sigprocmask(SIG_UNBLOCK, &alarmOnly, nullptr);
    alarm(kLongestRun);
}

// Takes the place of the alarm's end by a signal: a page, while nothing has gone out, and the code of it.
void endInTime(int) {
    response.writePreparedPage();
    requestLog.writePrepared();
    _exit(CLIENT_ERR_DISPATCH);
}

// Without memory for the page the alarm stays what it was.
void boundRun(unsigned seconds) {
    if (!response.prepareErrorPage(CLIENT_ERR_DISPATCH, kGatewayTimeout)) return;
    requestLog.prepare({CLIENT_ERR_DISPATCH, kGatewayTimeout, nullptr, 0, 0, false});
    std::signal(SIGALRM, endInTime);
    alarm(seconds);
}

// Nothing may reach a browser through standard error. The descriptor stays occupied, and so do 0 and 1 when
// the caller left them closed: a socket that got such a number would receive every diagnostic of the C
// library, or the response.
//
// What stood there stays open under another number until the process ends. A prefork Apache reads standard
// error beside the output. Where nothing but the end of the output wakes it, it often does so before the
// process is dead, finds it alive, and waits 47 ms.
// Returns that number, -1 when nothing stood there.
int closeStandardError() {
    const int kept = fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
    close(STDERR_FILENO);
    int null;
    do {
        null = open("/dev/null", O_RDWR);
    } while (null >= 0 && null < STDERR_FILENO);
    if (null > STDERR_FILENO) close(null);
    return kept;
}

void setStanzaName(const char* programPath) {
    const char* slash = std::strrchr(programPath, '/');
    CopyFixedText(StanzaName, slash != nullptr ? slash + 1 : programPath);
}

// False with the status that tells the browser why.
bool readPostArgs(ve_hrequest_t* request, const char* contentLength, HttpStatus& refusal) {
    // 64 bits wide in every build: a length beyond 32 bits must not turn into a small one.
    const long long length = contentLength != nullptr ? std::strtoll(contentLength, nullptr, 10) : 0;
    if (length == 0) return true;
    refusal = length > 0xFFFFFFFFLL ? kContentTooLarge : kBadRequest;
    if (length < 0 || length > 0xFFFFFFFFLL) return false;
    const auto size = static_cast<std::uint32_t>(length);
    ForbidCoreDumps();  // a body may be a password
    unsigned char* buffer = VeRequestGetPostArgBuffer(request, size);
    if (buffer == nullptr) {
        refusal = kContentTooLarge;
        return false;
    }
    return ReadOSFile(STDIN_FILENO, buffer, size) == length && VeRequestSetPostArgDataSize(request, size);
}

// The new-handler. Blocks of bytes, which may be large, tell their failures; this is about the small objects
// around them, whose lack would stop the process by an assertion, or without a page.
[[noreturn]] void endWithoutMemory() {
    response.writeErrorPage(CLIENT_ERR_INTERNAL, kInternalServerError);
    _exit(CLIENT_ERR_INTERNAL);
}

// Whether the last thing that happened to the connection was a wait that took too long.
bool hasTimedOut(ve_hclient_t* connection) {
    return QuilClient::CastHandleToQuilClient(connection)->transportError() == ETIMEDOUT;
}

// Whether the request has a body whose length the web server does not tell.
bool lacksLength() {
    return std::getenv("HTTP_TRANSFER_ENCODING") != nullptr && std::getenv("CONTENT_LENGTH") == nullptr;
}

// One request from the environment set-up to the end of the response; 0 or the client error code.
int serveRequest(const char* programPath, int standardError) {
    if (!VeClientInitEnvironment(true, nullptr, StanzaName)) {
        response.writeErrorPage(CLIENT_ERR_ENVIRONMENT, kInternalServerError);
        return CLIENT_ERR_ENVIRONMENT;
    }
    const ResponseSettings settings = ResponseSettings::load();
    response.setSettings(settings);
    requestLog.open(settings, StanzaName, standardError);
    if (settings.requestTimeout != 0) boundRun(settings.requestTimeout);

    ve_hrequest_t* request = nullptr;
    ve_hclient_t* connection = VeClientCreateConnection(0);
    std::uint32_t bodySize = 0;
    const auto end = [&](int code, HttpStatus status) {
        requestLog.write({code, status, QuilClient::CastHandleToQuilClient(connection), bodySize,
                          response.bytesWritten(), response.lacksErrorPage()});
        return code;
    };
    const auto fail = [&](QuilClientErrorCode code, HttpStatus status) {
        response.writeErrorPage(code, status);
        end(static_cast<int>(code), status);
        VeClientFreeRequest(connection, request);
        VeClientDestroyConnection(connection);
        return static_cast<int>(code);
    };
    const auto failInTalk = [&](QuilClientErrorCode code) {
        return fail(code, hasTimedOut(connection) ? kGatewayTimeout : kBadGateway);
    };

    if (connection == nullptr) return fail(CLIENT_ERR_CONNECTION, kInternalServerError);
    if (settings.needsLength && lacksLength()) return fail(CLIENT_ERR_PREPARE, kLengthRequired);
    HttpStatus refusal = kInternalServerError;
    request = PrepareVelartoRequest(connection, programPath, &refusal);
    if (request == nullptr) return fail(CLIENT_ERR_PREPARE, refusal);
    VeRequestGetPostArgData(request, &bodySize);
    requestLog.enter(RequestLog::kConnection);
    if (!VeClientConnectToServer(connection, request)) return fail(CLIENT_ERR_CONNECT, kServiceUnavailable);
    // All that is still read are the files that the server asks for, and the page of a failure.
    if (!settings.fileRoots.IsEmpty())
        ConfineFiles(settings.fileRoots.GetTextEx(), settings.errorPage.GetTextEx());
    requestLog.enter(RequestLog::kSending);
    if (!VeClientSendRequest(connection, request)) return failInTalk(CLIENT_ERR_SEND);
    requestLog.enter(RequestLog::kAnswer);
    VeClientFreeRequest(connection, request);
    request = nullptr;
    if (!VeClientDispatchRequests(connection, VeClientDispatchCB, nullptr))
        return failInTalk(CLIENT_ERR_DISPATCH);
    return end(0, {200, "OK"});  // the connection ends with the process
}

}  // namespace

void write_nph(std::FILE* out, const char* name) {
    if (!IsNphName(name)) return;
    const NphLines nph(kInternalServerError);
    for (int i = 0; i < NphLines::kParts; ++i)
        std::fwrite(nph.parts()[i].iov_base, 1, nph.parts()[i].iov_len, out);
}

ve_hrequest_t* PrepareVelartoRequest(ve_hclient_t* connection, const char* commandLine, HttpStatus* refusal) {
    ve_hrequest_t* request = VeClientAllocRequest(connection);
    if (request == nullptr) return nullptr;
    const MemoryWatch memory;
    const char* contentLength = std::getenv("CONTENT_LENGTH");
    HttpStatus status = kInternalServerError;
    if (!readPostArgs(request, contentLength, status)) {
        if (refusal != nullptr) *refusal = status;
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
    requestLog.enter(RequestLog::kRest);
    switch (type) {
        case QUIL_HTTP_HEADER:
            return response.writeHeader(data, length);
        case QUIL_BODY_DATA:
            return response.writeBody(data, length);
        case QUIL_END:
            return response.finish();
        default:
            return true;
    }
}

int main(int argc, char** argv) {
    if (AnswerByHand(argc, argv)) return 0;
    std::set_new_handler(endWithoutMemory);
    setAlarm();
    const int standardError = closeStandardError();
    const char* programPath = argc > 0 ? argv[0] : "";
    setStanzaName(programPath);
    response.setNph(IsNphName(StanzaName));
    const int code = serveRequest(programPath, standardError);

    // The end of the process closes standard output in the same breath as it ends: a web server that sees the
    // end of the output while the process still lives may wait for it.
    _exit(code);
}
