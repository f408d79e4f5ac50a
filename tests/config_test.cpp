// velarto-config: what check finds, and where; what the others show and change; files and requests that they
// refuse.
#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

#include "support/Contains.h"
#include "support/Process.h"
#include "support/TempDir.h"

namespace {

using namespace std::chrono_literals;
using support::contains;
using support::Outcome;
using support::readFile;
using support::writeFile;
using Texts = std::vector<std::string>;

const std::string kFile =
    "[Velarto Client Definitions]\nadmin=\nshop=\n\n"
    "[shop]\nCLIENTIOTIMEOUT=30\nVELARTO_SERVER=s001,10.0.0.5,18155:s002,10.0.0.6,18155\n\n"
    "[admin]\nVELARTO_HOST=10.0.0.7\nVELARTO_PORT=18155:18156\n\n";
const std::string kSections = kFile.substr(kFile.find("[shop]"));  // without the list of clients

class Config : public testing::Test {
  protected:
    Config() { writeFile(path_, kFile); }

    // A shell may stand before the program: "bash -c SCRIPT bash".
    Outcome run(const Texts& arguments, Texts shell = {}) const {
        support::Command command;
        command.arguments = std::move(shell);
        command.arguments.insert(command.arguments.end(), {VELARTO_CONFIG_PATH, "--file", path_});
        command.arguments.insert(command.arguments.end(), arguments.begin(), arguments.end());
        command.program = command.arguments.front();
        command.environment = support::currentEnvironment();
        return support::run(command, 20s);
    }

    // One clear line, and nothing happened to the file.
    void expectRefusal(const Outcome& outcome, const std::string& reason, const std::string& content) const {
        EXPECT_EQ(outcome.exitStatus, 2);
        EXPECT_EQ(outcome.out, "");
        EXPECT_EQ(outcome.err.find("velarto-config: "), 0u) << outcome.err;
        EXPECT_TRUE(contains(outcome.err, reason));
        EXPECT_EQ(outcome.err.find('\n'), outcome.err.size() - 1) << outcome.err;
        EXPECT_EQ(std::filesystem::exists(path_) ? readFile(path_) : "", content);
    }

    const support::TempDir folder_;
    const std::string path_ = folder_ / "clients.ini";
};

TEST_F(Config, CheckFindsEachMistakeAndTellsItsPlaceAndRemedy) {
    const std::string servers = "CLIENTIOTIMEOUT=30\nVELARTO_SERVER=", next = "CLIENTIOTIMEOUT=30\n\n";
    const struct {
        std::string line;     // in place of line 6
        std::string finding;  // its place, and how it begins
        std::string remedy;
    } mistakes[] = {
        {"no equals sign", "6:15: error: no = after the key", "write KEY=VALUE"},
        {"=30", "6:1: error: no key before the =", "write the key"},
        {"  ", "6:3: error: a line of blanks", "leave no blanks"},
        {"A=b\r\nno equals\r", "7:11: error: no =", "line feed alone"},
        {std::string(255, 'K') + "=x", "6:1: error: the key is longer", "shorten"},
        {"\nDOCUMENTPATH=/", "7:1: error: outside of a section", "below a section's header"},
        {"[open", "6:1: error: an empty line is missing", "put an empty line"},
        {"\xEF\xBB\xBF[news]", "6:4: error: no = after the key", "without a byte order mark"},
        {"CLIENTIOTIMEOUT =30", "6:16: warning: a blank at the end", "no blank before"},
        {"ClientIOTimout=30", "6:1: warning: unknown key", "did you mean CLIENTIOTIMEOUT?"},
        {"COLOUR=blue", "6:1: warning: unknown key", "nothing reads it"},
        {"CLIENTIOTIMEOUT=30s", "6:17: warning: '30s' is not a number of seconds; it reads as 30", "digits"},
        {"CLIENTIOTIMEOUT=301", "6:17: warning: the gateway ends after 300 seconds", "300 or less"},
        {"PARSEFILEPATHS=enabled", "6:16: warning: 'enabled' reads as false", "yes or no"},
        {"PARSEFILEPATHS= yes", "6:16: warning: the value begins with a blank", "no blank after"},
        {"DOCUMENTPATH=/srv ", "6:18: warning: the value ends with a blank", "at the line's end"},
        {"ERROR_HTML=/no/page", "6:12: warning: '/no/page' cannot be read: No such file", "name a file"},
        {"REGISTER_EXTNS=zml,.zcf", "6:20: warning: an extension with '.'", "zml,zcf"},
        {"DOCUMENTPATH=" + std::string(5000, 'x'), "6:14: warning: the value is cut after 4095",
         "shorten it"},
        {"CLIENTIOTIMEOUT=30\nClientIOTimeout=20", "7:1: warning: 'ClientIOTimeout' is there already",
         "on line 6"},
        {"VELARTO_HOST=h", "6:1: warning: 'VELARTO_HOST' is not used beside", "remove it"},
        {servers + "h,1:g", "7:20: error: server 'g' can never be reached: 1 field", "HOST,PORT"},
        {servers + "h,0", "7:16: error: server 'h,0' can never be reached: the port 0", "HOST,PORT"},
        {servers + "s1,h,1", "7:16: warning: id 's1' has not 4 characters", "4 letters"},
        {servers + "h,1:h,1", "7:20: warning: server 'h,1' is there already", "remove one"},
        {servers + "h,1\nFORCE_SERVER_ARG_NAME=srv", "8:1: warning: no server has an id", "ID,HOST,PORT"},
        {next + "[Shop]\nVELARTO_SERVER=h,1\n", "8:2: warning: section [Shop] is there already", "on line 5"},
        {next + "[news]\nVELARTO_SERVER=h,1\n", "8:2: warning: section [news] is not listed", "line news="},
    };
    for (const auto& [line, finding, remedy] : mistakes) {
        SCOPED_TRACE(line.substr(0, 60));
        std::string content = kFile;
        writeFile(path_, content.replace(content.find("CLIENTIOTIMEOUT=30"), 18, line));
        const Outcome outcome = run({"check"});
        EXPECT_EQ(outcome.exitStatus, 1) << outcome.err;
        const std::size_t at = outcome.out.find(path_ + ":" + finding);
        ASSERT_NE(at, std::string::npos) << outcome.out;
        const std::size_t told = outcome.out.find("remedy: ", at);
        EXPECT_LT(outcome.out.find(remedy, told), outcome.out.find('\n', told)) << outcome.out;
    }
}

TEST_F(Config, CheckGoesOnAfterAnErrorAndCountsWhatTheGatewayRefuses) {
    const std::string list = "[Velarto Client Definitions]\nshop=\n", shop = "\n[shop]\nVELARTO_SERVER=h,1\n";
    const std::string refused = "\nThe gateway refuses this file: every client gets error 601.\n";
    const std::pair<std::string, Texts> files[] = {
        {"junk\n[shop]\nA\n[open\n\n[last] x\n",
         {":1:1: error", ":3:2: error: no =", ":4:2: error: no ]", ":6:8: error: after a section header",
          ": 2 sections, 4 errors, 0 warnings" + refused}},
        {list + "gone=\n\n[shop]\nVELARTO_HOST=h\n",
         {"client 'gone' has no section", "client 'shop' has no servers"}},
        {"\xEF\xBB\xBF" + list + shop, {": 1 section, 1 error, 0 warnings" + refused}},
        {list + shop + "\n[a\nb]\n", {": 2 sections, 1 error, 0 warnings\n"}},
        {list + shop + "\n[Shop]\nA=\n", {": 3 sections, 0 errors, 1 warning\n"}},
    };
    for (const auto& [content, parts] : files) {
        writeFile(path_, content);
        const std::string out = run({"check"}).out;
        for (const std::string& part : parts)
            EXPECT_TRUE(contains(out, part));
        EXPECT_EQ(contains(out, refused), contains(parts.back(), refused)) << out;
        EXPECT_TRUE(contains(run({"check", "--json"}).out,
                             contains(out, refused) ? "\"parses\": false" : "\"parses\": true"));
    }
}

TEST_F(Config, TheCaretStandsBelowTheMistake) {
    const std::pair<std::string, std::string> lines[] = {
        {"\xC3\xA4\xC3\xB6,1:x", " | VELARTO_SERVER=\xC3\xA4\xC3\xB6,1:x\n      |                     ^\n"},
        {"\t,1:x", " | VELARTO_SERVER=\\x09,1:x\n      |                       ^\n"},
        {std::string(90, 'h') + ",1:x", " | ..." + std::string(42, 'h') + ",1:x\n"}};
    for (const auto& [servers, shown] : lines) {
        writeFile(path_, "[Velarto Client Definitions]\nshop=\n\n[shop]\nVELARTO_SERVER=" + servers + "\n");
        EXPECT_TRUE(contains(run({"check"}).out, shown));
    }
}

TEST_F(Config, WhatIsThereIsShown) {
    const std::pair<Texts, Texts> shown[] = {
        {{"check"}, {path_ + ": 3 sections, 0 errors, 0 warnings\n"}},
        {{"path"}, {path_ + "\nfound by the option --file\n"}},
        {{"list"}, {"shop                     2 servers, line 5\n", "admin                    2 servers"}},
        {{"show", "SHOP"},
         {"VELARTO_SERVER         s001,10.0.0.5,18155:s002,10.0.0.6,18155  (line 7)\n",
          "CLIENTIOTIMEOUT        30  (line 6)\n", "PARSEFILEPATHS         no  (default)\n"}},
        {{"show", "admin"}, {" 10.0.0.7,18155:10.0.0.7,18156  (from VELARTO_HOST and VELARTO_PORT)\n"}},
        {{"--json", "show", "shop"},
         {"\"key\": \"CLIENTIOTIMEOUT\",\n      \"value\": \"30\",\n      \"origin\": \"line 6\"\n"}},
        {{"--json", "list"}, {"\"client\": \"admin\",\n    \"line\": 9,\n    \"servers\": 2,\n"}},
        {{"--help"}, {"servers", "remove"}},
    };
    for (const auto& [arguments, parts] : shown) {
        const Outcome outcome = run(arguments);
        EXPECT_EQ(outcome.exitStatus, 0) << outcome.err;
        for (const std::string& part : parts)
            EXPECT_TRUE(contains(outcome.out, part));
    }
}

TEST_F(Config, PathFollowsTheGatewaysRules) {
    support::Command command;
    command.program = VELARTO_CONFIG_PATH;
    command.arguments = {"velarto-config", "path"};
    command.environment = {"VELARTO_PATH=/srv/base/"};
    const std::string path = "/srv/base/configuration/clients.ini";
    const Outcome outcome = support::run(command, 20s);
    EXPECT_EQ(outcome.out, path + "\nfound by the environment variable VELARTO_PATH\n");
    EXPECT_EQ(outcome.err, "velarto-config: " + path + ": No such file or directory\n");
    EXPECT_EQ(outcome.exitStatus, 2);
    command.environment = {"VELARTO_PATH="};
    EXPECT_TRUE(contains(support::run(command, 20s).out, "found by the default"));
}

TEST_F(Config, ChangesLeaveTheOtherSectionsAlone) {
    const std::pair<Texts, std::pair<std::string, std::string>> changes[] = {
        {{"set", "shop", "PARSEFILEPATHS", "yes"},
         {"CLIENTIOTIMEOUT=30\n", "CLIENTIOTIMEOUT=30\nPARSEFILEPATHS=yes\n"}},
        {{"set", "shop", "clientiotimeout", "20"}, {"CLIENTIOTIMEOUT=30\n", "CLIENTIOTIMEOUT=20\n"}},
        {{"unset", "shop", "CLIENTIOTIMEOUT"}, {"CLIENTIOTIMEOUT=20\n", ""}},
        {{"set", "shop", "ERROR_HTML", "/a\nb\\", "--force"},
         {"PARSEFILE", "ERROR_HTML=/a\\nb\\\\\nPARSEFILE"}},
        {{"remove", "admin"}, {"[admin]\nVELARTO_HOST=10.0.0.7\nVELARTO_PORT=18155:18156\n\n", ""}},
        {{"add", "news", "--server", "h,1"}, {"18155\n\n", "18155\n\n[news]\nVELARTO_SERVER=h,1\n\n"}},
    };
    std::string expected = kFile;
    for (const auto& [arguments, change] : changes) {
        const Outcome outcome = run(arguments);
        EXPECT_EQ(outcome.exitStatus, 0) << outcome.err;
        expected.replace(expected.find(change.first), change.first.size(), change.second);
        if (arguments[0] == "remove") expected.replace(expected.find("admin="), 7, "");
        if (arguments[0] == "add") expected.replace(expected.find("shop="), 0, "news=\n");
        EXPECT_EQ(readFile(path_), expected) << arguments[0];
    }
}

TEST_F(Config, AFileThatCannotBeUsedIsRefusedByEveryCommand) {
    const Texts commands[] = {{"check"},
                              {"list"},
                              {"show", "shop"},
                              {"servers", "shop", "--probe"},
                              {"try", "shop", "/"},
                              {"set", "shop", "DOCUMENTPATH", "x"},
                              {"unset", "shop", "CLIENTIOTIMEOUT"},
                              {"add", "new"},
                              {"remove", "shop"}};
    const std::pair<std::string, std::string> files[] = {{"", ": the file is empty"},
                                                         {std::string(131073, ';'), "large"},
                                                         {"[shop]\nx\n", ":2:2: no = after the key"}};
    for (const Texts& arguments : commands) {
        SCOPED_TRACE(arguments[0]);
        for (const auto& [content, reason] : files) {
            if (arguments[0] == "check" && reason[1] == '2') continue;  // what check is for
            writeFile(path_, content);
            expectRefusal(run(arguments), reason, content);
        }
        std::filesystem::remove(path_);
        expectRefusal(run(arguments), "No such file", "");
        std::filesystem::create_directory(path_);
        EXPECT_TRUE(contains(run(arguments).err, "is not a regular file"));
        std::filesystem::remove(path_);
    }
}

TEST_F(Config, ARequestThatWouldDoHarmIsRefusedAndNothingChanges) {
    const struct {
        std::string content;
        Texts arguments;
        std::string reason;
    } cases[] = {
        {kFile, {"show", "nobody"}, "no client 'nobody'; there are: shop, admin"},
        {kFile, {"remove", "nobody"}, "no client 'nobody'"},
        {kFile, {"unset", "shop", "DOCUMENTPATH"}, "has no 'DOCUMENTPATH'"},
        {kFile, {"unset", "shop", "VELARTO_SERVER"}, "client 'shop' has no servers"},
        {kFile, {"set", "shop", "A=B", "x", "--force"}, "the file cannot hold"},
        {kFile, {"set", "shop", "DOCUMENTPATH", std::string(4096, 'x'), "--force"}, "the file cannot hold"},
        {kFile, {"set", "shop", "PARSEFILEPATHS", "on"}, "'on' reads as false"},
        {kFile, {"set", "shop", "PARSEFILEPATH", "yes"}, "did you mean PARSEFILEPATHS?"},
        {kFile, {"add", "shop"}, "is there already"},
        {kFile, {"add", "a]b", "--force"}, "no client can be called 'a]b'"},
        {kFile, {"add", "new", "--server", "localhost"}, "can never be reached: 1 field"},
        {kSections, {"add", "new"}, "has no section [Velarto Client Definitions]"},
        {kFile + "[a]\nA=" + std::string(4096, 'x') + "\n", {"unset", "shop", "CLIENTIOTIMEOUT"}, "--force"},
        {"; mine\n" + kFile,
         {"set", "shop", "CLIENTIOTIMEOUT", "5"},
         ":1: the file is written anew, without"},
        {kFile, {}, "; --help tells"},
        {kFile, {"nonsense"}, "; --help tells"},
        {kFile, {"set", "shop"}, "; --help tells"},
        {kFile, {"check", "--colour"}, "; --help tells"},
    };
    for (const auto& [content, arguments, reason] : cases) {
        writeFile(path_, content);
        expectRefusal(run(arguments), reason, content);
    }
}

TEST_F(Config, AFullDiskIsToldAndLeavesTheFile) {
    // The limit is for every file, so the message goes through a pipe.
    const Texts fullDisk = {"/bin/bash", "-c",
                            "set -o pipefail; (trap '' XFSZ; ulimit -f 0; exec \"$@\") 2>&1 | cat >&2",
                            "bash"};
    for (const Texts& arguments :
         {Texts{"set", "shop", "DOCUMENTPATH", "/srv"}, {"add", "new"}, {"remove", "admin"}})
        expectRefusal(run(arguments, fullDisk), "cannot be written: File too large", kFile);
    const Texts fullOutput = {"/bin/bash", "-c", "exec \"$@\" >/dev/full", "bash"};
    for (const Texts& arguments : {Texts{"check"}, {"list"}, {"show", "shop"}, {"servers", "shop"}})
        expectRefusal(run(arguments, fullOutput), "the output cannot be written", kFile);
}

}  // namespace
