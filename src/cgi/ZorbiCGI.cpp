#include "cgi/ZorbiCGI.h"

#include <fcntl.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <cstring>
#include <new>

#include "Server/General/FixedText.h"
#include "cgi/ByHand.h"
#include "cgi/Exchange.h"
#include "cgi/NphLines.h"
#include "cgi/StandardStreams.h"
#include "platform/confine_impl.h"

namespace {

constexpr unsigned kLongestRun = 300;  // seconds, then the alarm ends the process

char StanzaName[256];  // the program's base name: the client's name

const ProcessEnvironment environment;
StandardOutput standardOutput;
RequestId requestId(environment);
ResponseWriter response(standardOutput, environment, requestId);
RequestLog requestLog(environment, requestId);

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

// The new-handler. Blocks of bytes, which may be large, tell their failures; this is about the small objects
// around them, whose lack would stop the process by an assertion, or without a page.
[[noreturn]] void endWithoutMemory() {
    response.writeErrorPage(CLIENT_ERR_INTERNAL, kInternalServerError);
    _exit(CLIENT_ERR_INTERNAL);
}

class GatewayExchange final : public Exchange {
  public:
    GatewayExchange(const RequestParts& parts, const ResponseSettings& settings)
        : Exchange(parts, settings, response, requestLog), settings_(settings) {}

  private:
    // All that is read after it are the files that the server asks for, and the page of a failure.
    bool connect(ve_hclient_t* connection, ve_hrequest_t* request) override {
        if (!VeClientConnectToServer(connection, request)) return false;
        if (!settings_.fileRoots.IsEmpty())
            ConfineFiles(settings_.fileRoots.GetTextEx(), settings_.errorPage.GetTextEx());
        return true;
    }
    bool send(ve_hclient_t* connection, ve_hrequest_t* request) override {
        return VeClientSendRequest(connection, request);
    }
    bool dispatch(ve_hclient_t* connection) override {
        return VeClientDispatchRequests(connection, VeClientDispatchCB, nullptr);
    }

    const ResponseSettings& settings_;
};

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

    StandardInput body;
    const RequestParts parts{environment, body, programPath, ""};
    ve_hclient_t* connection = VeClientCreateConnection(0);
    const RequestEnd end = GatewayExchange(parts, settings).serve(connection);
    if (end.code != 0) VeClientDestroyConnection(connection);  // else it ends with the process
    return end.code;
}

}  // namespace

void write_nph(std::FILE* out, const char* name) {
    if (!IsNphName(name)) return;
    const NphLines nph(kInternalServerError, environment);
    for (int i = 0; i < NphLines::kParts; ++i)
        std::fwrite(nph.parts()[i].iov_base, 1, nph.parts()[i].iov_len, out);
}

ve_hrequest_t* PrepareVelartoRequest(ve_hclient_t* connection, const char* commandLine, HttpStatus* refusal) {
    StandardInput body;
    HttpStatus status{};
    ve_hrequest_t* request = MakeRequestRecord(connection, {environment, body, commandLine, ""}, status);
    if (request == nullptr && refusal != nullptr) *refusal = status;
    return request;
}

bool VeClientDispatchCB(ve_hclient_t* /*connection*/, TQUILReqType type, const char* data,
                        std::uint32_t length, void* /*user*/) {
    requestLog.enter(RequestLog::kRest);
    return response.take(type, data, length);
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
