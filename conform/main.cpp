// velarto-conform: plays the gateway against an application server, and tells which rules of the protocol hold.
#include <algorithm>
#include <csignal>
#include <iostream>

#include "Report.h"

namespace {

enum ExitStatus { kFine = 0, kBroken = 1, kUnusable = 2 };

int fail(const std::string& message) {
    std::cerr << "velarto-conform: " << message << '\n';
    return kUnusable;
}

int tryOut(const Options& options, const std::vector<Rule>& rules) {
    Trial trial(options);
    trial.plain();  // is there a server at all?
    const std::unique_ptr<Report> report = makeReport(options.json);
    report->begin(options.server, rules.size());
    bool allHold = true;
    for (const Rule& rule : rules) {
        const Finding finding = judge(trial, rule);
        report->tell(rule, finding);
        allHold = allHold && finding.verdict != Verdict::kBroken;
        if (!std::cout) break;
    }
    report->end();
    return allHold ? kFine : kBroken;
}

}  // namespace

int main(int argc, char** argv) {
    std::signal(SIGPIPE, SIG_IGN);  // a reader who has gone is an error like a full disk
    Options options;
    if (const auto status = parseOptions(argc, argv, options)) return *status;

    std::vector<Rule> rules = allRules();
    const auto isLeftOut = [&](const Rule& rule) {
        return !options.only.empty() && options.only.count(rule.id) == 0;
    };
    rules.erase(std::remove_if(rules.begin(), rules.end(), isLeftOut), rules.end());
    int status = kFine;
    try {
        if (options.list) {
            printList(rules, options.json);
        } else {
            status = tryOut(options, rules);
        }
    } catch (const Unreachable& error) {
        return fail(options.server + " cannot be reached: " + error.what());
    } catch (const std::exception& error) {
        return fail(error.what());
    }
    return std::cout.flush() ? status : fail("the output cannot be written");
}
