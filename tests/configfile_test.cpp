// ConfigFile: syntax, merging, writing back beside other writers and on a full disk, location.
#include "config/ConfigFile.h"

#include <gtest/gtest.h>
#include <pwd.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <filesystem>
#include <future>
#include <string>
#include <utility>
#include <vector>

#include "eventlog/eventlog.h"
#include "support/Concurrent.h"
#include "support/TempDir.h"

namespace {

const std::string kHead = "[Velarto Client Definitions]\n";
const std::string kOld = kHead + "other=\ns=\n\n[s]\nA=1\nB=2\n\n[other]\n\n";
const std::string kChanged = kHead + "other=\ns=\n\n[s]\nA=3\n\n[other]\n\n";

class ConfigFileTest : public ::testing::Test {
  protected:
    // file_ holds the section "s" with A=3, listed, and was not read from the disk.
    ConfigFileTest() {
        file_.createDirectoryStanza();
        file_.addStanza(new Stanza("s"), true);
        file_.changeValue("s", "A", "3");
    }

    std::string onDisk() const { return support::readFile(path_); }

    const support::TempDir folder_;
    const std::string path_ = folder_ / "clients.ini";
    ConfigFile file_{path_.c_str(), "Velarto Client Definitions"};
};

const support::TempDir velartoHome;

}  // namespace

extern "C" int getpwnam_r(const char*, passwd* entry, char*, std::size_t, passwd** result) {
    entry->pw_dir = const_cast<char*>(velartoHome.path().c_str());
    *result = entry;
    return 0;
}

TEST_F(ConfigFileTest, ParsesUpToTheFirstFault) {
    const std::string name(254, 'n'), value(4095, 'v');
    // What was read, with backslashes doubled, and line and column of the fault.
    const std::pair<std::string, std::string> cases[] = {
        {" [a]; note\n\tk=v\n;note\n[A] ;note\n", "[a]\nk=v\n\n[A]\n\n"},
        {"[a]\nk = v\nl= \nk=a;b=[c]\nK=1\n", "[a]\nk=a;b=[c]\nK=1\nk = v\nl= \n\n"},
        {std::string("[a]\nk\0x=v\0w\nl=m\n", 16), "[a]\nk=v\nl=m\n\n"},
        {"[a\\\\b\nc\\n]\nk\\r=\\\\v\\n\n", "[a\\\\b\\nc\\n]\nk\\r=\\\\v\\n\n\n"},
        {"[a]\nk=v\n\n\n\n", "[a]\nk=v\n\n"},  // as a writer leaves it who was killed before the cut
        {"[a\\]\nx=\\q\ny=a\\\nz=\\", "[a\\\\]\nx=\\\\q\ny=a\\\\\nz=\\\\\n\n"},
        {"[" + name + "]\n\n[" + name + "n]\n", "[" + name + "]\n\n[]\n\n"},
        {"[a]\n" + name + "=" + value + "w\nl=m\n", "[a]\nl=m\n" + name + "=" + value + "\n\n"},
        {"[b]\n\n[a]\n" + name + "n=v\n", "[b]\n\n4:1"},
        // What is no such file at all leaves what was read before.
        {"", "[b]\n\n0:0"},
        {std::string(131073, ';'), "[b]\n\n0:0"},
        {std::string(131072, ';'), ""},
        {"[a]", "1:4"},
        {"[a]\nk\\;x=v\n", "2:3"},
    };
    for (const auto& [text, expected] : cases) {
        support::writeFile(path_, text);
        const bool parsed = file_.parseConfigFile();
        const ParseError error = file_.lastParseError();
        const std::string place = std::to_string(error.line) + ":" + std::to_string(error.column);
        EXPECT_TRUE(file_.writeFile(false));
        EXPECT_EQ(onDisk() + (parsed ? "" : place), expected) << text;
    }
}

TEST_F(ConfigFileTest, WritesMergesAndRemoves) {
    const auto overwrite = [](ConfigFile& f) { return f.writeFile(false); };
    const auto merge = [](ConfigFile& f) { return f.writeFile(true); };
    const auto remove = [](ConfigFile& f) { return f.removeStanzaWithWrite("s") && !f.findStanza("s"); };
    const struct {
        bool (*action)(ConfigFile&);
        std::string before, after;
    } cases[] = {
        {overwrite, kOld, kHead + "s=\n\n[s]\nA=3\n\n"},
        {merge, kOld, kHead + "other=\ns=\n\n[s]\nA=3\nB=2\n\n[other]\n\n"},
        {merge, kHead, kHead + "s=\n\n[s]\nA=3\n\n"},
        // Without the directory nothing new can be listed; what cannot be read is not overwritten.
        {merge, "[s]\n", "[s]\n"},
        {merge, "[s]\nk", "[s]\nk"},
        {remove, kOld, kHead + "other=\n\n[other]\n\n"},
    };
    for (const auto& c : cases) {
        support::writeFile(path_, c.before);
        EXPECT_EQ(c.action(file_), c.after != c.before) << c.after;
        EXPECT_EQ(onDisk(), c.after);
    }
}

TEST_F(ConfigFileTest, WalksOverItsDirectory) {
    file_.addStanza(new Stanza("unlisted"), false);
    file_.addStanza(new Stanza("t"), true);
    std::string walk;
    CText name;
    for (bool isThere = file_.getFirstStanza(name); isThere; isThere = file_.getNextStanza(name))
        walk += name.GetTextEx();
    EXPECT_EQ(walk, "st");
}

TEST_F(ConfigFileTest, CreatesAFileOnlyWithAllItsContent) {
    file_.addStanza(new Stanza("not]a name"), true);
    EXPECT_TRUE(OpenSystemEventLog((folder_ / "log").c_str(), nullptr));
    EXPECT_FALSE(file_.writeFile(true) || file_.changeStanzaWithWrite("s") || file_.writeFile(false));
    EXPECT_TRUE(CloseSystemEventLog());
    EXPECT_FALSE(std::filesystem::exists(path_));
    EXPECT_NE(support::readFile(folder_ / "log").find("could not open file " + path_), std::string::npos);
    file_.removeStanza("not]a name");
    EXPECT_TRUE(file_.writeFile(false));
    EXPECT_TRUE(std::filesystem::exists(path_));
}

TEST_F(ConfigFileTest, KeepsModeOwnerAndLinksAndOnAFullDiskTheContent) {
    const uid_t owner = geteuid() == 0 ? 65534 : geteuid();
    for (const bool linked : {false, true}) {
        support::writeFile(path_, kOld);
        EXPECT_EQ(chown(path_.c_str(), owner, getegid()), 0);
        EXPECT_EQ(chmod(path_.c_str(), 0604), 0);
        if (linked) std::filesystem::create_hard_link(path_, folder_ / "2");

        // A file that may grow no further stands for a full disk. The signal that comes with it would kill the
        // writer, who must see it before anything is written, even if the file is longer than that already.
        for (const rlim_t most : {99u, 9u}) {
            const pid_t writer = support::startChild([&] {
                file_.changeValue("s", "A", std::string(99, 'x').c_str());
                std::signal(SIGXFSZ, SIG_DFL);
                const rlimit limit{most, most};
                setrlimit(RLIMIT_FSIZE, &limit);
                return file_.changeStanzaWithWrite("s");
            });
            EXPECT_EQ(support::resultOf(writer), 0) << most;
        }
        EXPECT_EQ(onDisk(), kOld);
        EXPECT_EQ(std::distance(std::filesystem::directory_iterator(folder_.path()), {}), linked ? 2 : 1);

        EXPECT_TRUE(file_.changeStanzaWithWrite("s"));
        EXPECT_EQ(onDisk(), kChanged);
        EXPECT_EQ(std::filesystem::hard_link_count(path_), linked ? 2u : 1u);  // two: written in place
        struct stat after {};
        EXPECT_EQ(stat(path_.c_str(), &after), 0);
        EXPECT_EQ(after.st_uid, owner);
        EXPECT_EQ(after.st_mode & 07777, 0604u);
    }
}

// As the kernel keeps it: version 2, then tag, permissions and id of the owner, user 65534, the group, the mask and
// the others.
constexpr char kAccessList[] =
    "\2\0\0\0"
    "\1\0\6\0\377\377\377\377"
    "\2\0\6\0\376\377\0\0"
    "\4\0\0\0\377\377\377\377"
    "\x10\0\6\0\377\377\377\377"
    "\x20\0\0\0\377\377\377";

TEST_F(ConfigFileTest, KeepsAnAccessListAndInheritsNone) {
    const auto accessList = [this] {
        std::string bytes(99, '\0');
        const ssize_t size = getxattr(path_.c_str(), "system.posix_acl_access", bytes.data(), bytes.size());
        return bytes.substr(0, size > 0 ? static_cast<std::size_t>(size) : 0);
    };
    for (const char* owner : {"file", "folder"}) {
        support::writeFile(path_, kOld);
        const bool isFiles = std::string(owner) == "file";
        const std::string holder = isFiles ? path_ : folder_.path();
        const char* name = isFiles ? "system.posix_acl_access" : "system.posix_acl_default";
        if (setxattr(holder.c_str(), name, kAccessList, sizeof kAccessList, 0) != 0)
            GTEST_SKIP() << "no access lists here";
        const std::string before = accessList();
        EXPECT_TRUE(file_.changeStanzaWithWrite("s"));
        EXPECT_EQ(onDisk(), kChanged);
        EXPECT_EQ(accessList(), before) << owner;
        std::filesystem::remove(path_);
    }
}

TEST_F(ConfigFileTest, RemovesWhatKilledWritersLeft) {
    const std::pair<const char*, bool> files[] = {
        {".clients.ini.aB3xyz", false}, {".clients.ini.aB3xy-", true}, {".clients.ini.aB3xyzz", true},
        {".other.ini.aB3xyz", true},    {".clients.ini.NEWone", true},
    };
    support::writeFile(path_, kOld);
    std::filesystem::create_directory(folder_ / ".clients.ini.Folder");
    for (const auto& [name, stays] : files) {
        support::writeFile(folder_ / name, "");
        if (std::string(name) != ".clients.ini.NEWone")
            std::filesystem::last_write_time(
                folder_ / name, std::filesystem::file_time_type::clock::now() - std::chrono::minutes(61));
    }
    EXPECT_TRUE(file_.changeStanzaWithWrite("s"));
    for (const auto& [name, stays] : files)
        EXPECT_EQ(std::filesystem::exists(folder_ / name), stays) << name;
    EXPECT_TRUE(std::filesystem::exists(folder_ / ".clients.ini.Folder"));
}

TEST_F(ConfigFileTest, WaitsForNobodyAtTheOtherEndOfAPipe) {
    ASSERT_EQ(mkfifo(path_.c_str(), 0600), 0);
    EXPECT_FALSE(file_.parseConfigFile());
    EXPECT_STREQ(file_.lastParseError().reason, "not a regular file");
    EXPECT_FALSE(file_.writeFile(false));
    EXPECT_EQ(file_.getModificationDate(), 0);
}

// Such a file of the system says that it has a page's size, and has less.
TEST(ConfigFileOfTheSystem, IsRefusedAsAFileThatChanges) {
    ConfigFile file("/sys/devices/system/cpu/possible", "s");
    EXPECT_FALSE(file.parseConfigFile());
    EXPECT_STREQ(file.lastParseError().reason, "the file changed while it was read");
}

// Whoever completes a section sees what others wrote since he read the file.
TEST_F(ConfigFileTest, CompletesAStanzaWithWhatItStillLacks) {
    const auto complete = [](Stanza& stanza, bool isNew) {
        return (isNew || !stanza.findValue("A")) && stanza.addValue("A", "1");
    };
    const struct {
        std::string before, after;
        bool done;
    } cases[] = {
        {kHead + "\n", kHead + "s=\n\n[s]\nA=1\n\n", true},
        {kHead + "s=\n\n[s]\nB=2\n", kHead + "s=\n\n[s]\nA=1\nB=2\n\n", true},
        {";kept\n" + kOld, ";kept\n" + kOld, true},
        {"[other]\n", "[other]\n", false},  // nothing can be listed
    };
    for (const auto& c : cases) {
        support::writeFile(path_, c.before);
        EXPECT_EQ(file_.completeStanzaWithWrite("s", complete), c.done) << c.before;
        EXPECT_EQ(onDisk(), c.after);
        CText value;
        EXPECT_TRUE(file_.getValue("s", "A", value)) << c.before;
    }
}

TEST_F(ConfigFileTest, ManyProcessesAddTheirSectionsAtOnce) {
    constexpr std::uint32_t kWriters = 24, kReaders = 200;
    const auto addSection = [this](std::uint32_t number) {
        // A thread of the writer looks at the file meanwhile, as a reloading host does.
        const auto looking = std::async(std::launch::async, [this] {
            for (int i = 0; i < 100; ++i)
                file_.getModificationDate();
        });
        ConfigFile file(path_.c_str(), "Velarto Client Definitions");
        const std::string name = "client" + std::to_string(number);
        return file.parseConfigFile() && file.addStanza(new Stanza(name.c_str()), true) &&
               file.changeStanzaWithWrite(name.c_str());
    };
    // Whoever reads meanwhile sees whole files only, none with fewer sections than the one before.
    const auto readOn = [this] {
        for (std::uint32_t i = 0, seen = 0; i < 5; ++i) {
            if (!file_.parseConfigFile() || file_.getNumberOfStanzas() < seen) return false;
            seen = file_.getNumberOfStanzas();
        }
        return true;
    };
    for (const bool linked : {false, true}) {
        support::writeFile(path_, kHead);
        if (linked) std::filesystem::create_hard_link(path_, folder_ / "2");
        std::vector<pid_t> children;
        for (std::uint32_t i = 0; i < kWriters + kReaders; ++i)
            children.push_back(support::startChild([&] { return i < kWriters ? addSection(i) : readOn(); }));
        for (const pid_t child : children)
            EXPECT_EQ(support::resultOf(child), 1);
        EXPECT_TRUE(file_.parseConfigFile());
        for (std::uint32_t i = 0; i < kWriters; ++i)
            EXPECT_NE(file_.getStanzaAtIndex(i), nullptr);
    }
}

TEST(ConfigPath, ComesFromTheProfileWhenTheEnvironmentHasNone) {
    unsetenv("VELARTO_PATH");
    CText path;
    support::writeFile(velartoHome / ".cshrc", "setenv VELARTO_PATH /srv/v");
    EXPECT_TRUE(ConfigFile::buildConfigPath("clients.ini", path));
    EXPECT_STREQ(path.GetTextEx(), "/srv/v/configuration/clients.ini");
    support::writeFile(velartoHome / ".profile",
                       "VELARTO_PATH\nVELARTO_PATH=\n# VELARTO_PATH=/v1/\nVELARTO_PATH=/v2");
    EXPECT_TRUE(ConfigFile::buildConfigPath("clients.ini", path));
    EXPECT_STREQ(path.GetTextEx(), "/v1/configuration/clients.ini");
    setenv("VELARTO_PATH", std::string(5000, 'p').c_str(), 1);
    EXPECT_FALSE(ConfigFile::buildConfigPath("clients.ini", path)) << "too long";
}
