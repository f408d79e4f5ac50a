// velarto-devserver: the development application server, something for the gateway to talk to.
#include <fcntl.h>
#include <unistd.h>

#include <csignal>
#include <exception>

#include "Log.h"
#include "Options.h"
#include "Server.h"

namespace {

// The signals that end the server. Blocked before there is any thread, so that only waitForEnd() gets them.
sigset_t endSignals() {
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGTERM);
    sigaddset(&signals, SIGINT);
    return signals;
}

// A caller may have closed some of descriptors 0 to 2: nothing that is opened later may take their place, or
// a client would get the log.
void occupyStandardDescriptors() {
    int descriptor = 0;
    do {
        descriptor = ::open("/dev/null", O_RDWR);
    } while (descriptor >= 0 && descriptor <= STDERR_FILENO);
    if (descriptor >= 0) ::close(descriptor);
}

void waitForEnd() {
    const sigset_t signals = endSignals();
    int signal = 0;
    sigwait(&signals, &signal);
}

}  // namespace

int main(int argc, char** argv) {
    occupyStandardDescriptors();
    Options options;
    if (const auto status = parseOptions(argc, argv, options)) return *status;

    const sigset_t signals = endSignals();
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    std::signal(SIGPIPE, SIG_IGN);  // a log whose reader has gone ends nothing
    try {
        Server server(options);
        server.start();
        logLine("velarto-devserver listening on " + server.endpoint());
        waitForEnd();
        server.stop();
    } catch (const std::exception& error) {
        logError(error.what());
        return 1;
    }
    return 0;
}
