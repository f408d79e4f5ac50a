// Metrics: what a host counts and measures, and the last failures in full.
#pragma once

#include <prometheus/counter.h>
#include <prometheus/family.h>
#include <prometheus/gauge.h>
#include <prometheus/histogram.h>
#include <prometheus/registry.h>

#include <array>
#include <cstdint>
#include <ctime>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "cgi/RequestLog.h"

constexpr std::size_t kChoices = 5;  // the values of ServerChoice

// One server of the list. Each lives as long as the metrics.
struct ServerMetrics {
    std::string entry;
    std::array<prometheus::Counter*, kChoices> choices;
    prometheus::Counter* attempts;
    prometheus::Gauge* inFlight;
};

// A failed request, for people.
struct FailedRequest {
    std::time_t time;
    std::string request;  // its id
    std::string method;
    std::string path;
    std::string server;
    int code;
    int status;
    double seconds;
};

// Counters only grow. Threads: any.
class Metrics {
  public:
    static constexpr std::size_t kFailuresKept = 50;

    Metrics();

    void begin();  // a thread takes a request up
    void end();
    // What a request was, by its end and the times of its log; whether nobody was there to take the response.
    void count(const RequestEnd& end, const RequestLog& log, bool isGone);
    void keep(FailedRequest failure);

    ServerMetrics& server(const std::string& entry);
    void countFailure(const ServerMetrics& server, int cause);

    std::vector<FailedRequest> failures() const;  // the youngest first
    std::uint64_t requestsInFlight() const { return countOf(inFlight_); }
    std::uint64_t answers() const { return countOf(answered_); }
    std::uint64_t pages() const;  // of failures
    std::uint64_t failedAttempts(const ServerMetrics& server) const;

    template <class Metric>
    static std::uint64_t countOf(const Metric& metric) {
        return static_cast<std::uint64_t>(metric.Value());
    }

    prometheus::Registry& registry() { return *registry_; }

  private:
    using Counters = prometheus::Family<prometheus::Counter>;
    using Gauges = prometheus::Family<prometheus::Gauge>;

    Counters& counters(const char* name, const char* help);
    prometheus::Histogram& histogram(const char* name, const char* help);

    const std::unique_ptr<prometheus::Registry> registry_;
    Counters& requests_;
    prometheus::Counter& answered_;
    prometheus::Counter& gone_;
    prometheus::Gauge& inFlight_;
    prometheus::Histogram& connectTime_;
    prometheus::Histogram& firstByteTime_;
    prometheus::Histogram& requestTime_;
    prometheus::Counter& received_;
    prometheus::Counter& sent_;
    Counters& choices_;
    Counters& attempts_;
    Counters& serverFailures_;
    Gauges& serverInFlight_;

    mutable std::mutex mutex_;                    // guards what follows
    std::map<int, prometheus::Counter*> byCode_;  // of failures
    std::uint64_t pages_ = 0;
    std::map<std::string, ServerMetrics> servers_;
    std::map<std::string, std::uint64_t> failedAttempts_;
    std::deque<FailedRequest> failures_;
};
