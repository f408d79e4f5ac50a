#include "Rules.h"

#include <algorithm>
#include <cctype>

std::string Rule::link() const {
    std::string anchor(section);
    for (char& c : anchor)
        c = c == ' ' ? '-' : static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return "docs/protocol.md#" + anchor;
}

std::vector<Rule> allRules() {
    std::vector<Rule> all;
    for (const auto part : {answerRules, requestRules, cookieRules, fileRules, connectionRules}) {
        const std::vector<Rule> rules = part();
        all.insert(all.end(), rules.begin(), rules.end());
    }
    return all;
}

Finding judge(Trial& trial, const Rule& rule) {
    try {
        if (const auto& fault = trial.plain().fault) {
            if (std::string(fault->rule()) == rule.id) throw Broken(*fault);
            throw Skipped(std::string("the answer to the usual request breaks off, see ") + fault->rule());
        }
        if (rule.tryOut != nullptr) rule.tryOut(trial);
        return {Verdict::kHolds, ""};
    } catch (const Broken& broken) {
        return {Verdict::kBroken, broken.what()};
    } catch (const Skipped& skipped) {
        return {Verdict::kSkipped, skipped.what()};
    } catch (const Unreachable& error) {
        return {Verdict::kBroken, std::string("no connection: ") + error.what()};
    }
}
