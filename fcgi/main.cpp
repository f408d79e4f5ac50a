// velarto-fcgi: a FastCGI server on the client library. The main thread starts the others, and from then on only
// waits for signals, looks after overdue requests, and tells systemd that all is well.
#include <fcgiapp.h>
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <systemd/sd-daemon.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <exception>
#include <optional>

#include "Configuration.h"
#include "Host.h"
#include "Log.h"
#include "Options.h"
#include "Report.h"
#include "StatusServer.h"
#include "client/ConfigClnt.h"
#include "client/Velarto.h"

namespace {

constexpr int kCannotStart = 1;
constexpr int kBadConfiguration = 78;  // EX_CONFIG of sysexits.h
constexpr std::chrono::milliseconds kTick(500);
constexpr std::chrono::seconds kFarewell(30);

bool isListening(int descriptor) {
    int value = 0;
    socklen_t length = sizeof value;
    return getsockopt(descriptor, SOL_SOCKET, SO_ACCEPTCONN, &value, &length) == 0 && value != 0;
}

// The socket that was asked for, or that the host was given. Afterwards descriptor 0 is never it: libfcgi has uses of
// its own for that number.
int takeListener(const Options& options) {
    if (options.listen) return listenOn(*options.listen, true);
    const int given = sd_listen_fds(1) > 0 ? SD_LISTEN_FDS_START : STDIN_FILENO;
    if (!isListening(given))
        throw std::runtime_error(
            "no socket to serve: --listen names one, or systemd or spawn-fcgi gives one");
    const int listener = fcntl(given, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
    if (given != STDIN_FILENO) close(given);
    fcntl(listener, F_SETFL, fcntl(listener, F_GETFL) | O_NONBLOCK);
    return listener;
}

// Where a socket is. A unix socket itself knows only the name that it was bound under at first.
std::string placeOf(const std::optional<Endpoint>& asked, int listener) {
    return asked && !asked->path.empty() ? asked->text() : addressOf(listener);
}

// No descriptor may be beyond what libfcgi's select() can take. How many there may be.
unsigned boundDescriptors() {
    constexpr rlim_t kMost = 1024;
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0) return kMost;
    limit.rlim_cur = limit.rlim_max == RLIM_INFINITY ? kMost : std::min<rlim_t>(kMost, limit.rlim_max);
    setrlimit(RLIMIT_NOFILE, &limit);
    return static_cast<unsigned>(limit.rlim_cur);
}

// The signals that the main thread waits for; all threads inherit that they are blocked.
sigset_t blockSignals() {
    sigset_t signals;
    sigemptyset(&signals);
    for (const int signal : {SIGHUP, SIGTERM, SIGINT})
        sigaddset(&signals, signal);
    sigprocmask(SIG_BLOCK, &signals, nullptr);
    std::signal(SIGPIPE, SIG_IGN);
    return signals;
}

// Standard input and output lead nowhere from here on; 0 to 2 are never free.
void occupyStandardStreams() {
    const int null = open("/dev/null", O_RDWR | O_CLOEXEC);
    dup2(null, STDIN_FILENO);
    dup2(null, STDOUT_FILENO);
    if (fcntl(STDERR_FILENO, F_GETFD) == -1) dup2(null, STDERR_FILENO);
    if (null > STDERR_FILENO) close(null);
}

std::string configurationPath() {
    CText path;
    if (!ConfigFile::buildConfigPath(kDefaultIniFile, path))
        throw std::runtime_error(
            "the folder of clients.ini cannot be found; VELARTO_PATH names the one above it");
    return path.GetTextEx();
}

// Waits for a signal, or the next tick; 0 without a signal.
int waitForSignal(const sigset_t& signals) {
    const timespec tick{0, std::chrono::nanoseconds(kTick).count()};
    const int signal = sigtimedwait(&signals, nullptr, &tick);
    return signal > 0 ? signal : 0;
}

// Until a signal ends it.
void run(Host& host, CurrentConfiguration& configuration, const sigset_t& signals) {
    for (;;) {
        switch (waitForSignal(signals)) {
            case SIGHUP:
                configuration.reload();
                break;
            case SIGTERM:
            case SIGINT:
                return;
            default:
                break;
        }
        host.look();
        sd_notifyf(0, "WATCHDOG=1\nSTATUS=%u of %u threads busy", host.busyThreads(), host.threads());
    }
}

// Lets what is under way end; a second signal ends it at once.
void farewell(Host& host, const sigset_t& signals) {
    sd_notify(0, "STOPPING=1");
    logLine("ending, no more connections are taken");
    host.drain();
    const auto end = std::chrono::steady_clock::now() + kFarewell;
    while (!host.isDone() && std::chrono::steady_clock::now() < end) {
        const int signal = waitForSignal(signals);
        if (signal == SIGTERM || signal == SIGINT) break;
        host.look();
        sd_notify(0, "WATCHDOG=1");
    }
}

int serve(const Options& options) {
    const sigset_t signals = blockSignals();
    const unsigned descriptors = boundDescriptors();
    const Descriptor listener(takeListener(options));
    const int statusListener = options.status ? listenOn(*options.status, true) : -1;
    occupyStandardStreams();
    FCGX_Init();

    std::optional<CurrentConfiguration> configuration;
    try {
        configuration.emplace(configurationPath(), options.client, options.logsAll);
    } catch (const std::exception& error) {
        logLine(error.what());
        return kBadConfiguration;
    }
    Metrics metrics;
    Host host(options, listener.get(), descriptors, *configuration, metrics);
    const std::time_t started = std::time(nullptr);
    std::optional<StatusServer> status;
    if (statusListener != -1) {
        status.emplace(statusListener, [&](const std::string& path) -> StatusServer::Page {
            const auto report = [&] {
                return Report(options.client, started, host, *configuration, metrics);
            };
            if (path == "/") return {"text/html; charset=utf-8", report().html()};
            if (path == "/metrics") return {"text/plain; version=0.0.4; charset=utf-8", report().metrics()};
            if (path == "/status.json") return {"application/json", report().json()};
            return {"", ""};
        });
        logLine("status at " + placeOf(options.status, statusListener));
    }
    logLine("serving " + options.client + " on " + placeOf(options.listen, listener.get()));
    sd_notify(0, "READY=1");
    run(host, *configuration, signals);
    farewell(host, signals);
    return 0;
}

int check(const Options& options) {
    const std::string path = configurationPath();
    const std::string fault = Configuration::check(path, options.client);
    logLine(fault.empty() ? path + ": [" + options.client + "] can be used" : fault);
    return fault.empty() ? 0 : kBadConfiguration;
}

}  // namespace

int main(int argc, char** argv) {
    Options options;
    if (const std::optional<int> status = parseOptions(argc, argv, options)) return *status;
    try {
        return options.checks ? check(options) : serve(options);
    } catch (const std::exception& error) {
        logLine(error.what());
        return kCannotStart;
    }
}
