// docs/protocol.md, as far as a machine can check it: the conversation in it is what the real gateway holds,
// and the parameters are those of the code.
#include <fcntl.h>
#include <sys/stat.h>

#include <map>
#include <regex>
#include <sstream>

#include "protocol/QuilRequest.h"
#include "support/Gateway.h"
#include "support/TempDir.h"

namespace {

using namespace support;

// One line of the conversation: who sends, where in all that he sends, what.
struct DumpLine {
    char sender;  // I and O: standard input and output; G: the gateway; S: the server
    std::size_t offset;
    std::string bytes;
};

std::string unhex(const std::string& dump) {
    std::string bytes;
    std::istringstream pairs(dump);
    for (unsigned byte; pairs >> std::hex >> byte;)
        bytes.push_back(static_cast<char>(byte));
    return bytes;
}

class ProtocolDocument : public GatewayTest {
  protected:
    // Every place that matches, as its groups.
    std::vector<std::smatch> find(const std::string& pattern) const {
        const std::regex regex(pattern, std::regex::ECMAScript | std::regex::multiline);
        return {std::sregex_iterator(text_.begin(), text_.end(), regex), std::sregex_iterator()};
    }

    std::vector<DumpLine> conversation() const {
        std::vector<DumpLine> lines;
        for (const auto& m : find("^([IOGS]) ([0-9A-F]{4})  ((?:[0-9A-F]{2} )*[0-9A-F]{2})(?:  .*)?$"))
            lines.push_back({*m[1].first, std::stoul(m[2], nullptr, 16), unhex(m[3])});
        return lines;
    }

    const std::string text_ = readFile(VELARTO_EXAMPLES_PATH "/../docs/protocol.md");
};

TEST_F(ProtocolDocument, ConversationIsWhatTheGatewayHolds) {
    const std::vector<DumpLine> lines = conversation();
    EXPECT_EQ(lines.size(), find("^[A-Z] [0-9A-F]{4} ").size()) << "a line is not in the form of the others";
    std::map<char, std::string> all;
    for (const DumpLine& line : lines) {
        EXPECT_EQ(line.offset, all[line.sender].size()) << line.sender;
        all[line.sender] += line.bytes;
    }

    const auto block = find("```environment\n((?:.+\n)+)```");
    ASSERT_EQ(block.size(), 1u);
    std::vector<std::string> environment;
    std::istringstream variables(block[0][1]);
    for (std::string variable; std::getline(variables, variable);)
        environment.push_back(variable);

    writeFile(folder_ / "greeting.txt", "Hi\n");
    const timespec times[2] = {{0x5E0BE100, 0}, {0x5E0BE100, 0}};
    ASSERT_EQ(::utimensat(AT_FDCWD, (folder_ / "greeting.txt").c_str(), times, 0), 0);
    ScriptedPeer& server = serveAlone([&lines](Connection& connection) {
        for (const DumpLine& line : lines) {
            if (line.sender == 'G') connection.expect(line.bytes);
            if (line.sender == 'S') connection.send(line.bytes);
        }
    });
    expectSuccess(run(environment, all['I']), all['O']);
    ASSERT_EQ(server.visits().size(), 1u);
    EXPECT_EQ(server.visits()[0].received, all['G']);
}

TEST_F(ProtocolDocument, ParametersAreThoseOfTheCode) {
    const auto rows = find("^\\| (\\d+) \\| `([A-Z_]+)` \\|");
    ASSERT_EQ(rows.size(), std::size_t{QUIL_PARAM_NONE});
    for (std::uint32_t id = 0; id < QUIL_PARAM_NONE; ++id) {
        EXPECT_EQ(rows[id][1], std::to_string(id));
        EXPECT_EQ(rows[id][2], FindQuilParamName(static_cast<TQUILReqParamID>(id)));
    }
}

}  // namespace
