// Report: how a host is, for machines and for people.
#pragma once

#include <ctime>
#include <string>
#include <vector>

#include "Configuration.h"
#include "Host.h"
#include "Metrics.h"

// One server of the client's list.
struct ServerReport {
    std::string entry;
    std::uint64_t attempts;
    std::uint64_t failures;
    std::uint64_t inFlight;
    bool isOut;          // left out by SERVERRETRY
    double outSeconds;   // since when
    std::string outFor;  // why
};

// The state at one time.
class Report {
  public:
    Report(const std::string& client, std::time_t started, const Host& host,
           const CurrentConfiguration& configuration, Metrics& metrics);

    std::string metrics() const;  // Prometheus' text format
    std::string json() const;
    std::string html() const;

  private:
    const std::string& client_;
    const std::time_t started_;
    const unsigned threads_;
    const unsigned busyThreads_;
    const unsigned connections_;
    const CurrentConfiguration::Condition configuration_;
    Metrics& metrics_;
    std::vector<ServerReport> servers_;
};
