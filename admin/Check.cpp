// velarto-config check: what is wrong in the file, with its place and a remedy.
#include <algorithm>
#include <iostream>

#include "Command.h"
#include "Configuration.h"
#include "Findings.h"

namespace {

// As compilers do, so that editors can follow it.
void printFinding(const std::string& path, const Outline& outline, const Finding& finding) {
    const auto& [line, column] = finding.place;
    std::cout << shown(path) << ':';
    if (line != 0) std::cout << line << ':' << column << ':';
    std::cout << (finding.isError ? " error: " : " warning: ") << finding.message << '\n';
    if (line != 0) {
        const std::string number = std::to_string(line);
        const std::string text(outline.line(line));
        const std::string before = shown(text.substr(0, column - 1));
        constexpr std::size_t kWidth = 90;  // of a terminal, less what stands around
        const std::size_t skipped = before.size() > kWidth / 2 ? before.size() - kWidth / 2 : 0;
        std::cout << "    " << number << " | " << shown(text).substr(skipped, kWidth) << "\n    "
                  << std::string(number.size(), ' ') << " | " << std::string(before.size() - skipped, ' ')
                  << "^\n";
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
    const std::string path = locate(request).path;
    const Outline outline(contentOf(path));
    const std::vector<Finding> findings = findingsIn(outline);
    const auto errors = static_cast<std::size_t>(
        std::count_if(findings.begin(), findings.end(), [](const Finding& f) { return f.isError; }));
    if (request.json) {
        Json list = Json::array();
        for (const Finding& finding : findings)
            list.push_back(toJson(outline, finding));
        print({{"path", path}, {"parses", outline.errors().empty()}, {"findings", list}});
    } else {
        for (const Finding& finding : findings)
            printFinding(path, outline, finding);
        std::cout << shown(path) << ": " << counted(outline.sections().size(), "section") << ", "
                  << counted(errors, "error") << ", " << counted(findings.size() - errors, "warning") << '\n';
        if (!outline.errors().empty())
            std::cout << "The gateway refuses this file: every client gets error 601.\n";
    }
    return findings.empty() ? kFine : kFindings;
}

}  // namespace

void addCheck(CLI::App& app, Request& request) {
    app.add_subcommand("check", "Find what is wrong in the configuration, with line and remedy")
        ->callback([&request] { request.command = [&request] { return check(request); }; });
}
