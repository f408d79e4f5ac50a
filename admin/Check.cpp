// velarto-config check: what is wrong in the file, with its place and a remedy.
#include <algorithm>
#include <iostream>

#include "Command.h"
#include "Configuration.h"
#include "Findings.h"

namespace {

// Where a character begins, at i or at most three bytes behind it; bytes that are no UTF-8 may end anywhere.
std::size_t characterFrom(const std::string& text, std::size_t i) {
    const std::size_t last = std::min(i + 3, text.size());
    while (i < last && !beginsCharacter(text[i]))
        ++i;
    return std::min(i, text.size());
}

// As compilers do, so that editors can follow it.
void printFinding(const std::string& path, const Outline& outline, const Finding& finding) {
    const auto& [line, column] = finding.place;
    const std::string severity = finding.isError ? "error: " : "warning: ";
    std::cout << faultText(path, finding.place, severity + finding.message) << '\n';
    if (line != 0) {
        const std::string number = std::to_string(line);
        const std::string text(outline.line(line));
        const std::string before = shown(text.substr(0, column - 1));
        constexpr std::size_t kWidth = 90;  // of a terminal, less what stands around
        const std::string whole = shown(text);
        const bool isCut = whole.size() > kWidth && before.size() > kWidth / 2;  // in front
        const std::size_t begin = characterFrom(whole, isCut ? before.size() - kWidth / 2 : 0);
        const std::size_t end = characterFrom(whole, begin + kWidth);
        const std::string mark = isCut ? "..." : "";
        std::cout << "    " << number << " | " << mark << whole.substr(begin, end - begin)
                  << (end < whole.size() ? "..." : "") << "\n    " << std::string(number.size(), ' ') << " | "
                  << std::string(mark.size() + widthOf(before.substr(begin)), ' ') << "^\n";
    }
    std::cout << "    remedy: " << finding.remedy << '\n';
}

Json toJson(const Outline& outline, const Finding& finding) {
    Json json{{"severity", finding.isError ? "error" : "warning"}};
    if (finding.place.line != 0) {
        json["line"] = finding.place.line;
        json["column"] = finding.place.column;
        json["text"] = outline.line(finding.place.line);
    }
    json["message"] = finding.message;
    json["remedy"] = finding.remedy;
    return json;
}

std::string counted(std::size_t n, const std::string& what) {
    return std::to_string(n) + " " + what + (n == 1 ? "" : "s");
}

int check(const Request& request) {
    const Snapshot file(locate(request));
    const std::string& path = file.path();
    const Outline& outline = file.outline();
    const std::vector<Finding> findings = findingsIn(outline);
    const auto errors = static_cast<std::size_t>(
        std::count_if(findings.begin(), findings.end(), [](const Finding& f) { return f.isError; }));
    if (request.json) {
        Json list = Json::array();
        for (const Finding& finding : findings)
            list.push_back(toJson(outline, finding));
        print({{"path", path}, {"parses", outline.parses()}, {"findings", list}});
    } else {
        for (const Finding& finding : findings)
            printFinding(path, outline, finding);
        std::cout << shown(path) << ": " << counted(outline.sections().size(), "section") << ", "
                  << counted(errors, "error") << ", " << counted(findings.size() - errors, "warning") << '\n';
        if (!outline.parses()) std::cout << "The gateway refuses this file: every client gets error 601.\n";
    }
    return findings.empty() ? kFine : kFindings;
}

}  // namespace

void addCheck(CLI::App& app, Request& request) {
    app.add_subcommand("check", "Find what is wrong in the configuration, with line and remedy")
        ->callback([&request] { request.command = [&request] { return check(request); }; });
}
