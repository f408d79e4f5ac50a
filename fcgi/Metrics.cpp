#include "Metrics.h"

#include <cerrno>

#include "client/Velarto.h"
#include "protocol/ServerState.h"

namespace {

// Seconds; from an idle loopback server to one that takes a report's time.
const prometheus::Histogram::BucketBoundaries kSeconds = {
    0.0005, 0.001, 0.0025, 0.005, 0.01, 0.025, 0.05, 0.1, 0.25, 0.5, 1, 2.5, 5, 10, 30, 60};

constexpr const char* kChoiceNames[kChoices] = {"none", "only", "forced", "user", "random"};
static_assert(static_cast<std::size_t>(ServerChoice::kRandom) == kChoices - 1, "a name for each choice");

prometheus::Gauge& gauge(prometheus::Registry& registry, const char* name, const char* help) {
    return prometheus::BuildGauge().Name(name).Help(help).Register(registry).Add({});
}

// A few words for a few causes: a label must not take any value.
const char* causeName(int cause) {
    switch (cause) {
        case ServerState::kNoSuchHost:
            return "no such host";
        case ECONNREFUSED:
            return "refused";
        case ETIMEDOUT:
            return "no answer";
        case EHOSTUNREACH:
        case ENETUNREACH:
            return "unreachable";
        case EMFILE:
        case ENFILE:
            return "no descriptors";
        default:
            return "other";
    }
}

}  // namespace

Metrics::Metrics()
    : registry_(std::make_unique<prometheus::Registry>()),
      requests_(counters("velarto_requests_total",
                         "Requests by outcome: answered, gone (nobody took it) or the code of a failure.")),
      answered_(requests_.Add({{"outcome", "answered"}})),
      gone_(requests_.Add({{"outcome", "gone"}})),
      inFlight_(gauge(*registry_, "velarto_requests_in_flight", "Requests that a thread is at work on.")),
      connectTime_(histogram("velarto_connect_seconds", "Time to reach a server, all attempts included.")),
      firstByteTime_(
          histogram("velarto_first_byte_seconds", "Time from the request's end to the answer's beginning.")),
      requestTime_(histogram("velarto_request_seconds", "Time of the whole request.")),
      received_(counters("velarto_received_bytes_total", "Bytes of the requests' bodies.").Add({})),
      sent_(counters("velarto_sent_bytes_total", "Bytes of the responses, to the web server.").Add({})),
      choices_(
          counters("velarto_server_choices_total", "Attempts by the way in which the server was chosen.")),
      attempts_(counters("velarto_server_attempts_total", "Attempts to connect to a server.")),
      serverFailures_(counters("velarto_server_failures_total", "Attempts that failed, by reason.")),
      serverInFlight_(prometheus::BuildGauge()
                          .Name("velarto_server_requests_in_flight")
                          .Help("Requests that a server is at work on.")
                          .Register(*registry_)) {
    prometheus::BuildGauge()
        .Name("velarto_build_info")
        .Help("1, with the version as a label.")
        .Register(*registry_)
        .Add({{"version", VeClientGetBuildVersion()}})
        .Set(1);
}

Metrics::Counters& Metrics::counters(const char* name, const char* help) {
    return prometheus::BuildCounter().Name(name).Help(help).Register(*registry_);
}

prometheus::Histogram& Metrics::histogram(const char* name, const char* help) {
    return prometheus::BuildHistogram().Name(name).Help(help).Register(*registry_).Add({}, kSeconds);
}

void Metrics::begin() {
    inFlight_.Increment();
}

void Metrics::end() {
    inFlight_.Decrement();
}

void Metrics::count(const RequestEnd& end, const RequestLog& log, bool isGone) {
    const auto observe = [](prometheus::Histogram& histogram, double milliseconds) {
        if (milliseconds >= 0) histogram.Observe(milliseconds / 1e3);
    };
    observe(connectTime_, log.milliseconds(RequestLog::kConnection, RequestLog::kSending));
    observe(firstByteTime_, log.milliseconds(RequestLog::kAnswer, RequestLog::kRest));
    observe(requestTime_, log.milliseconds(RequestLog::kBody));
    received_.Increment(static_cast<double>(end.bytesIn));
    sent_.Increment(static_cast<double>(end.bytesOut));

    if (isGone) {
        gone_.Increment();
    } else if (end.code == 0) {
        answered_.Increment();
    } else {
        const std::lock_guard lock(mutex_);
        prometheus::Counter*& counter = byCode_[end.code];
        if (counter == nullptr) counter = &requests_.Add({{"outcome", std::to_string(end.code)}});
        counter->Increment();
        ++pages_;
    }
}

void Metrics::keep(FailedRequest failure) {
    const std::lock_guard lock(mutex_);
    failures_.push_front(std::move(failure));
    if (failures_.size() > kFailuresKept) failures_.pop_back();
}

ServerMetrics& Metrics::server(const std::string& entry) {
    const std::lock_guard lock(mutex_);
    const auto known = servers_.find(entry);
    if (known != servers_.end()) return known->second;
    ServerMetrics& server = servers_[entry];
    server.entry = entry;
    for (std::size_t i = 0; i < kChoices; ++i)
        server.choices[i] = &choices_.Add({{"server", entry}, {"choice", kChoiceNames[i]}});
    server.attempts = &attempts_.Add({{"server", entry}});
    server.inFlight = &serverInFlight_.Add({{"server", entry}});
    return server;
}

void Metrics::countFailure(const ServerMetrics& server, int cause) {
    serverFailures_.Add({{"server", server.entry}, {"reason", causeName(cause)}}).Increment();
    const std::lock_guard lock(mutex_);
    ++failedAttempts_[server.entry];
}

std::vector<FailedRequest> Metrics::failures() const {
    const std::lock_guard lock(mutex_);
    return {failures_.begin(), failures_.end()};
}

std::uint64_t Metrics::pages() const {
    const std::lock_guard lock(mutex_);
    return pages_;
}

std::uint64_t Metrics::failedAttempts(const ServerMetrics& server) const {
    const std::lock_guard lock(mutex_);
    const auto found = failedAttempts_.find(server.entry);
    return found != failedAttempts_.end() ? found->second : 0;
}
