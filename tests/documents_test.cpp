// The documents, as far as a machine can check them: the conversation of the protocol is what the real gateway
// holds, the configuration shown is one, and links lead somewhere.
#include <sys/time.h>

#include <filesystem>
#include <map>
#include <regex>
#include <sstream>

#include "config/ConfigFile.h"
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

TEST_F(Documents, LinkToWhatIsThere) {
    std::vector<fs::path> documents(fs::directory_iterator(kProject + "docs"), {});
    documents.push_back(kProject + "README.md");
    for (const fs::path& path : documents) {
        const std::string text = readFile(path);
        for (const std::smatch& link : matches(text, R"(\]\((?!https?:)([^)#]+)(#[^)]*)?\))"))
            EXPECT_TRUE(fs::exists(path.parent_path() / link.str(1))) << path << ": " << link[1];
    }
}

}  // namespace
