// The documents, as far as a machine can check them: the conversation of the protocol is what the real gateway
// holds, the configuration shown is one, and links lead somewhere.
#include <sys/time.h>

#include <filesystem>
#include <map>
#include <regex>
#include <sstream>

#include "config/ClientKeys.h"
#include "config/ConfigFile.h"
#include "support/Contains.h"
#include "support/Gateway.h"

namespace {

using namespace support;
namespace fs = std::filesystem;

const std::string kProject = VELARTO_EXAMPLES_PATH "/../";

// What the pattern's groups hold, match after match.
std::vector<std::smatch> matches(const std::string& text, const char* pattern) {
    const std::regex regex(pattern, std::regex::ECMAScript | std::regex::multiline);
    return {std::sregex_iterator(text.begin(), text.end(), regex), std::sregex_iterator()};
}

using Documents = GatewayTest;

TEST_F(Documents, TellAConversationOfTheGateway) {
    const std::string text = readFile(kProject + "docs/protocol.md");
    std::vector<std::string> environment;
    for (const auto& variable : matches(text, "^[A-Z_]+=.+"))
        environment.push_back(variable[0]);

    // Each line: who sends (I and O are standard input and output, G the gateway, S the server), where in all
    // that he sends, the bytes.
    std::vector<std::pair<char, std::string>> lines;
    std::map<char, std::string> all;
    for (const auto& line : matches(text, "^([IOGS]) ([0-9A-F]{4})  ((?:[0-9A-F]{2} ?)+)")) {
        const char sender = *line[1].first;
        std::string bytes;
        std::istringstream pairs(line[3]);
        for (unsigned byte; pairs >> std::hex >> byte;)
            bytes.push_back(static_cast<char>(byte));
        EXPECT_EQ(std::stoul(line[2], nullptr, 16), all[sender].size()) << line[0];
        all[sender] += bytes;
        lines.emplace_back(sender, bytes);
    }

    writeFile(folder_ / "greeting.txt", "Hi\n");
    const timeval times[2] = {{0x5E0BE100, 0}, {0x5E0BE100, 0}};
    ASSERT_EQ(::utimes((folder_ / "greeting.txt").c_str(), times), 0);
    serveAlone([&lines](Connection& connection) {
        for (const auto& [sender, bytes] : lines) {
            if (sender == 'G') connection.expect(bytes);
            if (sender == 'S') connection.send(bytes);
        }
    });
    expectSuccess(run(environment, all['I']), all['O']);
}

TEST_F(Documents, ShowAConfigurationThatHolds) {
    const std::string text = readFile(kProject + "docs/configuration.md");
    writeFile(clientsFile(), matches(text, "```ini\n([^`]+)```\n").at(0)[1]);
    ConfigFile file(clientsFile().c_str(), "Velarto Client Definitions");
    EXPECT_TRUE(file.parseConfigFile()) << file.lastParseError().reason;
}

// As the table of keys in the document has it.
std::string rowOf(const ClientKey& key) {
    std::string holds;
    switch (key.kind) {
        case KeyKind::kText:
            holds = "text";
            break;
        case KeyKind::kServers:
            holds = "servers";
            break;
        case KeyKind::kPorts:
            holds = "ports";
            break;
        case KeyKind::kNumber:
            holds = std::to_string(key.least) + " to " + std::to_string(key.most) + " " + key.unit;
            break;
        case KeyKind::kTruth:
            holds = "yes or no";
            break;
        case KeyKind::kExtensions:
            holds = "extensions";
            break;
        case KeyKind::kReadableFile:
            holds = "file";
            break;
        case KeyKind::kWord:
            holds = std::regex_replace(key.words, std::regex("\\|"), ", ");
            break;
    }
    const std::string byDefault = *key.byDefault != '\0' ? key.byDefault : "none";
    return "| `" + std::string(key.name) + "` | " + holds + " | " + byDefault + " | " + key.meaning + " |";
}

TEST_F(Documents, DescribeEveryKey) {
    const std::string text = readFile(kProject + "docs/configuration.md");
    std::vector<std::string> rows, expected;
    for (const std::smatch& row : matches(text, "^\\| `[A-Z_]+` \\|.*"))
        rows.push_back(row[0]);
    for (const ClientKey* key : kClientKeys) {
        expected.push_back(rowOf(*key));
        EXPECT_EQ(matches(text, ("^### " + std::string(key->name) + "$").c_str()).size(), 1U) << key->name;
    }
    EXPECT_EQ(rows, expected);
}

// Those of the document, the dashboard and the alerts.
TEST_F(Documents, NameMetricsThatThereAre) {
    const std::string sources =
        readFile(kProject + "fcgi/Metrics.cpp") + readFile(kProject + "fcgi/Report.cpp");
    std::string named;
    for (const char* path : {"contrib/grafana/velarto-fcgi.json", "contrib/prometheus/velarto-alerts.yml"})
        named += readFile(kProject + path);
    const std::string page = readFile(kProject + "docs/velarto-fcgi.md");
    const std::size_t start = page.find("\n|---", page.find("| `velarto_` |"));
    const std::string table = page.substr(start, page.find("\n\n", start) - start);
    for (const auto& row : matches(table, "`([a-z_]+)`[,|]? *(`([a-z_]+)`)? *\\|"))
        named += " velarto_" + row[1].str() + (row[3].matched ? " velarto_" + row[3].str() : "");
    for (const auto& metric : matches(named, "velarto_[a-z_]+[a-z]")) {
        const std::string name = std::regex_replace(metric.str(), std::regex("_bucket$"), "");
        EXPECT_TRUE(contains(sources, "\"" + name + "\""));
    }
    for (const auto& metric : matches(sources, "\"velarto_([a-z_]+)\""))
        EXPECT_TRUE(contains(page, "`" + metric[1].str() + "`"));
}

TEST_F(Documents, LinkToWhatIsThere) {
    std::vector<fs::path> documents(fs::directory_iterator(kProject + "docs"), {});
    for (const char* name : {"README.md", "CONTRIBUTING.md", "CHANGELOG.md", "SECURITY.md"})
        documents.push_back(kProject + name);
    for (const fs::path& path : documents) {
        const std::string text = readFile(path);
        for (const std::smatch& link : matches(text, R"(\]\((?!https?:)([^)#]+)(#[^)]*)?\))"))
            EXPECT_TRUE(fs::exists(path.parent_path() / link.str(1))) << path << ": " << link[1];
    }
}

}  // namespace
