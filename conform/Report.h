// Report: the findings as TAP (version 13) or as JSON, on standard output.
#pragma once

#include <memory>

#include "Rules.h"

class Report {
  public:
    virtual ~Report() = default;

    virtual void begin(const std::string& server, std::size_t count) = 0;
    virtual void tell(const Rule& rule, const Finding& finding) = 0;
    virtual void end() = 0;
};

std::unique_ptr<Report> makeReport(bool json);

// The rules themselves.
void printList(const std::vector<Rule>& rules, bool json);
