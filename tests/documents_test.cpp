// The documents agree with the code: error codes, configuration keys, the example of a configuration; and
// their links lead somewhere.
#include <gtest/gtest.h>

#include <filesystem>
#include <map>
#include <regex>
#include <string>
#include <vector>

#include "client/QuilClientError.h"
#include "config/ConfigFile.h"
#include "support/TempDir.h"

namespace {

namespace fs = std::filesystem;
const std::string kProject = VELARTO_EXAMPLES_PATH "/../";

std::string document(const std::string& name) {
    return support::readFile(kProject + "docs/" + name);
}

// What the pattern's groups hold, match after match.
std::vector<std::smatch> matches(const std::string& text, const char* pattern) {
    const std::regex regex(pattern, std::regex::ECMAScript | std::regex::multiline);
    return {std::sregex_iterator(text.begin(), text.end(), regex), std::sregex_iterator()};
}

TEST(Documents, GiveTheErrorCodesAndExitStatuses) {
    std::map<unsigned long, unsigned long> expected;
    for (const unsigned long code :
         {CLIENT_ERR_ENVIRONMENT, CLIENT_ERR_CONNECT, CLIENT_ERR_PREPARE, CLIENT_ERR_SEND,
          CLIENT_ERR_DISPATCH, CLIENT_ERR_HTTP_HEADER, CLIENT_ERR_RESERVED, CLIENT_ERR_INTERNAL,
          CLIENT_ERR_ERROR_HTML, CLIENT_ERR_CONNECTION, CLIENT_ERR_EXCEPTION, CLIENT_ERR_FREE_REQUEST,
          CLIENT_ERR_FREE_CONNECTION})
        expected[code] = code & 0xFF;

    std::map<unsigned long, unsigned long> documented;
    const std::string text = document("operation.md");
    for (const std::smatch& row : matches(text, R"(^\| (\d+) \| (\d+) \|)"))
        documented[std::stoul(row[1])] = std::stoul(row[2]);
    EXPECT_EQ(documented, expected);
}

TEST(Documents, ExplainEveryKey) {
    const std::string text = document("configuration.md");
    for (const char* key : {"VELARTO_SERVER", "VELARTO_HOST", "VELARTO_PORT", "CLIENTIOTIMEOUT",
                            "DOCUMENTPATH", "REGISTER_EXTNS", "ERROR_HTML", "REPORTCLIENTERROR",
                            "SENDFULLHEADER", "PARSEFILEPATHS", "FORCE_SERVER_ARG_NAME"})
        EXPECT_NE(text.find("\n### " + std::string(key) + "\n"), std::string::npos) << key;
}

TEST(Documents, ShowAConfigurationThatHolds) {
    const std::string text = document("configuration.md");
    const std::vector<std::smatch> blocks = matches(text, "```ini\n([^`]+)```\n");
    ASSERT_FALSE(blocks.empty());
    const support::TempDir folder;
    support::writeFile(folder / "clients.ini", blocks.front()[1]);
    ConfigFile file((folder / "clients.ini").c_str(), "Velarto Client Definitions");
    EXPECT_TRUE(file.parseConfigFile())
        << file.lastParseError().reason << " in line " << file.lastParseError().line;
    EXPECT_EQ(file.getNumberOfStanzas(), 3u);
    for (std::uint32_t i = 0; i < file.getNumberOfStanzas(); ++i)
        EXPECT_NE(file.getStanzaAtIndex(i), nullptr) << i;
}

TEST(Documents, LinkToWhatIsThere) {
    std::vector<fs::path> documents = {kProject + "README.md"};
    for (const fs::directory_entry& file : fs::directory_iterator(kProject + "docs"))
        if (file.path().extension() == ".md") documents.push_back(file.path());
    for (const fs::path& path : documents) {
        const std::string text = support::readFile(path);
        for (const std::smatch& link : matches(text, R"(\]\((?!https?:)([^)#]+)(#[^)]*)?\))"))
            EXPECT_TRUE(fs::exists(path.parent_path() / link.str(1))) << path << ": " << link[1];
    }
}

}  // namespace
