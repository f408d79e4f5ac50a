// End to end: where the real gateway finds its configuration, what it makes of a bad one, and what the first
// run of a new client does to the file.
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
           "read the file.";
}

class GatewayConfiguration : public GatewayTest {
  protected:
    std::string content() const { return readFile(clientsFile()); }

    void writeClients(const std::string& content) const { writeFile(clientsFile(), content); }

    // The gateway as somebody whom file modes bind: root is not.
    Command asCommonUser() const {
        Command command = this->command();
        if (::geteuid() != 0) return command;
        command.user = kNobody;
        command.program = folder_ / "velarto-cgi";  // the original may lie where others cannot go
        fs::copy_file(VELARTO_CGI_PATH, command.program, fs::copy_options::overwrite_existing);
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

TEST_F(GatewayConfiguration, FileThatCannotBeParsedIsLeftAsItIs) {
    const std::string directory = "[Velarto Client Definitions]\nshop=\n\n";
    const std::string section = directory + "[shop]\nVELARTO_SERVER=127.0.0.1,1\n";
    const std::string cases[] = {
        "",
        section + "\n;" + std::string(131072, 'x'),
        section + "what is this\n",
        std::string(1000, '\0'),
        directory + "[shop]\na=b\n",
        directory + "[shop]\nVELARTO_SERVER=\n",
        directory + "[shop]\nVELARTO_HOST=127.0.0.1\n",
        "[other]\na=b\n",
    };
    for (const std::string& bad : cases) {
        SCOPED_TRACE(bad.substr(0, 100));
        writeClients(bad);
        expectPage(run(), 601, parseMessage(clientsFile()));
        EXPECT_EQ(content(), bad);
    }
}

TEST_F(GatewayConfiguration, FileThatCannotBeOpenedIsNotMade) {
    expectPage(run(), 601, parseMessage(clientsFile()));
    EXPECT_FALSE(fs::exists(clientsFile()));

    fs::create_directory(clientsFile());
    expectPage(run(), 601, parseMessage(clientsFile()));
    EXPECT_TRUE(fs::is_empty(clientsFile()));
    fs::remove(clientsFile());

    configure("127.0.0.1,1");
    fs::permissions(clientsFile(), fs::perms::none);
    expectPage(runCommand(asCommonUser()), 601, parseMessage(clientsFile()));
}

TEST_F(GatewayConfiguration, ProgramsWithoutANameAreNoClientsAndLongNamesAreCut) {
    configure("127.0.0.1,1");
    for (const char* name : {"", "/", "/srv/shop/"})
        expectPage(run({}, "", name), 601, "No client name defined");
    Command command = this->command();
    command.arguments.clear();  // no argument vector at all, where the system allows that
    expectPage(runCommand(command), 601, "No client name defined");

    fs::remove(clientsFile());
    expectPage(run({}, "", "/srv/cgi/" + std::string(65536, 'n')), 601,
               parseMessage(clientsFile(), std::string(255, 'n')));
}

// Not every name can be written so that it reads back; whatever becomes of such a client, the others go on.
TEST_F(GatewayConfiguration, NoNameMakesTheFileUnreadableForOthers) {
    for (const std::string& name :
         {"a=b"s, "a;b"s, "a[b"s, "a]b"s, "[a]"s, ";a"s, "=a"s, " a"s, "a\tb\x01\xE9"s, "\r\n%s%n\"'\\"s,
          std::string(254, 'n'), std::string(300, 'n')}) {
        SCOPED_TRACE(name);
        ScriptedPeer& server = serveAlone(kAnswer);
        run({}, "", "/srv/cgi/" + name);
        expectSuccess(run(), kAnswerOutput);
        EXPECT_EQ(server.visits().size(), 1u);
    }
}

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

TEST_F(GatewayConfiguration, FirstRunInAReadOnlyFolderNeedsTheRightToWriteTheFile) {
    writeClients(kBefore);
    fs::permissions(clientsFile(), fs::perms(0444));
    fs::permissions(folder_ / "configuration", fs::perms(0555));
    Command command = asCommonUser();
    command.arguments = {"new"};
    expectPage(runCommand(command), 601, parseMessage(clientsFile(), "new"));
    EXPECT_EQ(content(), kBefore);
    fs::permissions(clientsFile(), fs::perms(0666));
    runFirst(command, "new");
    EXPECT_EQ(content(), kAfter);
}

}  // namespace
