#include "Report.h"

#include <iostream>
#include <nlohmann/json.hpp>

#include "common/Text.h"

namespace {

// Keys stand in the order in which they were put in.
using Json = nlohmann::ordered_json;

std::string textOf(const Json& document, int indent) {
    return document.dump(indent, ' ', false, Json::error_handler_t::replace);
}

Json describe(const Rule& rule) {
    return Json{{"id", rule.id}, {"title", rule.title}, {"section", rule.link()}};
}

class TapReport : public Report {
  public:
    void begin(const std::string& /*server*/, std::size_t count) override {
        std::cout << "TAP version 13\n1.." << count << std::endl;
    }

    void tell(const Rule& rule, const Finding& finding) override {
        std::cout << (finding.verdict == Verdict::kBroken ? "not ok " : "ok ") << ++number_ << " - "
                  << rule.id << ": " << rule.title;
        if (finding.verdict == Verdict::kSkipped) std::cout << " # SKIP " << finding.reason;
        std::cout << '\n';
        if (finding.verdict == Verdict::kBroken) {
            // A text of JSON is one of YAML.
            std::cout << "  ---\n  message: " << textOf(finding.reason, -1)
                      << "\n  remedy: " << textOf(rule.remedy, -1)
                      << "\n  section: " << textOf(rule.link(), -1) << "\n  ...\n";
        }
        std::cout << std::flush;
    }

    void end() override {}

  private:
    std::size_t number_ = 0;
};

class JsonReport : public Report {
  public:
    void begin(const std::string& server, std::size_t /*count*/) override {
        document_ = {{"server", server}, {"rules", Json::array()}};
    }

    void tell(const Rule& rule, const Finding& finding) override {
        static constexpr const char* kNames[] = {"holds", "broken", "skipped"};
        Json entry = describe(rule);
        entry["verdict"] = kNames[static_cast<int>(finding.verdict)];
        if (!finding.reason.empty()) entry["reason"] = finding.reason;
        if (finding.verdict == Verdict::kBroken) entry["remedy"] = rule.remedy;
        document_["rules"].push_back(std::move(entry));
    }

    void end() override { std::cout << textOf(document_, 2) << '\n'; }

  private:
    Json document_;
};

}  // namespace

std::unique_ptr<Report> makeReport(bool json) {
    if (json) return std::make_unique<JsonReport>();
    return std::make_unique<TapReport>();
}

void printList(const std::vector<Rule>& rules, bool json) {
    Json document = Json::array();
    for (const Rule& rule : rules) {
        document.push_back(describe(rule));
        if (!json) std::cout << format("%-22s %s (%s)\n", rule.id, rule.title, rule.section);
    }
    if (json) std::cout << textOf(document, 2) << '\n';
}
