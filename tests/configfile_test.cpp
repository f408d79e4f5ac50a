// ConfigFile: syntax, look-ups, merging, writing back beside other writers and on a full disk, location.
#include "config/ConfigFile.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <pwd.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <filesystem>
#include <functional>
#include <iterator>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "eventlog/eventlog.h"
#include "support/Concurrent.h"
#include "support/TempDir.h"

namespace {

using namespace std::string_literals;

constexpr char kDirectory[] = "Velarto Client Definitions";
const char* velartoHome = nullptr;  // null: there is no such user

class ConfigFileTest : public ::testing::Test {
  protected:
    void write(const std::string& text) { support::writeFile(path_, text); }
    std::string onDisk() const { return support::readFile(path_); }
    void linkAs2() const { EXPECT_EQ(link(path_.c_str(), (folder_ / "2").c_str()), 0); }

    auto filesInFolder() const {
        return std::distance(std::filesystem::directory_iterator(folder_.path()), {});
    }

    const support::TempDir folder_;
    const std::string path_ = folder_ / "clients.ini";
};

}  // namespace

extern "C" int getpwnam_r(const char*, passwd* entry, char*, std::size_t, passwd** result) {
    entry->pw_dir = const_cast<char*>(velartoHome);
    *result = velartoHome != nullptr ? entry : nullptr;
    return 0;
}

// ---- syntax ----

TEST_F(ConfigFileTest, ParsesOrRefuses) {
    const struct {
        std::string text;
        std::string image;  // as read, or as far as it was read
        std::string error;  // "line:column"; empty: the file parses
    } cases[] = {
        // structure
        {"\n; nothing", "", ""},
        {"[a]; note\nk=v\n;note\n[b] ;note\n", "[a]\nk=v\n\n[b]\n\n", ""},
        {" [a]\n\tk=v\n\n[A]\n", "[a]\nk=v\n\n[A]\n\n", ""},
        {"[a]\nk=1\nK=2\nk=1\n", "[a]\nk=1\nK=2\nk=1\n\n", ""},
        {"[a]", "", "1:4"},
        {"[a] b\n", "", "1:5"},
        // keys and values
        {"[a]\nk = v\nk=a;b=[c]\nl= \n", "[a]\nk=a;b=[c]\nk = v\nl= \n\n", ""},
        {"[a]\n=v\n", "", "2:1"},
        {"[a]\nk;x=v\n", "", "2:2"},
        {"[a]\nk\0x=v\0w\nl=m\n"s, "[a]\nk=v\nl=m\n\n", ""},
        // escapes; the image shows a backslash doubled
        {"[a\\\\b\nc\\n]\nk\\r=\\\\v\\n\n", "[a\\\\b\\nc\\n]\nk\\r=\\\\v\\n\n\n", ""},
        {"[a\\]\nx=\\q\ny=a\\\nz=\\", "[a\\\\]\nx=\\\\q\ny=a\\\\\nz=\\\\\n\n", ""},
        {"[a]\nk\\;x=v\n", "", "2:3"},
        // limits
        {"[" + std::string(254, 'n') + "]\n\n[" + std::string(255, 'n') + "]\n",
         "[" + std::string(254, 'n') + "]\n\n[]\n\n", ""},
        {"[a]\n" + std::string(254, 'k') + "=v\n", "[a]\n" + std::string(254, 'k') + "=v\n\n", ""},
        {"[a]\nk=" + std::string(5000, 'v') + "\nl=m\n", "[a]\nk=" + std::string(4095, 'v') + "\nl=m\n\n",
         ""},
        {"[a]\nk=" + std::string(4094, 'v') + "\\qx", "[a]\nk=" + std::string(4094, 'v') + "\\\\q\n\n", ""},
    };
    for (const auto& c : cases) {
        write(c.text);
        ConfigFile file(path_.c_str(), kDirectory);
        EXPECT_EQ(file.parseConfigFile(), c.error.empty()) << c.text;
        ::testing::internal::CaptureStderr();
        EXPECT_TRUE(file.dump());
        EXPECT_EQ(::testing::internal::GetCapturedStderr(), c.image) << c.text;
        const ParseError error = file.lastParseError();
        const std::string place = std::to_string(error.line) + ":" + std::to_string(error.column);
        EXPECT_EQ(*error.reason != '\0' ? place : "", c.error) << c.text;
        // A reader of one stanza, which is not there, comes to the same verdict.
        EXPECT_EQ(file.parseStanza("none"), c.error.empty()) << c.text;
        const ParseError same = file.lastParseError();
        EXPECT_TRUE(same.line == error.line && same.column == error.column && same.reason == error.reason);
    }
}

TEST_F(ConfigFileTest, ReadsOneStanzaOfAFile) {
    write("[other]\nk=[x]\n\n[a\\nb]\n k=1\nl\\[=2\n;\n[A\\Nb]\nk=3\n\n[" + std::string(300, 'n') +
          "]\nk=4\n");
    ConfigFile file(path_.c_str(), kDirectory);
    CText value;
    EXPECT_TRUE(file.parseStanza("A\nB") && file.getValue("a\nb", "k", value) && value == "1");
    EXPECT_FALSE(file.findStanza("other") || file.findStanza("a\\nb"));
    EXPECT_TRUE(file.parseStanza("") && file.getValue("", "k", value) && value == "4");
    EXPECT_TRUE(file.parseStanza("nobody") && !file.findStanza("other"));
}

TEST_F(ConfigFileTest, ReportsFilesItCannotTakeAndKeepsItsStanzas) {
    const std::string whole = "[a]\nk=" + std::string(131072 - 6, 'v');
    write(whole);
    ConfigFile file(path_.c_str(), kDirectory);
    ASSERT_TRUE(file.parseConfigFile());
    EXPECT_EQ(file.GetParseTimestamp(), file.getModificationDate());

    const support::TempDir logs;
    ASSERT_TRUE(OpenSystemEventLog((logs / "log").c_str(), nullptr));
    for (const std::string& content : {""s, whole + "v"}) {
        write(content);
        EXPECT_FALSE(file.parseConfigFile());
    }
    unlink(path_.c_str());
    EXPECT_FALSE(file.parseConfigFile() || file.getModificationDate() != 0);
    EXPECT_TRUE(CloseSystemEventLog());
    EXPECT_TRUE(file.findStanza("A"));
    const std::string log = support::readFile(logs / "log");
    for (const char* message : {"Invalid size (0) of the", "Invalid size (131073) of the",
                                "[No such file or directory] could not open"})
        EXPECT_NE(log.find("CONFIG     ERROR    "s + message + " file " + path_ + "\n"), std::string::npos);
}

// ---- look-ups and changes in memory ----

TEST_F(ConfigFileTest, WalksTheDirectoryInItsOrder) {
    write("[Velarto Client Definitions]\nshop=\nghost=\n\n[admin]\n\n[shop]\n\n[unlisted]\n");
    ConfigFile file(path_.c_str(), kDirectory);
    ASSERT_TRUE(file.parseConfigFile());
    EXPECT_EQ(file.getStanzaAtIndex(0), file.getStanza("SHOP"));
    EXPECT_EQ(file.getStanzaAtIndex(1), nullptr);
    CText name;
    EXPECT_TRUE(file.getFirstStanza(name) && name == "shop");
    EXPECT_TRUE(file.getNextStanza(name) && name == "ghost");
    EXPECT_TRUE(!file.getNextStanza(name) && name.IsEmpty());
}

// ---- merging and writing ----

class ConfigWriteTest : public ConfigFileTest {
  protected:
    // An object that holds stanza "s" with A=3, listed, and was not read from the disk.
    ConfigWriteTest() : file_(path_.c_str(), kDirectory) {
        file_.createDirectoryStanza();
        file_.addStanza(new Stanza("s"), true);
        file_.changeValue("s", "A", "3");
    }

    static constexpr char kOld[] = "[Velarto Client Definitions]\nother=\ns=\n\n[s]\nA=1\nB=2\n\n[other]\n\n";
    static constexpr char kChanged[] = "[Velarto Client Definitions]\nother=\ns=\n\n[s]\nA=3\n\n[other]\n\n";

    ConfigFile file_;
};

TEST_F(ConfigWriteTest, ChangesMergesAndRemoves) {
    const auto change = [](ConfigFile& f) { return f.changeStanzaWithWrite("S"); };
    const auto merge = [](ConfigFile& f) { return f.writeFile(true); };
    const auto overwrite = [](ConfigFile& f) { return f.writeFile(false); };
    const auto remove = [](ConfigFile& f) { return f.removeStanzaWithWrite("s") && !f.findStanza("s"); };
    const std::string directory = "[Velarto Client Definitions]\n", undirected = "[s]\nA=1\n\n[x]\n\n";
    const struct {
        std::string before;
        std::function<bool(ConfigFile&)> action;
        bool done;
        std::string after;
    } cases[] = {
        {kOld, change, true, kChanged},
        {directory + "zoo=\nother=\n\n[other]\n\n", change, true,
         directory + "other=\ns=\nzoo=\n\n[other]\n\n[s]\nA=3\n\n"},
        {kOld, merge, true, directory + "other=\ns=\n\n[s]\nA=3\nB=2\n\n[other]\n\n"},
        {kOld, overwrite, true, directory + "s=\n\n[s]\nA=3\n\n"},
        {kOld, remove, true, directory + "other=\n\n[other]\n\n"},
        // Without a directory stanza nothing new can be listed.
        {undirected, merge, false, undirected},
        {"[x]\n", change, false, "[x]\n"},
        {undirected, change, true, "[s]\nA=3\n\n[x]\n\n"},
        // What cannot be read is not overwritten by a merge.
        {"[s]\nk", merge, false, "[s]\nk"},
    };
    for (const auto& c : cases) {
        write(c.before);
        ConfigFile file(path_.c_str(), kDirectory);
        EXPECT_FALSE(file.mergeConfigFiles(file_));  // no directory yet
        file.createDirectoryStanza();
        EXPECT_TRUE(file.mergeConfigFiles(file_));
        EXPECT_EQ(c.action(file), c.done) << c.after;
        EXPECT_EQ(onDisk(), c.after);
        EXPECT_EQ(filesInFolder(), 1);
    }
}

TEST_F(ConfigWriteTest, CreatesOnlyWithoutMerging) {
    EXPECT_FALSE(file_.writeFile(true) || file_.changeStanzaWithWrite("s") ||
                 file_.removeStanzaWithWrite("s"));
    const mode_t mask = umask(027);
    EXPECT_TRUE(file_.findStanza("s") && file_.writeFile(false));
    umask(mask);
    EXPECT_EQ(onDisk(), "[Velarto Client Definitions]\ns=\n\n[s]\nA=3\n\n");
    EXPECT_EQ(std::filesystem::status(path_).permissions(), std::filesystem::perms(0640));
}

TEST_F(ConfigWriteTest, KeepsModeOwnerAndLinks) {
    for (const bool linked : {false, true}) {
        write(kOld);
        EXPECT_EQ(chown(path_.c_str(), geteuid() == 0 ? 65534 : geteuid(), getegid()), 0);
        EXPECT_EQ(chmod(path_.c_str(), 0604), 0);
        if (linked) linkAs2();
        const int pinned = open(path_.c_str(), O_RDONLY);  // so that the file's number is not given away
        struct stat before {
        }, after{};
        EXPECT_EQ(fstat(pinned, &before), 0);
        EXPECT_TRUE(file_.changeStanzaWithWrite("s"));
        EXPECT_EQ(stat(path_.c_str(), &after), 0);
        close(pinned);
        EXPECT_EQ(onDisk(), kChanged);
        EXPECT_EQ(before.st_ino == after.st_ino, linked);  // written in place, else replaced
        EXPECT_TRUE(after.st_uid == before.st_uid && after.st_mode == before.st_mode);
        EXPECT_EQ(filesInFolder(), linked ? 2 : 1);
    }
}

// A file that may grow no further stands for a full disk; the signal that comes with it kills the writer
// unless it is ignored.
TEST_F(ConfigWriteTest, FullDiskLeavesTheOldContent) {
    file_.changeValue("s", "B", std::string(5000, 'x').c_str());
    const auto run = [this](bool killed, bool creates) {
        return support::resultOf(support::startChild([&] {
            std::signal(SIGXFSZ, killed ? SIG_DFL : SIG_IGN);
            const rlimit limit{1000, 1000};
            setrlimit(RLIMIT_FSIZE, &limit);
            return creates ? file_.writeFile(false) : file_.changeStanzaWithWrite("s");
        }));
    };
    EXPECT_EQ(run(false, true), 0);
    EXPECT_EQ(filesInFolder(), 0);
    write(kOld);
    EXPECT_EQ(run(false, false), 0);
    EXPECT_EQ(filesInFolder(), 1);
    EXPECT_EQ(run(true, false), -1);
    EXPECT_EQ(onDisk(), kOld);
    linkAs2();
    EXPECT_EQ(run(false, false) + run(true, false), 0);  // in place: seen before anything is written
    EXPECT_EQ(onDisk(), kOld);
}

TEST_F(ConfigWriteTest, WaitingLockerTakesTheFileThatWasRenamedOver) {
    write("[Velarto Client Definitions]\n");
    const int held = open(path_.c_str(), O_RDWR);
    struct flock lock {};
    lock.l_type = F_WRLCK;
    ASSERT_EQ(fcntl(held, F_SETLK, &lock), 0);
    const pid_t waiting = support::startChild([&] {
        close(held);
        return file_.writeFile(true);
    });
    const std::regex mark("-> .* " + std::to_string(waiting) + " ");
    const auto isWaiting = [&] { return std::regex_search(support::readFile("/proc/locks"), mark); };
    for (int i = 0; i < 5000 && !isWaiting(); ++i)
        usleep(1000);
    EXPECT_TRUE(isWaiting());
    support::writeFile(folder_ / "new", kOld);
    ASSERT_EQ(rename((folder_ / "new").c_str(), path_.c_str()), 0);
    close(held);
    EXPECT_EQ(support::resultOf(waiting), 1);
    EXPECT_EQ(onDisk(), "[Velarto Client Definitions]\nother=\ns=\n\n[s]\nA=3\nB=2\n\n[other]\n\n");
}

TEST_F(ConfigWriteTest, ManyProcessesAddTheirStanzasAtOnce) {
    constexpr std::uint32_t kWriters = 8, kReaders = 200;
    const auto addStanza = [this](const std::string& name) {
        ConfigFile file(path_.c_str(), kDirectory);
        // A thread of the writer looks at the file all the while, as a reloading host does.
        std::atomic<bool> finished{false}, lost{false};
        std::thread looking([&] {
            const ConfigFile same(path_.c_str(), kDirectory);
            while (!finished)
                lost = same.getModificationDate() == 0 || lost;
        });
        bool done = file.parseConfigFile() && file.addStanza(new Stanza(name.c_str()), true);
        for (const char* round : {"0", "1", "2", "3", "4"}) {
            file.changeValue(name.c_str(), "Round", round);
            done = file.changeStanzaWithWrite(name.c_str()) && done;
        }
        finished = true;
        looking.join();
        return done && !lost;
    };
    // Whoever reads meanwhile sees whole files only, none with fewer stanzas than the one before.
    const auto readOn = [this] {
        ConfigFile file(path_.c_str(), kDirectory), part(path_.c_str(), kDirectory);
        for (std::uint32_t i = 0, seen = 0; i < 5; ++i) {
            if (!part.parseStanza(kDirectory) || !part.findStanza(kDirectory)) return false;
            if (!file.parseConfigFile() || file.getNumberOfStanzas() < seen) return false;
            seen = file.getNumberOfStanzas();
        }
        return true;
    };
    for (const bool linked : {false, true}) {
        write("[Velarto Client Definitions]\n");
        if (linked) linkAs2();
        std::vector<pid_t> writers, readers;
        for (std::uint32_t i = 0; i < kWriters; ++i)
            writers.push_back(support::startChild([&] { return addStanza("client" + std::to_string(i)); }));
        for (std::uint32_t i = 0; i < kReaders; ++i)
            readers.push_back(support::startChild(readOn));
        for (const auto& children : {writers, readers}) {
            for (const pid_t child : children)
                EXPECT_EQ(support::resultOf(child), 1);
        }
        ConfigFile file(path_.c_str(), kDirectory);
        EXPECT_TRUE(file.parseConfigFile());
        CText round;
        for (std::uint32_t i = 0; i < kWriters; ++i)
            EXPECT_TRUE(file.getValue(("client" + std::to_string(i)).c_str(), "Round", round) &&
                        round == "4");
        EXPECT_EQ(file.getNumberOfStanzas(), kWriters);
        EXPECT_EQ(filesInFolder(), linked ? 2 : 1);
    }
}

// ---- location ----

TEST(ConfigPath, ComesFromTheEnvironmentTheProfileOrTheDefault) {
    const std::string fallback = "/usr/local/VelartoServer/5.5";
    const struct {
        const char* variable;  // null: not set
        const char* profile;   // null: no such file
        const char* cshrc;
        std::string base;
    } cases[] = {
        {"/opt/app//", "VELARTO_PATH=/no\n", nullptr, "/opt/app/"},
        {"", nullptr, nullptr, fallback},
        {nullptr, "# nothing\n", "setenv VELARTO_PATH /no\n", fallback},
        {nullptr, "umask 022\nexport VELARTO_PATH=/srv/v\nVELARTO_PATH=/no\n", nullptr, "/srv/v"},
        {nullptr, nullptr, "setenv VELARTO_PATH /srv/v", "/srv/v"},
        {nullptr, "# VELARTO_PATH=/old/\nVELARTO_PATH=/new\n", nullptr, "/old"},
        {nullptr, "VELARTO_PATH\nVELARTO_PATH=\nVELARTO_PATH=/v\n", nullptr, "/v"},
    };
    for (const auto& c : cases) {
        const support::TempDir home;
        velartoHome = home.path().c_str();
        c.variable != nullptr ? setenv("VELARTO_PATH", c.variable, 1) : unsetenv("VELARTO_PATH");
        if (c.profile != nullptr) support::writeFile(home / ".profile", c.profile);
        if (c.cshrc != nullptr) support::writeFile(home / ".cshrc", c.cshrc);
        CText path;
        EXPECT_TRUE(ConfigFile::buildConfigPath("clients.ini", path));
        EXPECT_EQ(path.GetTextEx(), c.base + "/configuration/clients.ini");
    }
    velartoHome = nullptr;
    unsetenv("VELARTO_PATH");
    char buffer[44];
    EXPECT_FALSE(ConfigFile::getPlatformConfigPath(buffer, 43));
    EXPECT_TRUE(ConfigFile::getPlatformConfigPath(buffer, 44));
}
