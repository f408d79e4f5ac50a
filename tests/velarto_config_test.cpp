// velarto-config: what check finds, and where; what the others show and change; what servers and try tell of
// application servers; files and requests that they refuse.
#include <filesystem>
#include <map>
#include <regex>

#include "config/ClientKeys.h"
#include "support/Contains.h"
#include "support/DevServer.h"
#include "support/Gateway.h"

namespace {

using namespace std::chrono_literals;
using namespace support;
using Texts = std::vector<std::string>;

const std::string kFile =
    "[Velarto Client Definitions]\nadmin=\nshop=\n\n"
    "[shop]\nCLIENTIOTIMEOUT=30\nVELARTO_SERVER=s001,10.0.0.5,18155:s002,10.0.0.6,18155\n\n"
    "[admin]\nCLIENTIOTIMEOUT=30\nVELARTO_HOST=10.0.0.7\nVELARTO_PORT=18155:18156\n\n";

// Without what differs from run to run, and however wide the columns are.
std::string squeezed(const std::string& text) {
    const std::string timeless = std::regex_replace(text, std::regex("[0-9]+\\.[0-9] ms"), "TIME");
    return std::regex_replace(timeless, std::regex("  +"), " ");
}

class Config : public GatewayTest {
  protected:
    Config() { writeFile(clientsFile(), kFile); }

    // A shell may stand before the program: "bash -c SCRIPT bash".
    Outcome config(const Texts& arguments, const std::string& input = "", const Texts& shell = {}) const {
        Command command = this->command({}, input);
        command.arguments = shell;
        command.arguments.push_back(VELARTO_CONFIG_PATH);
        command.arguments.insert(command.arguments.end(), arguments.begin(), arguments.end());
        command.program = command.arguments.front();
        return support::run(command, 20s);
    }

    // One clear line, and nothing happened to the file.
    void expectRefusal(const Outcome& outcome, const std::string& reason, const std::string& content) const {
        EXPECT_EQ(outcome.exitStatus, 2);
        EXPECT_EQ(outcome.out, "");
        EXPECT_EQ(outcome.err.find("velarto-config: "), 0u) << outcome.err;
        EXPECT_TRUE(contains(outcome.err, reason));
        EXPECT_EQ(outcome.err.find('\n'), outcome.err.size() - 1) << outcome.err;
        EXPECT_EQ(readFile(clientsFile()), content);
    }
};

TEST_F(Config, CheckTellsTheMistakeItsPlaceAndItsRemedy) {
    const std::string servers = "CLIENTIOTIMEOUT=30\nVELARTO_SERVER=", next = "CLIENTIOTIMEOUT=30\n\n";
    const std::string host(254, 'h');
    const struct {
        std::string line;     // in place of line 6
        std::string finding;  // its place, and how it begins
        std::string remedy;
    } mistakes[] = {
        {"no equals sign", "6:15: error: no = after the key", "write KEY=VALUE"},
        {"A=b\r\nno equals\r", "7:11: error: no =", "line feed alone"},
        {"[open", "6:1: error: an empty line is missing", "put an empty line"},
        {"A=b", "5:2: warning: client 'shop' has no CLIENTIOTIMEOUT", "add CLIENTIOTIMEOUT=30"},
        {"A=b\n =hidden", "7:1: warning: the key is empty", "remove the line"},
        {"CONNECTTIMEOUT=49", "6:16: warning: '49' is no value of CONNECTTIMEOUT",
         "a number from 50 to 60000"},
        {"BROKENANSWER=short", "6:14: warning: 'short' is no value of BROKENANSWER", "write one of cut"},
        {"CLIENTIOTIMEOUT =30", "6:16: warning: a blank at the end", "no blank before"},
        {"ClientIOTimout=30", "6:1: warning: unknown key", "did you mean CLIENTIOTIMEOUT?"},
        {"CLIENTIOTIMEOUT=30s", "6:17: warning: '30s' is not a number of seconds; it reads as 30", "digits"},
        {"CLIENTIOTIMEOUT=301", "6:17: warning: the gateway ends after 300 seconds", "300 or less"},
        {"PARSEFILEPATHS=enabled", "6:16: warning: 'enabled' reads as false", "yes or no"},
        {"DOCUMENTPATH= /srv", "6:14: warning: the value begins with a blank", "no blank after"},
        {"ERROR_HTML=/no/page", "6:12: warning: '/no/page' cannot be read: No such file", "name a file"},
        {"REGISTER_EXTNS=zml,.zcf", "6:20: warning: an extension with '.'", "zml,zcf"},
        {"CLIENTIOTIMEOUT=30\nClientIOTimeout=20", "7:1: warning: 'ClientIOTimeout' is there already",
         "on line 6"},
        {servers + "h,1:g", "7:20: error: server 'g' can never be reached: 1 field", "HOST,PORT"},
        {servers + host + ",1",
         "7:16: error: server '" + host +
             ",1' can never be reached: the host has 254 characters; at most 253",
         "HOST,PORT"},
        {servers + "[10.0.0.2],1",
         "7:16: error: server '[10.0.0.2],1' can never be reached: [10.0.0.2] is no IPv6 address",
         "HOST,PORT"},
        {servers + "/run/a,1", "7:16: error: server '/run/a,1' can never be reached: the path", "ID,PATH"},
        {servers + "h,1:[::1],1", "7:20: warning: server '::1,1' has neither an id nor an IPv4 address",
         "an id"},
        {servers + "s001,/run/a:/run/a", "7:28: warning: server '/run/a' is there already", "one of the two"},
        {servers + "s1,h,1", "7:16: warning: id 's1' has not 4 characters", "4 letters"},
        {servers + "h,1\nFORCE_SERVER_ARG_NAME=srv", "8:1: warning: no server has an id", "ID,HOST,PORT"},
        {next + "[Shop]\nVELARTO_SERVER=h,1\n", "8:2: warning: section [Shop] is there already", "on line 5"},
        {next + "[news]\nVELARTO_SERVER=h,1\n", "8:2: warning: section [news] is not listed", "line news="},
    };
    for (const auto& [line, finding, remedy] : mistakes) {
        SCOPED_TRACE(line);
        std::string content = kFile;
        writeFile(clientsFile(), content.replace(content.find("CLIENTIOTIMEOUT=30"), 18, line));
        const Outcome outcome = config({"check"});
        EXPECT_EQ(outcome.exitStatus, 1) << outcome.err;
        const std::size_t at = outcome.out.find(clientsFile() + ":" + finding);
        ASSERT_NE(at, std::string::npos) << outcome.out;
        const std::size_t told = outcome.out.find("remedy: ", at);
        EXPECT_LT(outcome.out.find(remedy, told), outcome.out.find('\n', told)) << outcome.out;
    }
}

TEST_F(Config, CheckGoesOnAfterAnErrorAndCountsWhatTheGatewayRefuses) {
    const std::string list = "[Velarto Client Definitions]\nshop=\n", shop = "\n[shop]\nVELARTO_SERVER=h,1\n";
    const std::string refused = "\nThe gateway refuses this file: every client gets error 601.\n";
    const struct {
        std::string content;
        Texts findings;
        std::string end;
    } files[] = {
        {"junk\n[shop]\nA\n[open\n\n[last] x\n",
         {":1:1: error", ":3:2: error: no =", ":4:2: error: no ]", ":6:8: error: after a section header"},
         ": 2 sections, 4 errors, 0 warnings" + refused},
        {list + "gone=\n\n[shop]\n",
         {"client 'gone' has no section", "client 'shop' has no servers"},
         ": 2 sections, 1 error, 2 warnings\n"},
        {list + shop + "CLIENTIOTIMEOUT=9\n junk",
         {":7:2: warning: the gateway ignores the last line"},
         ": 2 sections, 0 errors, 1 warning\n"},
        // The caret counts characters.
        {list + "\n[shop]\nVELARTO_SERVER=\xC3\xA4\xC3\xB6,1:x\n",
         {" | VELARTO_SERVER=\xC3\xA4\xC3\xB6,1:x\n      |                     ^\n"},
         ": 2 sections, 1 error, 1 warning\n"},
        {"\xEF\xBB\xBF" + list + shop, {}, ": 1 section, 1 error, 1 warning" + refused},
    };
    for (const auto& [content, findings, end] : files) {
        writeFile(clientsFile(), content);
        const std::string out = config({"check"}).out;
        for (const std::string& finding : findings)
            EXPECT_TRUE(contains(out, finding));
        EXPECT_EQ(out.substr(out.find(clientsFile() + ": ")), clientsFile() + end) << out;
    }
    EXPECT_TRUE(contains(config({"check", "--json"}).out, "\"parses\": false"));
}

TEST_F(Config, WhatIsThereIsShown) {
    const std::pair<Texts, Texts> shown[] = {
        {{"check"}, {clientsFile() + ": 3 sections, 0 errors, 0 warnings\n"}},
        {{"path"}, {clientsFile() + "\nfound by the environment variable VELARTO_PATH\n"}},
        {{"path", "--file", clientsFile()}, {clientsFile() + "\nfound by the option --file\n"}},
        {{"list"}, {"shop                     2 servers, line 5\n", "admin                    2 servers"}},
        {{"show", "SHOP"},
         {"VELARTO_SERVER         s001,10.0.0.5,18155:s002,10.0.0.6,18155  (line 7)\n",
          "CLIENTIOTIMEOUT        30  (line 6)\n", "PARSEFILEPATHS         no  (default)\n"}},
        {{"show", "admin"}, {" 10.0.0.7,18155:10.0.0.7,18156  (from VELARTO_HOST and VELARTO_PORT)\n"}},
        {{"show", "shop", "--json"},
         {"\"key\": \"CLIENTIOTIMEOUT\",\n      \"value\": \"30\",\n      \"origin\": \"line 6\"\n"}},
        {{"servers", "admin"}, {" 10.0.0.7 ", " 18155\n", " 18156\n"}},
        {{"--help"}, {"servers", "remove"}},
        {{"--version"}, {"velarto-config (Velarto) 5.5.020\n"}},
    };
    for (const auto& [arguments, parts] : shown) {
        const Outcome outcome = config(arguments);
        EXPECT_EQ(outcome.exitStatus, 0) << outcome.err;
        for (const std::string& part : parts)
            EXPECT_TRUE(contains(outcome.out, part));
    }
    std::filesystem::remove(clientsFile());
    const Outcome outcome = config({"path"});
    EXPECT_EQ(outcome.err, "velarto-config: " + clientsFile() + ": No such file or directory\n");
    EXPECT_EQ(outcome.exitStatus, 2);
}

// By the scripts that are installed.
TEST_F(Config, CompletionInBashOffersWhatFits) {
    std::string commands, keys;
    const std::string help = config({"--help"}).out;
    const std::regex command("\n  ([a-z]+) ");
    for (std::sregex_iterator i(help.begin(), help.end(), command), end; i != end; ++i)
        commands += (*i)[1].str() + "\n";
    for (const ClientKey* key : kClientKeys)
        keys += key->name + std::string("\n");
    const std::string program = VELARTO_CONFIG_PATH, devServer = VELARTO_DEVSERVER_PATH;
    const struct {
        std::string program, line, offered;
    } cases[] = {
        {program, "", commands},
        {program, "set -", "--file\n--force\n--help\n--json\n--version\n-h\n"},
        {program, "servers --t", "--timeout\n"},
        {program, "--json set SH", "shop\n"},
        {program, "show --file=other ", "my\\ shop\n"},  // not what would change the terminal
        {program, "show --file other my\\ s", "my\\ shop\n"},
        {program, "set shop ", keys},
        {program, "set shop CLIENTLOG sy", "syslog\nsyslog\\,all\n"},
        {program, "set shop httpstatus ", "no\nyes\n"},
        {program, "set shop VELARTO_SERVER ", ""},
        {program, "unset shop answert", "ANSWERTIMEOUT\n"},
        {program, "try --header A:b a", "admin\n"},
        {program, "add ", ""},
        {program, "show --file ", "names of files\n"},
        {devServer, "--listen 127.0.0.1:0 --m", "--max-body\n--misbehave\n"},
        {devServer, "", ""},
    };
    writeFile(folder_ / "work/other", "[my shop]\nA=b\n\n[a\tb]\nA=b\n\n");
    for (const auto& [asked, line, offered] : cases) {
        const std::string script = "compopt() { COMPREPLY=('names of files'); }\n. " +
                                   std::filesystem::path(asked).replace_filename("completion.bash").string() +
                                   "\nCOMP_LINE='program " + line + "' COMP_POINT=99\n_velarto_complete " +
                                   asked +
                                   "\n((${#COMPREPLY[@]} == 0)) || printf '%s\\n' \"${COMPREPLY[@]}\"";
        const Outcome outcome = config({}, "", {"/bin/bash", "-c", script, "bash"});
        EXPECT_EQ(outcome.out, offered) << line;
        EXPECT_EQ(outcome.err, "") << line;
    }
}

TEST_F(Config, ChangesLeaveTheOtherSectionsAlone) {
    const std::pair<Texts, std::pair<std::string, std::string>> changes[] = {
        {{"set", "shop", "PARSEFILEPATHS", "yes"},
         {"CLIENTIOTIMEOUT=30\n", "CLIENTIOTIMEOUT=30\nPARSEFILEPATHS=yes\n"}},
        {{"set", "shop", "clientiotimeout", "20"}, {"CLIENTIOTIMEOUT=30\n", "CLIENTIOTIMEOUT=20\n"}},
        {{"unset", "shop", "CLIENTIOTIMEOUT", "--force"}, {"CLIENTIOTIMEOUT=20\n", ""}},
        {{"set", "shop", "ERROR_HTML", "/a\nb\\", "--force"},
         {"PARSEFILE", "ERROR_HTML=/a\\nb\\\\\nPARSEFILE"}},
        {{"remove", "admin"}, {kFile.substr(kFile.find("[admin]")), ""}},
        {{"add", "news", "--server", "h,1"},
         {"18155\n\n", "18155\n\n[news]\nCLIENTIOTIMEOUT=30\nVELARTO_SERVER=h,1\n\n"}},
    };
    std::string expected = kFile;
    for (const auto& [arguments, change] : changes) {
        const Outcome outcome = config(arguments);
        EXPECT_EQ(outcome.exitStatus, 0) << outcome.err;
        expected.replace(expected.find(change.first), change.first.size(), change.second);
        if (arguments[0] == "remove") expected.replace(expected.find("admin="), 7, "");
        if (arguments[0] == "add") expected.replace(expected.find("shop="), 0, "news=\n");
        EXPECT_EQ(readFile(clientsFile()), expected) << arguments[0];
    }
}

TEST_F(Config, AFileThatTheGatewayCannotReadIsRefusedAndStaysAsItIs) {
    const std::pair<std::string, std::string> files[] = {
        {"[shop]\nx\n", ":2:2: no = after"}, {"[admin]\n\n[shop\nA=b\n\n[c]\n", ":3:2: no ] after"}};
    for (const auto& [bad, reason] : files) {
        writeFile(clientsFile(), bad);
        for (const Texts& arguments : {Texts{"list"},
                                       {"show", "shop"},
                                       {"servers", "shop"},
                                       {"try", "shop", "/"},
                                       {"add", "new"},
                                       {"remove", "shop"},
                                       {"set", "shop", "DOCUMENTPATH", "x"},
                                       {"unset", "shop", "CLIENTIOTIMEOUT"}})
            expectRefusal(config(arguments), reason, bad);
    }
    writeFile(clientsFile(), "");
    expectRefusal(config({"check"}), ": the file is empty", "");
}

TEST_F(Config, ARequestThatWouldDoHarmIsRefusedAndNothingChanges) {
    const struct {
        std::string content;
        Texts arguments;
        std::string reason;
    } cases[] = {
        {kFile, {"show", "nobody"}, "no client 'nobody'; there are: shop, admin"},
        {kFile, {"unset", "shop", "DOCUMENTPATH"}, "has no 'DOCUMENTPATH'"},
        {kFile, {"unset", "shop", "VELARTO_SERVER"}, "client 'shop' has no servers"},
        {kFile, {"set", "shop", "DOCUMENTPATH", std::string(4096, 'x'), "--force"}, "the file cannot hold"},
        {kFile, {"set", "shop", "PARSEFILEPATH", "yes"}, "did you mean PARSEFILEPATHS?"},
        {kFile, {"add", "shop"}, "is there already"},
        {kFile, {"add", "a]b", "--force"}, "no client can be called 'a]b'"},
        {kFile, {"add", "new", "--server", "localhost"}, "can never be reached: 1 field"},
        {kFile.substr(kFile.find("[shop]")), {"add", "new"}, "has no section [Velarto Client Definitions]"},
        {kFile + "[a]\nA=" + std::string(4096, 'x') + "\n", {"unset", "shop", "CLIENTIOTIMEOUT"}, "--force"},
        {"; mine\n" + kFile, {"set", "shop", "CLIENTIOTIMEOUT", "5"}, ":1: the file is written anew"},
        {kFile, {"try", "shop", "/", "--data", "none"}, "the body none: No such file or directory\n"},
        {kFile, {"try", "shop", "/", "--header", "a:b\nc"}, "has a control character: 'a:b\\x0Ac'"},
        {kFile, {"try", "shop", "x"}, "the path begins with '/' or '?', not as 'x'\n"},
        {kFile + "junk",
         {"set", "shop", "CLIENTIOTIMEOUT", "5"},
         ":14:1: the file is written anew, without its last"},
        {kFile + "[Admin]\nA=b\n", {"remove", "admin", "--force"}, ":14:2: this section of the same name"},
        {kFile + "[a]\n =b\n", {"add", "new", "--force"}, ":15:1: the file cannot be written anew with this"},
        {kFile, {"nonsense"}, "no command 'nonsense'; --help tells"},
        {kFile,
         {"export", "haproxy", "shop", "--bind", "10.0.0.9"},
         "--bind takes ADDRESS:PORT, not '10.0.0.9'"},
        {kFile, {"export", "haproxy", "shop", "--bind", "10.0.0.9:65534"}, "--bind leaves too few ports"},
        {kFile,
         {"export", "haproxy", "shop", "--bind", "10.0.0.6:18154"},
         "a server is at 10.0.0.6:18155, where"},
        {kFile + "[a b]\nA=b\n", {"export", "haproxy", "a b"}, "in a client's name, not 'a b'"},
        {kFile + "[a]\nVELARTO_SERVER=h,1:h\n",
         {"export", "haproxy", "a"},
         "server 'h' cannot be used: 1 field"},
        {kFile + "[a]\nVELARTO_SERVER=s#01,h,1\n", {"export", "haproxy", "a"}, "in an id, not 's#01'"},
    };
    for (const auto& [content, arguments, reason] : cases) {
        writeFile(clientsFile(), content);
        expectRefusal(config(arguments), reason, content);
    }
}

TEST_F(Config, AFullDiskIsToldAndLeavesTheFile) {
    // The limit is for every file, so the message goes through a pipe.
    const Texts fullDisk = {"/bin/bash", "-c",
                            "set -o pipefail; (trap '' XFSZ; ulimit -f 0; exec \"$@\") 2>&1 | cat >&2",
                            "bash"};
    for (const Texts& arguments :
         {Texts{"set", "shop", "DOCUMENTPATH", "/srv"}, {"add", "new"}, {"remove", "admin"}})
        expectRefusal(config(arguments, "", fullDisk), "cannot be written: File too large", kFile);
    const Texts fullOutput = {"/bin/bash", "-c", "exec \"$@\" >/dev/full", "bash"};
    for (const Texts& arguments : {Texts{"check"}, {"list"}, {"show", "shop"}, {"servers", "shop"}})
        expectRefusal(config(arguments, "", fullOutput), "the output cannot be written", kFile);
}

TEST_F(Config, ServersTellsWhoAnswers) {
    const DevServer server;
    const DeadPort dead;
    configure("s001," + entry(server.port()) + ":" + entry(dead.port()) + ":a..b,80");
    const Outcome probed = config({"servers", "shop", "--probe"});
    EXPECT_EQ(squeezed(probed.out), "s001 127.0.0.1 " + std::to_string(server.port()) +
                                        " answers after TIME\n- 127.0.0.1 " + std::to_string(dead.port()) +
                                        " fails after TIME: Connection refused\n" +
                                        "- a..b 80 fails after TIME: no such host\n1 of 3 servers answer\n");
    EXPECT_EQ(probed.exitStatus, 1);
    EXPECT_TRUE(contains(config({"servers", "shop", "--probe", "--json"}).out, "\"answering\": 1"));
    configure(entry(server.port()));
    EXPECT_EQ(config({"servers", "shop", "--probe"}).exitStatus, 0);

    const std::string path = folder_ / "app";
    const DevServer local({}, "unix:" + path);
    configure("s001," + path + ":s002," + path + "0:localhost," + std::to_string(server.port()),
              "ALLADDRESSES=yes\n");
    EXPECT_EQ(squeezed(config({"servers", "shop", "--probe"}).out),
              "s001 " + path + " answers after TIME\ns002 " + path +
                  "0 fails after TIME: No such file or directory\n- localhost " +
                  std::to_string(server.port()) + " answers after TIME\n2 of 3 servers answer\n");

    configure("s001," + entry(dead.port()) + ":s002," + entry(server.port()),
              "SERVERRETRY=60\nSTATEPATH=" + folder_ / "state\n");
    run({"HTTP_COOKIE=Velarto_UserReference=s001" + std::string(24, '-')});
    EXPECT_TRUE(contains(config({"servers", "shop"}).out, "left out for "));
    EXPECT_TRUE(contains(config({"try", "shop", "/", "--verbose"}).err,
                         "'s001," + entry(dead.port()) + "' is left out for "));
}

// What it does with requests is seen in scale/.
TEST_F(Config, ExportGivesEachIdAListenerThatHaproxyTakes) {
    const std::string base = readFile(VELARTO_EXAMPLES_PATH "/haproxy-servers.cfg");
    writeFile(folder_ / "base.cfg",
              std::regex_replace(base, std::regex("/(etc|run)/haproxy"), VELARTO_EXAMPLES_PATH));
    const struct {
        std::string servers;
        std::string gateways;  // their list
        Texts lines;
    } lists[] = {
        {"h,1", "127.0.0.1,18155", {"\nlisten shop\n    bind 127.0.0.1:18155\n    server h h:1 check\n"}},
        {"s001,h,1:S001,g,1:s002,h,2:h,3:h,4",
         "s001,127.0.0.1,18156:s002,127.0.0.1,18157:127.0.0.1,18155",
         {"    bind 127.0.0.1:18155\n    server s001 h:1 track shop-s001/s001\n",
          "    bind 127.0.0.1:18156\n",
          "    use_backend shop if is_whole !is_for_somebody\n    server s001 h:1 check\n",
          "    server S001 g:1 check\n    server s002 h:2 track shop-s002/s002 backup\n",
          "    server h h:3 track shop/h backup\n    server h-5 h:4 track shop/h-5 backup\n",
          "    server h h:3 check\n    server h-5 h:4 check\n\nlisten shop-s001"}},
        {"s001,2001:db8::5,1:/run/app.sock:[::1],2",
         "s001,127.0.0.1,18156:127.0.0.1,18155",
         {"    server s001 [2001:db8::5]:1 check\n    server server unix@/run/app.sock track shop/server "
          "backup\n",
          "    server server-3 [::1]:2 check\n"}},
    };
    for (const auto& [servers, gateways, lines] : lists) {
        configure(servers);
        const std::string text = config({"export", "haproxy", "shop"}).out;
        EXPECT_TRUE(contains(text, "\n# The gateways' list: VELARTO_SERVER=" + gateways + "\n"));
        for (const std::string& line : lines)
            EXPECT_TRUE(contains(text, line));
        writeFile(folder_ / "shop.cfg", text);
        const Outcome outcome = support::run(
            commandOf({"/usr/sbin/haproxy", "-c", "-f", folder_ / "base.cfg", "-f", folder_ / "shop.cfg"}),
            20s);
        EXPECT_EQ(outcome.exitStatus, 0) << outcome.err;
    }
}

TEST_F(Config, TryAsksAsAWebServerAndAnswersAsTheGateway) {
    writeFile(folder_ / "work/body", "a=b");
    const std::string large(200000, 'i');
    const std::pair<Texts, std::map<std::string, std::string>> cases[] = {
        {{"/x%20y/../z?q=%20"}, {{"PATH_INFO", "/z"}, {"QUERY_STRING", "q=%20"}, {"REQUEST_METHOD", "GET"}}},
        {{"/../a%2e", "--document-root", "/srv/"}, {{"PATH_INFO", "/a."}, {"PATH_TRANSLATED", "/srv/a."}}},
        {{"/", "--method", "PUT"}, {{"REQUEST_METHOD", "PUT"}, {"CONTENT_LENGTH", "0"}}},
        {{"/", "--data", "body"}, {{"REQUEST_METHOD", "POST"}, {"CONTENT_LENGTH", "3"}, {"", "a=b"}}},
        {{"/", "--data", "-"}, {{"CONTENT_LENGTH", "200000"}, {"", large}}},
        {{"/", "--header", "Cookie: a=1", "--header", "cookie:b=2"},
         {{"HTTP_COOKIE", "a=1; b=2; VelartoClient=shop"}}}};
    for (const auto& [arguments, variables] : cases) {
        SCOPED_TRACE(::testing::PrintToString(arguments));
        ScriptedPeer& peer = serveAlone(kAnswer);
        Texts line = {"try", "shop"};
        line.insert(line.end(), arguments.begin(), arguments.end());
        expectSuccess(config(line, large), kAnswerOutput);
        wire::Request request = peer.onlyVisit().request;
        for (const auto& [name, value] : variables)  // no name: the body
            EXPECT_EQ(name.empty() ? request.post : request[name], value) << name;
    }
    serveAlone({kAnswer[0], wire::body("\xFF\xFE\x01x"), wire::end()});
    EXPECT_TRUE(contains(config({"try", "shop", "/", "--json"}).out, "\"body-base64\": \"//4BeA==\""));
}

TEST_F(Config, TryTellsTheSteps) {
    writeFile(folder_ / "work/page", "12345");
    const ScriptedPeer& peer = serveAlone([](Connection& connection) {
        connection.receiveRequest();
        connection.send(wire::fileRequest("page"));
        connection.expect(wire::fileReply("12345"));
        connection.send(wire::fileRequest("none"));
        connection.expect(wire::fileRefused());
        connection.serve(kAnswer);
    });
    const std::string err = squeezed(config({"try", "shop", "/", "-v", "--header", "X-A: b"}).err);
    EXPECT_TRUE(contains(err, " TIME variable HTTP_X_A=b (the gateway does not pass it on)\n"));
    EXPECT_TRUE(contains(err, " TIME variable PATH_INFO=/\n"));
    EXPECT_TRUE(contains(err, " TIME connect " + entry(peer.port()) + ", the only one: connected in TIME\n" +
                                  " TIME sent 585 bytes\n TIME file page: 5 bytes\n"
                                  " TIME file none: refused; it is missing, unreadable, empty or no file\n"
                                  " TIME header 45 bytes, status 200\n TIME piece 5 bytes\n"
                                  " TIME end the answer is complete\n"
                                  " TIME total 674 bytes sent, 154 received\n"));
}

TEST_F(Config, TryTellsTheStepThatFailsAndTheGatewaysError) {
    const DeadPort dead;
    configure(entry(dead.port()));
    EXPECT_EQ(config({"try", "shop", "/"}).err,
              "velarto-config: connect: no server could be reached: " + entry(dead.port()) +
                  ": Connection refused (the gateway's error 602)\n");
    EXPECT_TRUE(contains(config({"try", "shop", "/", "--json"}).out, "\"code\": 602"));

    const std::pair<Script, std::string> cases[] = {
        {[](Connection& c) { c.receive(100), c.reset(); }, "send: the request could not be sent: .* 604"},
        {[](Connection& c) { c.receiveRequest(), c.close(); }, "answer: .* closed the connection .* 605"},
        {answering({wire::header("HTTP/1.0 ok"), wire::end()}), "answer: .* no valid status line .* 605"},
    };
    for (const auto& [script, err] : cases) {
        serveAlone(script);
        const Outcome outcome = config({"try", "shop", "/", "--data", "-"}, std::string(20000000, 'x'));
        EXPECT_TRUE(std::regex_match(outcome.err, std::regex("velarto-config: " + err + "\\)\n")))
            << outcome.err;
        EXPECT_EQ(outcome.exitStatus, 1);
    }
}

}  // namespace
