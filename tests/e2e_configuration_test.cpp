// End to end: where the real gateway finds its configuration, what it makes of a bad one, and what the first
// run of a new client does to the file.
#include <pwd.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

#include "support/Gateway.h"

namespace {

namespace fs = std::filesystem;
using namespace std::string_literals;
using namespace support;

constexpr uid_t kNobody = 65534;
const std::string kAdded = "VELARTO_SERVER=127.0.0.1,18155\n\n";

std::string parseMessage(const std::string& file, const std::string& client = "shop") {
    return "An error occurred while parsing the config file " + file + " for client " + client +
           ". Check the file format is correct and the owner of the http process has file permissions to "
           "read the "
           "file.";
}

class GatewayConfiguration : public GatewayTest {
  protected:
    std::string content() const { return readFile(clientsFile()); }

    void writeClients(const std::string& content) { writeFile(clientsFile(), content); }

    // The gateway as somebody whom file modes bind: root is not.
    Command asCommonUser() const {
        Command command = this->command();
        if (::geteuid() != 0) return command;
        command.user = kNobody;
        command.program = folder_ / "velarto-cgi";  // the original may lie where others cannot go
        fs::copy_file(program(), command.program, fs::copy_options::overwrite_existing);
        return command;
    }

    // A first run whose default server nobody plays. Whoever does listen there is none of this test's
    // business.
    void runFirst(const Command& command, const std::string& client) {
        const DeadPort defaultPort(18155);
        const Outcome outcome = runCommand(command);
        if (!defaultPort.held()) return;
        expectPage(outcome, 602,
                   "Tried connecting to Velarto Server for client " + client + " on 127.0.0.1,18155");
    }
};

// ---- files that cannot be used ----------------------------------------------------------------------------

TEST_F(GatewayConfiguration, FileThatCannotBeParsedIsLeftAsItIs) {
    const std::string section = "[Velarto Client Definitions]\nshop=\n\n[shop]\nVELARTO_SERVER=127.0.0.1,1\n";
    const struct {
        const char* what;
        std::string content;
    } cases[] = {
        {"empty", ""},
        {"too large", section + "\n;" + std::string(131072, 'x')},
        {"no header", "VELARTO_SERVER=127.0.0.1,1\n"},
        {"header without line end", "[shop]"},
        {"carriage returns", "[shop]\r\nVELARTO_SERVER=127.0.0.1,1\r\n"},
        {"line without =", section + "what is this\n"},
        {"headers without an empty line between", section + "[next]\n"},
        {"line of blanks", section + "  \n"},
        {"key too long", section + std::string(255, 'k') + "=v\n"},
        {"binary", std::string(1000, '\0')},
        {"no server", "[Velarto Client Definitions]\nshop=\n\n[shop]\na=b\n"},
        {"empty server list", "[Velarto Client Definitions]\nshop=\n\n[shop]\nVELARTO_SERVER=\n"},
        {"host only", "[Velarto Client Definitions]\nshop=\n\n[shop]\nVELARTO_HOST=127.0.0.1\n"},
        {"port only", "[Velarto Client Definitions]\nshop=\n\n[shop]\nVELARTO_PORT=1\n"},
        {"no directory to add to", "[other]\na=b\n"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        writeClients(c.content);
        expectPage(run(), 601, parseMessage(clientsFile()));
        EXPECT_EQ(content(), c.content);
    }
}

TEST_F(GatewayConfiguration, FileThatCannotBeOpenedIsNotMade) {
    expectPage(run(), 601, parseMessage(clientsFile()));
    EXPECT_FALSE(fs::exists(clientsFile()));

    fs::create_directory(clientsFile());
    expectPage(run(), 601, parseMessage(clientsFile()));
    EXPECT_TRUE(fs::is_empty(clientsFile()));
    fs::remove(clientsFile());

    fs::create_symlink("absent", clientsFile());
    expectPage(run(), 601, parseMessage(clientsFile()));
    fs::remove(clientsFile());

    configure("127.0.0.1,1");
    fs::permissions(clientsFile(), fs::perms::none);
    expectPage(runCommand(asCommonUser()), 601, parseMessage(clientsFile()));
}

TEST_F(GatewayConfiguration, NphPageForABadConfigurationHasItsStatusLines) {
    writeClients("[shop");
    expectPage(run({"SERVER_PROTOCOL=HTTP/1.1", "SERVER_SOFTWARE=web"}, "", "/x/nph-shop"), 601,
               parseMessage(clientsFile(), "nph-shop"), "HTTP/1.1 500 Internal Server Error\nServer: web\n");
}

// ---- names ------------------------------------------------------------------------------------------------

TEST_F(GatewayConfiguration, ProgramWithoutANameIsNoClient) {
    configure("127.0.0.1,1");
    for (const char* name : {"", "/", "/srv/shop/"}) {
        expectPage(run({}, "", name), 601, "No client name defined");
    }
    Command command = this->command();
    command.arguments.clear();  // no argument vector at all, where the system allows that
    expectPage(runCommand(command), 601, "No client name defined");
}

TEST_F(GatewayConfiguration, LongProgramNameIsCutAt255Characters) {
    const std::string name(300, 'n');
    expectPage(run({}, "", "/srv/cgi/" + name), 601, parseMessage(clientsFile(), name.substr(0, 255)));

    Command linked = command();
    linked.program = folder_ / std::string(255, 'l');  // as long as a file system allows
    linked.arguments = {linked.program};
    fs::create_symlink(program(), linked.program);
    expectPage(runCommand(linked), 601, parseMessage(clientsFile(), std::string(255, 'l')));
}

TEST_F(GatewayConfiguration, StrangeNamesAreNamesLikeAnyOther) {
    for (const std::string& name :
         {"it's \"quoted\""s, "a\tb\x01\x7F\xE9"s, "back\\slash\r\n"s, "%s%n%d"s, std::string(254, 'n')}) {
        SCOPED_TRACE(name);
        writeClients("[Velarto Client Definitions]\n");
        runFirst(command({}, "", name), name);
        const std::string afterFirst = content();
        EXPECT_NE(afterFirst.find("]\n" + kAdded), std::string::npos);
        runFirst(command({}, "", name), name);
        EXPECT_EQ(content(), afterFirst) << "the section was not found again";
    }
}

// Not every name can be written so that it reads back; whatever becomes of such a client, the others go on.
TEST_F(GatewayConfiguration, NoNameMakesTheFileUnreadableForOthers) {
    for (const std::string& name : {"a=b"s, "a;b"s, "a[b"s, "a]b"s, "[a]"s, ";a"s, "=a"s, " a"s, "\ta"s,
                                    std::string(255, 'n'), std::string(300, 'n')}) {
        SCOPED_TRACE(name);
        ScriptedPeer& server = serveAlone(kAnswer);
        run({}, "", "/srv/cgi/" + name);
        run({}, "", "/srv/cgi/" + name);
        expectSuccess(run(), kAnswerOutput);
        EXPECT_EQ(server.visits().size(), 1u);
    }
}

// ---- where the file lies ----------------------------------------------------------------------------------

TEST_F(GatewayConfiguration, PathMayEndInASlash) {
    serveAlone(kAnswer);
    expectSuccess(run({"VELARTO_PATH=" + folder_.path() + "/"}), kAnswerOutput);
}

TEST_F(GatewayConfiguration, PathMayHave237Characters) {
    std::string base = folder_.path();
    while (base.size() < 237)
        base += "/" + std::string(std::min<std::size_t>(200, 236 - base.size()), 'd');
    fs::create_directories(base);
    fs::create_symlink(folder_ / "configuration", base + "/configuration");
    serveAlone(kAnswer);
    expectSuccess(run({"VELARTO_PATH=" + base}), kAnswerOutput);
    expectPage(run({"VELARTO_PATH=" + base + "d"}), 601,
               "Unable to get the file path for the config file: clients.ini. Check that the velarto "
               "configure path has "
               "been set properly.");
}

TEST_F(GatewayConfiguration, WithoutAPathTheDefaultFolderCounts) {
    const std::string file = "/usr/local/VelartoServer/5.5/configuration/clients.ini";
    if (::getpwnam("velarto") != nullptr || fs::exists(file))
        GTEST_SKIP() << "an installation is on this machine";
    configure("127.0.0.1,1");
    expectPage(run({"VELARTO_PATH="}), 601, parseMessage(file));
    Command unset = command();
    unset.environment.erase(unset.environment.begin());
    ASSERT_EQ(unset.environment.front().find("VELARTO_PATH"), std::string::npos);
    expectPage(runCommand(unset), 601, parseMessage(file));
}

// ---- the first run of a new client ------------------------------------------------------------------------

const std::string kBefore =
    "; by hand\n[Velarto Client Definitions]\nshop=\nAdmin=\n\n[shop]\nb=2\nA=1\n\n[Admin]\nx=y";
const std::string kAfter =
    "[Velarto Client Definitions]\nAdmin=\nnew=\nshop=\n\n[shop]\nA=1\nb=2\n\n[Admin]\nx=y\n\n[new]\n" +
    kAdded;

TEST_F(GatewayConfiguration, FirstRunAddsTheSectionAndKeepsAllElse) {
    writeClients(kBefore);
    fs::permissions(clientsFile(), fs::perms(0640));
    runFirst(command({}, "", "/srv/cgi/new"), "new");
    EXPECT_EQ(content(), kAfter);
    EXPECT_EQ(fs::status(clientsFile()).permissions(), fs::perms(0640));
    runFirst(command({}, "", "/srv/cgi/NEW"), "NEW");
    EXPECT_EQ(content(), kAfter) << "a second run found its section";
}

TEST_F(GatewayConfiguration, FirstRunWritesThroughALink) {
    writeFile(folder_ / "real.ini", kBefore);
    fs::create_symlink("../real.ini", clientsFile());
    runFirst(command({}, "", "new"), "new");
    EXPECT_TRUE(fs::is_symlink(clientsFile()));
    EXPECT_EQ(readFile(folder_ / "real.ini"), kAfter);
}

TEST_F(GatewayConfiguration, FirstRunInAReadOnlyFolderWritesInPlace) {
    writeClients(kBefore);
    fs::permissions(clientsFile(), fs::perms(0666));
    fs::permissions(folder_ / "configuration", fs::perms(0555));
    Command command = asCommonUser();
    command.arguments = {"new"};
    runFirst(command, "new");
    EXPECT_EQ(content(), kAfter);
}

TEST_F(GatewayConfiguration, FileThatMayNotBeWrittenIsLeftAsItIs) {
    writeClients(kBefore);
    fs::permissions(clientsFile(), fs::perms(0444));
    fs::permissions(folder_ / "configuration", fs::perms(0555));
    Command command = asCommonUser();
    command.arguments = {"new"};
    expectPage(runCommand(command), 601, parseMessage(clientsFile(), "new"));
    EXPECT_EQ(content(), kBefore);
}

// A file size limit stands in for a full disk, at every place where the disk may fill up.
TEST_F(GatewayConfiguration, FullDiskLeavesTheOldContentWhole) {
    for (const bool throughLink : {false, true}) {
        const std::string file = throughLink ? folder_ / "real.ini" : clientsFile();
        fs::remove(clientsFile());
        if (throughLink) fs::create_symlink("../real.ini", clientsFile());
        for (std::size_t room = 0; room < kAfter.size(); room += 7) {
            SCOPED_TRACE(room);
            writeFile(file, kBefore);
            Command command = this->command({}, "", "new");
            command.limits = {{RLIMIT_FSIZE, room}};
            command.ignoredSignals = {SIGXFSZ};
            expectPage(runCommand(command), 601, parseMessage(clientsFile(), "new"));
            EXPECT_EQ(readFile(file), kBefore);
        }
    }
}

TEST_F(GatewayConfiguration, EightFirstRunsAtOnceAllFindTheirWayIntoTheFile) {
    constexpr int kClients = 8;
    std::string names;
    for (int i = 0; i < kClients; ++i)
        names += "client" + std::to_string(i) + "=\n";
    for (int round = 0; round < 5; ++round) {
        writeClients("[Velarto Client Definitions]\nshop=\n\n[shop]\na=b\n");
        std::vector<std::unique_ptr<Process>> gateways;
        gateways.reserve(kClients);
        for (int i = 0; i < kClients; ++i) {
            gateways.push_back(std::make_unique<Process>(command({}, "", "client" + std::to_string(i))));
        }
        for (auto& gateway : gateways)
            EXPECT_NE(finish(*gateway).exitStatus, 601 & 0xFF);

        std::string left = content();
        const std::string head = "[Velarto Client Definitions]\n" + names + "shop=\n\n[shop]\na=b\n\n";
        ASSERT_EQ(left.substr(0, head.size()), head);
        left.erase(0, head.size());
        for (int i = 0; i < kClients; ++i) {
            const std::string section = "[client" + std::to_string(i) + "]\n" + kAdded;
            const std::size_t at = left.find(section);
            ASSERT_NE(at, std::string::npos) << section << content();
            left.erase(at, section.size());
        }
        EXPECT_EQ(left, "");
    }
    EXPECT_EQ(std::distance(fs::directory_iterator(folder_ / "configuration"), fs::directory_iterator()), 1);
}

}  // namespace
