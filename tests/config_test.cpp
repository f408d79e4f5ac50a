// velarto-config: what check finds, and where; what the others show and change; files and requests that they
// refuse.
#include <gtest/gtest.h>

#include <cctype>
#include <filesystem>
#include <string>
#include <vector>

#include "support/Process.h"
#include "support/TempDir.h"

namespace {

using namespace std::chrono_literals;
using support::Outcome;
using support::readFile;
using support::writeFile;

const std::string kFile =
    "[Velarto Client Definitions]\n"
    "admin=\n"
    "shop=\n"
    "\n"
    "[shop]\n"
    "CLIENTIOTIMEOUT=30\n"
    "VELARTO_SERVER=s001,10.0.0.5,18155:s002,10.0.0.6,18155\n"
    "\n"
    "[admin]\n"
    "VELARTO_HOST=10.0.0.7\n"
    "VELARTO_PORT=18155:18156\n"
    "\n";

class Config : public testing::Test {
  protected:
    Config() { writeFile(path_, kFile); }

    support::Command command(std::vector<std::string> arguments) const {
        support::Command command;
        command.program = VELARTO_CONFIG_PATH;
        command.arguments = {command.program, "--file", path_};
        command.arguments.insert(command.arguments.end(), arguments.begin(), arguments.end());
        command.environment = support::currentEnvironment();
        return command;
    }

    Outcome run(std::vector<std::string> arguments) const {
        return support::run(command(std::move(arguments)), 20s);
    }

    // One clear line, and nothing happened to the file.
    void expectRefusal(const Outcome& outcome, const std::string& reason, const std::string& content) const {
        EXPECT_EQ(outcome.exitStatus, 2);
        EXPECT_EQ(outcome.out, "");
        EXPECT_EQ(outcome.err.find("velarto-config: "), 0u) << outcome.err;
        EXPECT_NE(outcome.err.find(reason), std::string::npos) << outcome.err;
        EXPECT_EQ(outcome.err.find('\n'), outcome.err.size() - 1) << outcome.err;
        EXPECT_EQ(std::filesystem::exists(path_) ? readFile(path_) : "", content);
    }

    const support::TempDir folder_;
    const std::string path_ = folder_ / "clients.ini";
};

TEST_F(Config, CheckFindsEachMistakeAndTellsItsPlaceAndRemedy) {
    struct Mistake {
        std::string line;     // in place of line 6
        std::string place;    // line and column
        std::string message;  // begins so
        std::string remedy;
    };
    const std::string servers = "CLIENTIOTIMEOUT=30\nVELARTO_SERVER=";
    const Mistake mistakes[] = {
        {"no equals sign", "6:15", "error: no = after the key", "write KEY=VALUE"},
        {"=30", "6:1", "error: no key before the =", "write the key"},
        {"  ", "6:3", "error: a line of blanks", "leave no blanks"},
        {"# a comment", "6:12", "error: no =", "begin a comment with ;"},
        {"A=b\r\nno equals\r", "7:11", "error: no =", "line feed alone"},
        {std::string(255, 'K') + "=x", "6:1", "error: the key is longer", "shorten"},
        {"\nDOCUMENTPATH=/", "7:1", "error: outside of a section", "below a section's header"},
        {"[open", "6:1", "error: an empty line is missing", "put an empty line"},
        {"CLIENTIOTIMEOUT =30", "6:16", "warning: a blank at the end", "no blank before"},
        {"ClientIOTimout=30", "6:1", "warning: unknown key", "did you mean CLIENTIOTIMEOUT?"},
        {"COLOUR=blue", "6:1", "warning: unknown key", "nothing reads it"},
        {"CLIENTIOTIMEOUT=30s", "6:17", "warning: '30s' is not a number of seconds; it reads as 30",
         "digits"},
        {"CLIENTIOTIMEOUT=0", "6:17", "warning: 0 seconds read as the default", "1 or more"},
        {"CLIENTIOTIMEOUT=301", "6:17", "warning: the gateway ends after 300 seconds", "300 or less"},
        {"PARSEFILEPATHS=enabled", "6:16", "warning: 'enabled' reads as false", "yes or no"},
        {"PARSEFILEPATHS= yes", "6:16", "warning: the value begins with a blank", "no blank after"},
        {"ERROR_HTML=/no/such/page", "6:12", "warning: '/no/such/page' cannot be read: No such file",
         "name a file"},
        {"REGISTER_EXTNS=zml,.zcf", "6:20", "warning: an extension with '.'", "zml,zcf"},
        {"DOCUMENTPATH=" + std::string(5000, 'x'), "6:14", "warning: the value is cut after 4095",
         "shorten it"},
        {"DOCUMENTPATH=a" + std::string(1, '\0') + "b", "6:14", "warning: the value is cut after 1", "NUL"},
        {"CLIENTIOTIMEOUT=30\nClientIOTimeout=20", "7:1", "warning: 'ClientIOTimeout' is there already; this",
         "on line 6"},
        {"VELARTO_HOST=h", "6:1", "warning: 'VELARTO_HOST' is not used beside", "remove it"},
        {servers + "10.0.0.5,1:10.0.0.6", "7:27", "error: server '10.0.0.6' can never be reached: 1 field",
         "HOST,PORT"},
        {servers + "10.0.0.5,0", "7:16", "error: server '10.0.0.5,0' can never be reached: the port 0",
         "HOST,PORT"},
        {servers + "a,b,c,1", "7:16", "error: server 'a,b,c,1' can never be reached: 4 fields", "HOST,PORT"},
        {servers + std::string(32, 'h') + ",1", "7:16", "error: server 'hhh", "HOST,PORT"},
        {servers + "s1,10.0.0.5,1", "7:16", "warning: id 's1' has not 4 characters", "4 letters"},
        {servers + "10.0.0.5,1:10.0.0.5,1", "7:27", "warning: server '10.0.0.5,1' is there already",
         "remove one"},
        {servers + "10.0.0.5,1\nFORCE_SERVER_ARG_NAME=srv", "8:1", "warning: no server has an id",
         "ID,HOST,PORT"},
        {"CLIENTIOTIMEOUT=30\n\n[Shop]\nVELARTO_SERVER=h,1\n", "8:2",
         "warning: section [Shop] is there already; this", "on line 5, or rename"},
        {"CLIENTIOTIMEOUT=30\n\n[news]\nVELARTO_SERVER=h,1\n", "8:2", "warning: section [news] is not listed",
         "add the line news="},
        {"CLIENTIOTIMEOUT=30\n\n[a;b]\nVELARTO_SERVER=h,1\n", "8:2", "warning: section [a;b] is not listed",
         "name without ;"},
        {"\xEF\xBB\xBF# c=d", "6:1", "warning: unknown key", "nothing reads it"},
        {"\xEF\xBB\xBF[news]", "6:4", "error: no = after the key", "without a byte order mark"},
        {"ERROR_HTML=/tmp", "6:12", "warning: '/tmp' cannot be read: it is no file", "name a file"},
        {"DOCUMENTPATH=/srv ", "6:18", "warning: the value ends with a blank", "at the line's end"},
        {"DOCUMENTPATH=/srv\r", "6:18", "warning: the value ends with a carriage return", "line feed alone"},
        {"CLIENTIOTIMEOUT" + std::string(1, '\0') + "S=30", "6:1", "warning: the key ends at a NUL",
         "remove"},
    };
    for (const Mistake& mistake : mistakes) {
        SCOPED_TRACE(mistake.line.substr(0, 60));
        std::string content = kFile;
        content.replace(content.find("CLIENTIOTIMEOUT=30"), 18, mistake.line);
        writeFile(path_, content);
        const Outcome outcome = run({"check"});
        EXPECT_EQ(outcome.exitStatus, 1) << outcome.err;
        const std::size_t at = outcome.out.find(path_ + ":" + mistake.place + ": " + mistake.message);
        ASSERT_NE(at, std::string::npos) << outcome.out;
        const std::size_t remedy = outcome.out.find("remedy: ", at);
        EXPECT_NE(outcome.out.substr(remedy, outcome.out.find('\n', remedy) - remedy).find(mistake.remedy),
                  std::string::npos)
            << outcome.out.substr(at);
    }
}

TEST_F(Config, CheckGoesOnAfterAnErrorAndBeyondTheSections) {
    writeFile(path_, "junk\n[shop]\nA\n[open\n\n[last] x\n");
    const Outcome outcome = run({"check"});
    for (const char* part :
         {":1:1: error", ":3:2: error: no =", ":4:2: error: no ]", ":6:8: error: after a section header",
          ": 2 sections, 4 errors, 0 warnings\n", "every client gets error 601"})
        EXPECT_NE(outcome.out.find(part), std::string::npos) << part << " in\n" << outcome.out;

    writeFile(path_, "[Velarto Client Definitions]\nshop=\ngone=\n\n[shop]\nVELARTO_HOST=h\n");
    const Outcome second = run({"check", "--json"});
    for (const char* part :
         {"\"parses\": true", "client 'gone' has no section", "client 'shop' has no servers"})
        EXPECT_NE(second.out.find(part), std::string::npos) << part << " in\n" << second.out;
}

TEST_F(Config, CheckTellsErrorsFromWhatTheGatewayTakes) {
    const std::string list = "[Velarto Client Definitions]\nshop=\n";
    const std::string shop = "\n[shop]\nVELARTO_SERVER=h,1\n";
    const std::pair<std::string, std::string> files[] = {
        {shop, ": 1 section, 0 errors, 1 warning\n"},
        {list + shop + "\n[Shop]\nA=\n", ": 3 sections, 0 errors, 1 warning\n"},
        {list + shop + "\n[velarto client definitions]\nx=\n", ": 3 sections, 0 errors, 1 warning\n"},
        {list + shop + "\n[]\nA=\n", ": 3 sections, 0 errors, 1 warning\n"},
        {list + shop + "\n[a\nb]\n", ": 2 sections, 1 error, 0 warnings\n"},
        {"[Velarto Client Definitions]\r\nshop=\n" + shop,
         ": 2 sections, 1 error, 0 warnings\nThe gateway refuses"},
        {"\xEF\xBB\xBF" + list + shop, ": 1 section, 1 error, 0 warnings\nThe gateway refuses"},
    };
    for (const auto& [content, end] : files) {
        writeFile(path_, content);
        const std::string out = run({"check"}).out;
        const std::size_t at = out.find(path_ + end);
        ASSERT_NE(at, std::string::npos) << end << " in\n" << out;
        EXPECT_EQ(out.find("The gateway refuses", at) == std::string::npos,
                  end.find("The gateway refuses") == std::string::npos);
    }
}

TEST_F(Config, TheCaretStandsBelowTheMistake) {
    const std::pair<std::string, std::string> lines[] = {
        {"\xC3\xA4\xC3\xB6,1:x", " | VELARTO_SERVER=\xC3\xA4\xC3\xB6,1:x\n      |                     ^\n"},
        {"\t,1:x", " | VELARTO_SERVER=\\x09,1:x\n      |                       ^\n"},
        {std::string(60, 'h') + ",1:x", "VELARTO_SERVER=" + std::string(60, 'h') + ",1:x\n"},
        {std::string(90, '\xB6') + ",1:x", "\xB6,1:x\n      |       ^\n"},
        {std::string(90, 'h') + ",1:x", " | ..." + std::string(42, 'h') + ",1:x\n"}};
    for (const auto& [servers, shown] : lines) {
        writeFile(path_, "[Velarto Client Definitions]\nshop=\n\n[shop]\nVELARTO_SERVER=" + servers + "\n");
        const Outcome outcome = run({"check"});
        EXPECT_NE(outcome.out.find(shown), std::string::npos) << outcome.out;
    }
}

TEST_F(Config, WhatIsThereIsShown) {
    const std::pair<std::vector<std::string>, std::vector<std::string>> shown[] = {
        {{"check"}, {path_ + ": 3 sections, 0 errors, 0 warnings\n"}},
        {{"path"}, {path_ + "\nfound by the option --file\n"}},
        {{"list"},
         {"shop                     2 servers, line 5\n", "admin                    2 servers, line 9\n"}},
        {{"show", "SHOP"},
         {"VELARTO_SERVER         s001,10.0.0.5,18155:s002,10.0.0.6,18155  (line 7)\n",
          "CLIENTIOTIMEOUT        30  (line 6)\n", "PARSEFILEPATHS         no  (default)\n"}},
        {{"show", "admin"},
         {"VELARTO_SERVER         10.0.0.7,18155:10.0.0.7,18156  (from VELARTO_HOST and VELARTO_PORT)\n",
          "CLIENTIOTIMEOUT        300  (default)\n"}},
        {{"--json", "show", "shop"},
         {"\"key\": \"CLIENTIOTIMEOUT\",\n      \"value\": \"30\",\n      \"origin\": \"line 6\"\n"}},
        {{"--json", "list"},
         {"\"client\": \"admin\",\n    \"line\": 9,\n    \"servers\": 2,\n    \"listed\": true\n"}},
    };
    for (const auto& [arguments, parts] : shown) {
        const Outcome outcome = run(arguments);
        EXPECT_EQ(outcome.exitStatus, 0) << outcome.err;
        for (const std::string& part : parts)
            EXPECT_NE(outcome.out.find(part), std::string::npos) << part << " in\n" << outcome.out;
    }
    std::string content = kFile;
    writeFile(path_, content.replace(content.find("=30"), 3, "=0"));
    EXPECT_NE(run({"show", "shop"}).out.find("CLIENTIOTIMEOUT        300  (line 6, '0')\n"),
              std::string::npos);
}

TEST_F(Config, PathFollowsTheGatewaysRules) {
    support::Command command;
    command.program = VELARTO_CONFIG_PATH;
    command.arguments = {"velarto-config", "path"};
    command.environment = {"VELARTO_PATH=/srv/base/"};
    const Outcome outcome = support::run(command, 20s);
    EXPECT_EQ(outcome.out,
              "/srv/base/configuration/clients.ini\nfound by the environment variable VELARTO_PATH\n");
    EXPECT_EQ(outcome.exitStatus, 2);  // there is none
    EXPECT_EQ(outcome.err,
              "velarto-config: /srv/base/configuration/clients.ini: No such file or directory\n");
    command.environment = {"VELARTO_PATH="};
    EXPECT_NE(support::run(command, 20s).out.find("found by the default"), std::string::npos);
}

TEST_F(Config, ChangesLeaveTheOtherSectionsAlone) {
    const std::pair<std::vector<std::string>, std::pair<std::string, std::string>> changes[] = {
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

TEST_F(Config, WhatCheckComplainedOfBeforeIsNoHindrance) {
    std::string content = kFile;
    content.replace(content.find("CLIENTIO"), 0, "VELARTO_PORT=1\nVELARTO_PORT=2\n");
    content.replace(content.find("CLIENTIO"), 19, "");
    writeFile(path_, content);
    EXPECT_EQ(run({"set", "shop", "CLIENTIOTIMEOUT", "30"}).err, "");
}

TEST_F(Config, WhatCannotBeUsedIsRefusedInOneLineAndNothingChanges) {
    const std::vector<std::string> commands[] = {{"check"},
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
                                                         {"[shop]\nx\n", ":2:2: no = after the key"},
                                                         {std::string("\x7F"
                                                                      "ELF\0\n",
                                                                      6),
                                                          ":1:1: outside"}};
    for (const auto& arguments : commands) {
        SCOPED_TRACE(arguments[0]);
        for (const auto& [content, reason] : files) {
            if (arguments[0] == "check" && std::isdigit(reason[1]) != 0) continue;  // what check is for
            writeFile(path_, content);
            expectRefusal(run(arguments), reason, content);
        }
        std::filesystem::remove(path_);
        expectRefusal(run(arguments), "No such file", "");
        std::filesystem::create_directory(path_);
        EXPECT_NE(run(arguments).err.find("is not a regular file"), std::string::npos);
        std::filesystem::remove(path_);
    }

    const std::pair<std::vector<std::string>, std::string> requests[] = {
        {{"show", "nobody"}, "no client 'nobody'; there are: shop, admin"},
        {{"show", "Velarto Client Definitions"}, "no client"},
        {{"remove", "nobody"}, "no client 'nobody'"},
        {{"unset", "shop", "DOCUMENTPATH"}, "has no 'DOCUMENTPATH'"},
        {{"unset", "shop", "VELARTO_SERVER"}, "client 'shop' has no servers"},
        {{"set", "shop", "A=B", "x", "--force"}, "the file cannot hold"},
        {{"set", "shop", " A", "x", "--force"}, "the file cannot hold"},
        {{"set", "shop", "DOCUMENTPATH", std::string(4096, 'x'), "--force"}, "the file cannot hold"},
        {{"set", "shop", "PARSEFILEPATHS", "on"}, "'on' reads as false"},
        {{"set", "shop", "PARSEFILEPATH", "yes"}, "did you mean PARSEFILEPATHS?"},
        {{"add", "shop"}, "is there already"},
        {{"add", "a]b", "--force"}, "no client can be called 'a]b'"},
        {{"add", "a=b", "--force"}, "no client can be called 'a=b'"},
        {{"add", "", "--force"}, "no client can be called ''"},
        {{"add", "new", "--server", "localhost"}, "can never be reached: 1 field"},
    };
    writeFile(path_, kFile);
    for (const auto& [arguments, reason] : requests)
        expectRefusal(run(arguments), reason, kFile);

    const std::string unlisted = kFile.substr(kFile.find("[shop]"));
    const std::string openName = kFile + "[a\nb]\n";
    writeFile(path_, unlisted);
    expectRefusal(run({"add", "new"}), "has no section [Velarto Client Definitions]", unlisted);
    expectRefusal(run({"remove", "shop"}), "has no section [Velarto Client Definitions]", unlisted);
    expectRefusal(run({"show", "nobody"}), "there are: shop, admin", unlisted);
    for (const std::string& section :
         {"[" + std::string(255, 'n') + "]\n", std::string("[a]\nA=") + std::string(4096, 'x') + "\n",
          std::string("[a]\nA\0B=\n", 9)}) {
        writeFile(path_, kFile + section);
        expectRefusal(run({"set", "shop", "CLIENTIOTIMEOUT", "5"}), "does not read; --force",
                      kFile + section);
    }
    std::string many = unlisted;
    for (int i = 0; i < 25; ++i)
        many += "[n" + std::to_string(i) + "]\n\n";
    writeFile(path_, many);
    expectRefusal(run({"show", "nobody"}), ", n17 and 7 more\n", many);
    writeFile(path_, openName);
    expectRefusal(run({"list"}), ":13:2: no ] after the section's name", openName);
    expectRefusal(run({"show", "a"}), ":13:2: no ] after the section's name", openName);

    writeFile(path_, "; mine\n" + kFile);
    expectRefusal(run({"set", "shop", "CLIENTIOTIMEOUT", "5"}),
                  ":1: the file is written anew, without its comment", "; mine\n" + kFile);
}

TEST_F(Config, AFullDiskIsToldAndLeavesTheFile) {
    const char* const fullDisk = "trap '' XFSZ; ulimit -f 0; exec \"$@\"";
    const char* const fullOutput = "exec \"$@\" >/dev/full";
    const std::pair<std::vector<std::string>, const char*> cases[] = {
        {{"set", "shop", "DOCUMENTPATH", "/srv"}, fullDisk},
        {{"unset", "shop", "CLIENTIOTIMEOUT"}, fullDisk},
        {{"add", "new"}, fullDisk},
        {{"remove", "admin"}, fullDisk},
        {{"path"}, fullOutput},
        {{"check"}, fullOutput},
        {{"list"}, fullOutput},
        {{"show", "shop"}, fullOutput},
        {{"servers", "shop"}, fullOutput}};
    for (const auto& [arguments, script] : cases) {
        support::Command full = command(arguments);
        full.arguments.insert(full.arguments.begin(), {"bash", "-c", script, "bash"});
        full.program = "/bin/bash";
        const char* reason =
            script == fullDisk ? "cannot be written: File too large" : "the output cannot be written";
        expectRefusal(support::run(full, 20s), reason, kFile);
    }
}

TEST_F(Config, AWrongCommandLineEndsWithTwo) {
    for (const std::vector<std::string>& arguments : {std::vector<std::string>{},
                                                      {"nonsense"},
                                                      {"show"},
                                                      {"set", "shop"},
                                                      {"check", "--colour"},
                                                      {"--file", "", "path"},
                                                      {"set", "shop", "A", "b", "\n"}})
        expectRefusal(run(arguments), "; --help tells", kFile);
    EXPECT_EQ(run({"--help"}).exitStatus, 0);
}

}  // namespace
