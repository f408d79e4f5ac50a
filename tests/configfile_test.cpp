// ConfigFile: syntax, look-ups, merging, writing back with many writers and with failing system calls,
// location.
#include "config/ConfigFile.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <pwd.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <functional>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "config/ConfigParser.h"
#include "eventlog/eventlog.h"
#include "support/TempDir.h"

// ---- system calls that a test can make fail ----

namespace {

std::atomic<int> callsUntilFailure{0};  // the call that counts it down to 0 fails
std::atomic<bool> shortWrites{false};
const char* velartoHome = nullptr;  // null: there is no such user
int userLookUps = 0;

bool failsNow() {
    errno = EIO;
    return callsUntilFailure > 0 && --callsUntilFailure == 0;
}

template <class Function>
Function real(const char* name) {
    return reinterpret_cast<Function>(dlsym(RTLD_NEXT, name));
}

}  // namespace

extern "C" {

ssize_t pwrite(int fd, const void* bytes, std::size_t size, off_t offset) {
    static const auto call = real<ssize_t (*)(int, const void*, std::size_t, off_t)>("pwrite64");
    if (failsNow()) return -1;
    return call(fd, bytes, shortWrites ? std::min<std::size_t>(size, 100) : size, offset);
}

int ftruncate(int fd, off_t size) noexcept {
    static const auto call = real<int (*)(int, off_t)>("ftruncate64");
    return failsNow() ? -1 : call(fd, size);
}

int posix_fallocate(int fd, off_t offset, off_t size) {
    static const auto call = real<int (*)(int, off_t, off_t)>("posix_fallocate64");
    return failsNow() ? ENOSPC : call(fd, offset, size);
}

int fsync(int fd) {
    static const auto call = real<int (*)(int)>("fsync");
    return failsNow() ? -1 : call(fd);
}

int fchown(int fd, uid_t user, gid_t group) noexcept {
    static const auto call = real<int (*)(int, uid_t, gid_t)>("fchown");
    return failsNow() ? -1 : call(fd, user, group);
}

int mkostemp(char* name, int flags) {
    static const auto call = real<int (*)(char*, int)>("mkostemp64");
    return failsNow() ? -1 : call(name, flags);
}

int rename(const char* from, const char* to) noexcept {
    static const auto call = real<int (*)(const char*, const char*)>("rename");
    return failsNow() ? -1 : call(from, to);
}

int getpwnam_r(const char*, passwd* entry, char*, std::size_t, passwd** result) {
    ++userLookUps;
    entry->pw_dir = const_cast<char*>(velartoHome);
    *result = velartoHome != nullptr ? entry : nullptr;
    return 0;
}

}  // extern "C"

namespace {

constexpr char kDirectory[] = "Velarto Client Definitions";

const std::string kShopAndAdmin =
    "[Velarto Client Definitions]\nadmin=\nshop=\n\n"
    "[shop]\nGreeting = Hello\\nWorld\nVELARTO_SERVER=10.0.0.5,18155:10.0.0.6,18155\n\n"
    "[admin]\nVELARTO_SERVER=127.0.0.1,18155\n\n";

class ConfigFileTest : public ::testing::Test {
  protected:
    void write(const std::string& text) { support::writeFile(path_, text); }
    std::string onDisk() const { return support::readFile(path_); }

    // All that the object holds, in the file's syntax and order.
    static std::string imageOf(ConfigFile& file) {
        ::testing::internal::CaptureStderr();
        EXPECT_TRUE(file.dump());
        return ::testing::internal::GetCapturedStderr();
    }

    // The names in the folder, joined.
    std::string inFolder() const {
        std::set<std::string> names;
        for (const auto& entry : std::filesystem::directory_iterator(folder_.path()))
            names.insert(entry.path().filename());
        std::string joined;
        for (const std::string& name : names)
            joined += name + " ";
        return joined;
    }

    // The messages that action reports, without the times in front of them.
    std::string reported(const std::function<void()>& action) const {
        const support::TempDir logs;
        EXPECT_TRUE(OpenSystemEventLog((logs / "log").c_str(), nullptr));
        action();
        EXPECT_TRUE(CloseSystemEventLog());
        std::string text = support::readFile(logs / "log"), messages;
        const std::string label = "CONFIG     ERROR    ";
        for (std::size_t at = 0; (at = text.find(label, at)) != std::string::npos;) {
            at += label.size();
            messages += text.substr(at, text.find('\n', at) + 1 - at);
        }
        return messages;
    }

    // Runs action in a process of its own: its exit status, or the signal that ended it plus 1000.
    static pid_t start(const std::function<bool()>& action) {
        const pid_t child = fork();
        if (child == 0) _exit(action() ? 0 : 1);
        return child;
    }
    static int end(pid_t child) {
        int status = 0;
        EXPECT_EQ(waitpid(child, &status, 0), child);
        return WIFSIGNALED(status) ? 1000 + WTERMSIG(status) : WEXITSTATUS(status);
    }

    const support::TempDir folder_;
    const std::string path_ = folder_ / "clients.ini";
};

struct ParseCase {
    std::string text;
    std::string image;    // as read, or as far as it was read
    std::string error{};  // "line:column"; empty: the file parses
};

std::string repeated(std::size_t n, char c) {
    return std::string(n, c);
}

}  // namespace

// ---- syntax ----

TEST_F(ConfigFileTest, ParsesOrRefuses) {
    using namespace std::string_literals;
    const ParseCase cases[] = {
        {"; client definitions\n[Velarto Client Definitions]\nshop=\nadmin=\n\n"
         "[shop]\nVELARTO_SERVER=10.0.0.5,18155:10.0.0.6,18155\nGreeting = Hello\\nWorld\n\n"
         "[admin]\nVELARTO_SERVER=127.0.0.1,18155\n",
         kShopAndAdmin},
        // structure
        {"\n; nothing", ""},
        {"[a]\nk=v", "[a]\nk=v\n\n"},
        {"[a]\n\n\n; note\n ; note\n[b]\n\n[B]\n", "[a]\n\n[b]\n\n[B]\n\n"},
        {"[a]; note\nk=v\n;note\n[b] ;note\n", "[a]\nk=v\n\n[b]\n\n"},
        {" [a]\n\tk=v\n", "[a]\nk=v\n\n"},
        {"[a]\nk=1\nK=2\nk=1\n", "[a]\nk=1\nK=2\nk=1\n\n"},
        {"[a]\nk=v\n\n[b]\nx=y\n[c]\n", "[a]\nk=v\n\n", "6:1"},
        {"[a]\n[b]\n", "", "2:1"},
        {"[a]", "", "1:4"},
        {"[a", "", "1:3"},
        {"[a] \t\nk=v\n", "[a]\nk=v\n\n"},
        {"[a] =\n", "", "1:5"},
        {"[a] b\n", "", "1:5"},
        {"[a]\r\nk=v\r\n", "", "1:4"},
        {"[a]\n\n  \n[b]\n", "[a]\n\n", "3:3"},
        {"[a]\nk=v\n\t\n", "", "3:2"},
        {"[a]\nk=v\n;note\nx=y\n", "[a]\nk=v\n\n", "4:1"},
        {"k=v\n", "", "1:1"},
        {"\n=\n", "", "2:1"},
        {"[a]\n# k=v\n\n#\n", "[a]\n# k=v\n\n", "4:1"},
        {"[a]\n#\n", "", "2:2"},
        // keys and values
        {"[a]\nk = v\nk=a;b=[c]\n", "[a]\nk=a;b=[c]\nk = v\n\n"},
        {"[a]\nk=\nl= \n", "[a]\nk=\nl= \n\n"},
        {"[a]\nk=v\nkey", "[a]\nk=v\n\n"},
        {"key", ""},
        {"[a]\n=v\n", "", "2:1"},
        {"[a]\n =v\n", "[a]\n=v\n\n"},
        {"[a]\nk;x=v\n", "", "2:2"},
        {"[a]\nk[x=v\n", "", "2:2"},
        {"[]\n", "[]\n\n"},
        {"['a' \"b\"]\n'k'=\"v\"\n", "['a' \"b\"]\n'k'=\"v\"\n\n"},
        {"[a]\nk\0x=v\0w\nl=m\n"s, "[a]\nk=v\nl=m\n\n"},
        // escapes; the image shows a backslash doubled
        {"[a\\\\b\nc\\n]\nk\\r=\\\\v\\n\n", "[a\\\\b\\nc\\n]\nk\\r=\\\\v\\n\n\n"},
        {"[a\\]\nx=\\q\ny=a\\\nz=\\", "[a\\\\]\nx=\\\\q\ny=a\\\\\nz=\\\\\n\n"},
        {"[a\\q]\nk\\=v\nl\\[m]=\\;\\=\n", "[a\\\\q]\nk\\\\=v\nl\\\\[m]=\\\\;\\\\=\n\n"},
        {"[a]\nk\\;x=v\n", "", "2:3"},
        {"[a]\nk\\\n", "", "2:3"},
        // limits
        {"[" + repeated(254, 'n') + "]\n\n[" + repeated(255, 'n') + "]\n",
         "[" + repeated(254, 'n') + "]\n\n[]\n\n"},
        {"[a]\n" + repeated(254, 'k') + "=v\n", "[a]\n" + repeated(254, 'k') + "=v\n\n"},
        {"[a]\n" + repeated(255, 'k') + "=v\n", "", "2:1"},
        {"[a]\nk=" + repeated(5000, 'v') + "\nl=m\n", "[a]\nk=" + repeated(4095, 'v') + "\nl=m\n\n"},
        {"[a]\nk=" + repeated(4095, 'v') + "\nl=m\n", "[a]\nk=" + repeated(4095, 'v') + "\nl=m\n\n"},
        {"[a]\nk=" + repeated(4094, 'v') + "\\qx", "[a]\nk=" + repeated(4094, 'v') + "\\\\q\n\n"},
    };
    for (const ParseCase& c : cases) {
        write(c.text);
        ConfigFile file(path_.c_str(), kDirectory);
        EXPECT_EQ(file.parseConfigFile(), c.error.empty()) << c.text;
        EXPECT_EQ(imageOf(file), c.image) << c.text;
        const ParseError error = file.lastParseError();
        EXPECT_EQ(*error.reason == '\0', c.error.empty()) << c.text;
        if (!c.error.empty()) {
            EXPECT_EQ(std::to_string(error.line) + ":" + std::to_string(error.column), c.error) << c.text;
        }
        EXPECT_EQ(file.GetParseTimestamp() != 0, c.error.empty());
    }
}

TEST(ConfigTokenizer, GivesCodesAndTexts) {
    // One code per token, with its text; after "=" the next one is asked for as a value.
    const struct {
        const char* content;
        const char* tokens;
    } cases[] = {
        {"", "1"},
        {"\n;c\n [a b]\t;c", "3 3 4(a b) 3 1"},
        {"  \n", "2() 3 1"},
        {"\t=", "2() 6 5() 1"},
        {"  ", "1"},
        {"k = v \nl", "2(k ) 6 5( v ) 1"},
        {"=\n=", "6 5() 6 5() 1"},
        {"k;\nl[m]", "2(k) 3 2(l) 4(m) 1"},
        {"[]x\n", "4() 2(x) 3 1"},
    };
    for (const auto& c : cases) {
        ConfigTokenizer tokens(c.content, static_cast<std::uint32_t>(std::strlen(c.content)));
        std::string seen;
        int code = 0;
        while (code != ConfigTokenizer::kEndOfFile) {
            code = tokens.getToken(code == ConfigTokenizer::kEquals);
            seen += (seen.empty() ? "" : " ") + std::to_string(code);
            if (code == 2 || code == 4 || code == 5) seen += std::string("(") + tokens.text() + ")";
        }
        EXPECT_EQ(seen, c.tokens) << c.content;
    }
}

TEST_F(ConfigFileTest, ReportsFilesItCannotTakeAndKeepsItsStanzas) {
    const std::string whole = "[a]\nk=" + repeated(131072 - 6, 'v');
    const std::string path = " file " + path_ + "\n";
    const struct {
        std::function<void()> prepare;
        std::string message;
    } cases[] = {
        {[&] { write(""); }, "Invalid size (0) of the file " + path_ + "\n"},
        {[&] { write(whole + "v"); }, "Invalid size (131073) of the file " + path_ + "\n"},
        {[&] { write(whole + whole); }, "Invalid size (262144) of the file " + path_ + "\n"},
        {[&] { unlink(path_.c_str()); }, "[No such file or directory] could not open" + path},
        {[&] { mkdir(path_.c_str(), 0755); }, "[Is a directory] could not read" + path},
    };
    write(whole);
    ConfigFile file(path_.c_str(), kDirectory);
    ASSERT_TRUE(file.parseConfigFile());
    const std::time_t parsed = file.GetParseTimestamp();
    EXPECT_EQ(parsed, file.getModificationDate());
    for (const auto& c : cases) {
        c.prepare();
        EXPECT_EQ(reported([&] { EXPECT_FALSE(file.parseConfigFile()); }), c.message);
        EXPECT_NE(*file.lastParseError().reason, '\0');
        EXPECT_TRUE(file.findStanza("A"));
        EXPECT_EQ(file.GetParseTimestamp(), parsed);
    }
    rmdir(path_.c_str());
    EXPECT_EQ(reported([&] { EXPECT_EQ(file.getModificationDate(), 0); }),
              "[No such file or directory] could not open" + path);
}

// ---- look-ups and changes in memory ----

TEST_F(ConfigFileTest, WalksTheDirectoryInItsOrder) {
    write("[Velarto Client Definitions]\nshop=\nghost=\nadmin=\n\n[admin]\n\n[shop]\n\n[unlisted]\n");
    ConfigFile file(path_.c_str(), kDirectory);
    ASSERT_TRUE(file.parseConfigFile());
    CText name("before");
    EXPECT_EQ(file.getNumberOfStanzas(), 3u);
    EXPECT_FALSE(file.getStanzaInformationIndex(3, name));
    EXPECT_STREQ(name.GetTextEx(), "before");
    EXPECT_EQ(file.getStanzaAtIndex(0), file.getStanza("SHOP"));
    EXPECT_EQ(file.getStanzaAtIndex(1), nullptr);
    EXPECT_TRUE(file.findStanza("Unlisted"));

    EXPECT_TRUE(file.getFirstStanza(name) && name == "shop");
    EXPECT_TRUE(file.getNextStanza(name) && name == "ghost");
    EXPECT_TRUE(file.getNextStanza(name) && name == "admin");
    EXPECT_FALSE(file.getNextStanza(name));
    EXPECT_TRUE(name.IsEmpty());
    EXPECT_TRUE(file.getNextStanza(name) && name == "ghost");
    EXPECT_TRUE(file.getFirstStanza(name) && name == "shop");
}

TEST_F(ConfigFileTest, AddsAndRemovesStanzasAndTheirDirectoryEntries) {
    ConfigFile file(nullptr, kDirectory);
    EXPECT_TRUE(file.createDirectoryStanza() && file.createDirectoryStanza());  // its name is empty too
    EXPECT_EQ(imageOf(file), "[]\n\n");

    ConfigFile named("unused", kDirectory);
    EXPECT_TRUE(named.addStanza(new Stanza("early"), true));
    EXPECT_EQ(named.getNumberOfStanzas(), 0u);
    EXPECT_TRUE(named.createDirectoryStanza() && named.createDirectoryStanza());
    EXPECT_TRUE(named.addStanza(new Stanza("S"), true) && named.addStanza(new Stanza("s"), true));
    EXPECT_TRUE(named.addStanza(new Stanza("t"), false));
    EXPECT_EQ(imageOf(named), "[early]\n\n[Velarto Client Definitions]\nS=\n\n[S]\n\n[s]\n\n[t]\n\n");

    CText value("before");
    EXPECT_FALSE(named.changeValue("none", "k", "v") || named.getValue("none", "k", value));
    EXPECT_TRUE(value.IsEmpty());
    EXPECT_TRUE(named.changeValue("s", "k", "v") && named.getValue("S", "K", value) && value == "v");
    EXPECT_FALSE(named.removeStanza("none"));
    EXPECT_FALSE(named.removeStanza("T"));  // unlisted
    EXPECT_TRUE(named.removeStanza(named.getStanza("s")->getStanzaName()));
    EXPECT_EQ(imageOf(named), "[early]\n\n[Velarto Client Definitions]\n\n[s]\n\n");
    EXPECT_TRUE(named.removeAllStanzas());
    EXPECT_EQ(imageOf(named), "");
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

TEST_F(ConfigWriteTest, AddsANewStanzaAtTheEnd) {
    write("; note\n[Velarto Client Definitions]\nshop=\nadmin=\n\n[shop]\nb=1\nA=\\\\\n\n\n[admin]\n");
    ConfigFile file(path_.c_str(), kDirectory);
    ASSERT_TRUE(file.parseConfigFile());
    auto* added = new Stanza("new");
    file.addStanza(added, true);
    added->addValue("VELARTO_SERVER", "127.0.0.1,18155");
    EXPECT_TRUE(file.changeStanzaWithWrite("NEW"));
    EXPECT_EQ(onDisk(),
              "[Velarto Client Definitions]\nadmin=\nnew=\nshop=\n\n[shop]\nA=\\\\\nb=1\n\n[admin]\n\n"
              "[new]\nVELARTO_SERVER=127.0.0.1,18155\n\n");
    CText name;
    EXPECT_TRUE(file.getFirstStanza(name) && name == "shop");  // the object is not reordered
}

TEST_F(ConfigWriteTest, ChangesMergesAndRemoves) {
    const std::string undirected = "[s]\nA=1\n\n[x]\n\n";
    const struct {
        std::string before;
        std::function<bool(ConfigFile&)> action;
        bool done;
        std::string after;
    } cases[] = {
        {kOld, [](ConfigFile& f) { return f.changeStanzaWithWrite("S"); }, true, kChanged},
        {kOld, [](ConfigFile& f) { return f.writeFile(true); }, true,
         "[Velarto Client Definitions]\nother=\ns=\n\n[s]\nA=3\nB=2\n\n[other]\n\n"},
        {kOld, [](ConfigFile& f) { return f.writeFile(false); }, true,
         "[Velarto Client Definitions]\ns=\n\n[s]\nA=3\n\n"},
        {kOld, [](ConfigFile& f) { return f.changeStanzaWithWrite("none"); }, true, kOld},
        {kOld, [](ConfigFile& f) { return f.removeStanzaWithWrite("s") && !f.findStanza("s"); }, true,
         "[Velarto Client Definitions]\nother=\n\n[other]\n\n"},
        {kOld, [](ConfigFile& f) { return f.removeStanzaWithWrite("other") && f.findStanza("s"); }, true,
         "[Velarto Client Definitions]\ns=\n\n[s]\nA=3\nB=2\n\n"},
        {"[velarto client definitions]\n", [](ConfigFile& f) { return f.writeFile(true); }, true,
         "[velarto client definitions]\ns=\n\n[s]\nA=3\n\n"},
        // Without a directory stanza nothing new can be listed.
        {undirected, [](ConfigFile& f) { return f.writeFile(true); }, false, undirected},
        {undirected, [](ConfigFile& f) { return f.removeStanzaWithWrite("s") || !f.findStanza("s"); }, false,
         undirected},
        {"[x]\n", [](ConfigFile& f) { return f.changeStanzaWithWrite("s"); }, false, "[x]\n"},
        {undirected, [](ConfigFile& f) { return f.changeStanzaWithWrite("s"); }, true, "[s]\nA=3\n\n[x]\n\n"},
        // What cannot be read is not overwritten by a merge.
        {"[s]\nk", [](ConfigFile& f) { return f.writeFile(true); }, false, "[s]\nk"},
        {"[s", [](ConfigFile& f) { return f.changeStanzaWithWrite("s"); }, false, "[s"},
        {"", [](ConfigFile& f) { return f.changeStanzaWithWrite("s"); }, false, ""},
    };
    for (const auto& c : cases) {
        write(c.before);
        ConfigFile file(path_.c_str(), kDirectory);
        file.mergeConfigFiles(file_);  // no effect without a directory
        file.createDirectoryStanza();
        EXPECT_TRUE(file.mergeConfigFiles(file_));
        EXPECT_EQ(c.action(file), c.done) << c.after;
        EXPECT_EQ(onDisk(), c.after);
        EXPECT_EQ(inFolder(), "clients.ini ");
    }
}

TEST_F(ConfigWriteTest, CreatesOnlyWithoutMerging) {
    EXPECT_EQ(reported([&] {
                  EXPECT_FALSE(file_.writeFile(true) || file_.changeStanzaWithWrite("s"));
                  EXPECT_FALSE(file_.removeStanzaWithWrite("s"));
              }),
              [&] {
                  const std::string line = "[No such file or directory] could not open file " + path_ + "\n";
                  return line + line + line;
              }());
    EXPECT_TRUE(file_.findStanza("s"));
    EXPECT_EQ(inFolder(), "");
    const mode_t mask = umask(027);
    EXPECT_TRUE(file_.writeFile(false));
    umask(mask);
    EXPECT_EQ(onDisk(), "[Velarto Client Definitions]\ns=\n\n[s]\nA=3\n\n");
    struct stat status {};
    ASSERT_EQ(stat(path_.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0640u);
    ConfigFile nowhere((folder_ / "none/clients.ini").c_str(), kDirectory);
    EXPECT_FALSE(nowhere.writeFile(false));
}

TEST_F(ConfigWriteTest, KeepsModeOwnerAndLinks) {
    const struct {
        const char* what;
        std::function<void(const char*)> prepare;
        bool replaced;  // by a new file, else written in place
    } cases[] = {
        {"plain", [](const char*) {}, true},
        {"hard link", [this](const char* path) { EXPECT_EQ(link(path, (folder_ / "2").c_str()), 0); }, false},
        {"symbolic link",
         [this](const char* path) {
             EXPECT_EQ(rename(path, (folder_ / "2").c_str()), 0);
             EXPECT_EQ(symlink("2", path), 0);
         },
         false},
    };
    for (const auto& c : cases) {
        write(kOld);
        EXPECT_EQ(chmod(path_.c_str(), 06604), 0);
        c.prepare(path_.c_str());
        struct stat before {
        }, after{}, link{};
        ASSERT_EQ(stat(path_.c_str(), &before), 0);
        const int pinned = open(path_.c_str(), O_RDONLY);  // so that the file's number is not given away
        const std::string names = inFolder();
        EXPECT_TRUE(file_.changeStanzaWithWrite("s"));  // shorter than before
        EXPECT_EQ(onDisk(), kChanged) << c.what;
        file_.changeValue("s", "long", repeated(4000, 'x').c_str());
        EXPECT_TRUE(file_.changeStanzaWithWrite("s"));  // longer
        EXPECT_EQ(onDisk().size(), sizeof kChanged - 1 + 4006) << c.what;
        file_.getStanza("s")->removeKey("long");
        ASSERT_EQ(stat(path_.c_str(), &after), 0);
        ASSERT_EQ(lstat(path_.c_str(), &link), 0);
        EXPECT_EQ(before.st_ino != after.st_ino, c.replaced) << c.what;
        EXPECT_EQ(link.st_ino != after.st_ino, c.what[0] == 's') << c.what;
        EXPECT_EQ(after.st_nlink, before.st_nlink) << c.what;
        EXPECT_EQ(after.st_uid, before.st_uid);
        EXPECT_EQ(after.st_gid, before.st_gid);
        if (c.replaced) {
            EXPECT_EQ(after.st_mode, before.st_mode);
        }
        EXPECT_EQ(inFolder(), names) << c.what;
        close(pinned);
        for (const char* name : {"2", "clients.ini"})
            unlink((folder_ / name).c_str());
    }
}

// For every n: the n-th system call fails (writes are short besides). The file holds the old or the
// new content, as the result says, and no other file is left.
TEST_F(ConfigWriteTest, SurvivesAnyFailingSystemCall) {
    const std::string longValue = repeated(1000, 'x');
    for (const bool plain : {true, false}) {
        for (const bool grows : {true, false}) {
            file_.changeValue("s", "B", grows ? longValue.c_str() : "");
            const std::string changed =
                "[Velarto Client Definitions]\nother=\ns=\n\n[s]\nA=3\nB=" + (grows ? longValue : "") +
                "\n\n[other]\n\n";
            const std::string old = grows ? kOld : kOld + ("[more]\nk=" + longValue + "\n\n");
            int failures = 0;
            bool reached = true;
            for (int n = 1; reached; ++n) {
                ASSERT_LT(n, 200);
                write(old);
                if (!plain) {
                    unlink((folder_ / "2").c_str());
                    ASSERT_EQ(link(path_.c_str(), (folder_ / "2").c_str()), 0);
                }
                shortWrites = true;
                callsUntilFailure = n;
                const bool done = file_.changeStanzaWithWrite("s");
                reached = callsUntilFailure == 0;
                callsUntilFailure = 0;
                shortWrites = false;
                failures += done ? 0 : 1;
                const std::string expected = grows ? changed : changed + ("[more]\nk=" + longValue + "\n\n");
                EXPECT_EQ(onDisk(), done ? expected : old) << n;
                EXPECT_EQ(inFolder(), plain ? "clients.ini " : "2 clients.ini ") << n;
            }
            EXPECT_GT(failures, 5);
        }
    }
}

TEST_F(ConfigWriteTest, FailedCreationLeavesNoFile) {
    for (int n = 1; n < 10; ++n) {
        callsUntilFailure = n;
        const bool done = file_.writeFile(false);
        callsUntilFailure = 0;
        EXPECT_EQ(inFolder(), done ? "clients.ini " : "") << n;
        if (done) {
            EXPECT_EQ(onDisk(), "[Velarto Client Definitions]\ns=\n\n[s]\nA=3\n\n") << n;
        }
        unlink(path_.c_str());
    }
}

// A file that may grow no further stands for a full disk; the signal that comes with it kills the writer
// unless it is ignored.
TEST_F(ConfigWriteTest, FullDiskLeavesTheOldContent) {
    file_.changeValue("s", "B", repeated(5000, 'x').c_str());
    for (const bool plain : {true, false}) {
        for (const rlim_t room : {rlim_t{10}, rlim_t{1000}}) {
            for (const bool killed : {false, true}) {
                write(kOld);
                if (!plain) {
                    ASSERT_EQ(link(path_.c_str(), (folder_ / "2").c_str()), 0);
                }
                const int status = end(start([&] {
                    std::signal(SIGXFSZ, killed ? SIG_DFL : SIG_IGN);
                    const rlimit limit{room, room};
                    setrlimit(RLIMIT_FSIZE, &limit);
                    return file_.changeStanzaWithWrite("s");
                }));
                EXPECT_EQ(status, killed ? 1000 + SIGXFSZ : 1);
                EXPECT_EQ(onDisk(), kOld);
                if (!killed) {
                    EXPECT_EQ(inFolder(), plain ? "clients.ini " : "2 clients.ini ");
                }
                for (const auto& entry : std::filesystem::directory_iterator(folder_.path()))
                    std::filesystem::remove(entry.path());
            }
        }
    }
}

TEST_F(ConfigWriteTest, NeedsARightToWriteTheFileButNotTheFolder) {
    const struct {
        mode_t folder, file;
        bool done;
    } cases[] = {{0555, 0644, true}, {0755, 0444, false}, {0555, 0444, false}};
    for (const auto& c : cases) {
        write(kOld);
        const uid_t user = geteuid() == 0 ? 65534 : geteuid();
        EXPECT_EQ(chown(path_.c_str(), user, static_cast<gid_t>(-1)), 0);
        EXPECT_EQ(chmod(path_.c_str(), c.file), 0);
        EXPECT_EQ(chmod(folder_.path().c_str(), c.folder), 0);
        const std::string messages = reported([&] {
            const auto change = [&] { return setuid(user) == 0 && file_.changeStanzaWithWrite("s"); };
            EXPECT_EQ(end(start(change)), c.done ? 0 : 1);
        });
        EXPECT_EQ(chmod(folder_.path().c_str(), 0755), 0);
        EXPECT_EQ(onDisk(), c.done ? kChanged : kOld);
        EXPECT_EQ(messages, c.done ? "" : "[Permission denied] could not open file " + path_ + "\n");
        unlink(path_.c_str());
    }
}

TEST_F(ConfigWriteTest, WaitingLockerTakesTheFileThatWasRenamedOver) {
    for (const bool writes : {true, false}) {
        write("[Velarto Client Definitions]\n");
        const int held = open(path_.c_str(), O_RDWR);
        struct flock lock {};
        lock.l_type = F_WRLCK;
        ASSERT_EQ(fcntl(held, F_SETLK, &lock), 0);
        const pid_t waiting = start([&] {
            close(held);
            if (writes) return file_.writeFile(true);
            return file_.parseConfigFile() && file_.findStanza("other");
        });
        const auto isWaiting = [&] {
            std::ifstream locks("/proc/locks");
            for (std::string line; std::getline(locks, line);) {
                if (line.find("->") != std::string::npos &&
                    line.find(" " + std::to_string(waiting) + " ") != std::string::npos)
                    return true;
            }
            return false;
        };
        for (int i = 0; i < 5000 && !isWaiting(); ++i)
            usleep(1000);
        EXPECT_TRUE(isWaiting());
        support::writeFile(folder_ / "new", kOld);
        ASSERT_EQ(rename((folder_ / "new").c_str(), path_.c_str()), 0);
        close(held);
        EXPECT_EQ(end(waiting), 0);
        if (writes) {
            EXPECT_NE(onDisk().find("A=3\nB=2"), std::string::npos);
        }
    }
}

TEST_F(ConfigWriteTest, ManyProcessesAddTheirStanzasAtOnce) {
    constexpr int kWriters = 8;
    for (const bool plain : {true, false}) {
        write("[Velarto Client Definitions]\n");
        if (!plain) {
            ASSERT_EQ(link(path_.c_str(), (folder_ / "2").c_str()), 0);
        }
        std::vector<pid_t> writers;
        for (int i = 0; i < kWriters; ++i) {
            writers.push_back(start([&] {
                // A thread of the writer looks at the file all the while, as a reloading host does.
                std::atomic<bool> finished{false};
                std::atomic<bool> lost{false};
                std::thread looking([&] {
                    const ConfigFile file(path_.c_str(), kDirectory);
                    while (!finished)
                        lost = file.getModificationDate() == 0 || lost;
                });
                ConfigFile file(path_.c_str(), kDirectory);
                bool done = file.parseConfigFile();
                const std::string name = "client" + std::to_string(i);
                file.addStanza(new Stanza(name.c_str()), true);
                for (int round = 0; round < 5; ++round) {
                    file.changeValue(name.c_str(), "Round", std::to_string(round).c_str());
                    done = file.changeStanzaWithWrite(name.c_str()) && done;
                }
                finished = true;
                looking.join();
                return done && !lost;
            }));
        }
        const pid_t reader = start([&] {
            std::uint32_t seen = 0;
            while (seen < kWriters) {
                ConfigFile file(path_.c_str(), kDirectory);
                if (!file.parseConfigFile() || file.getNumberOfStanzas() < seen) return false;
                seen = file.getNumberOfStanzas();
            }
            return true;
        });
        for (const pid_t writer : writers)
            EXPECT_EQ(end(writer), 0);
        ConfigFile file(path_.c_str(), kDirectory);
        EXPECT_TRUE(file.parseConfigFile());
        EXPECT_EQ(file.getNumberOfStanzas(), std::uint32_t{kWriters});
        for (int i = 0; i < kWriters; ++i) {
            CText round;
            EXPECT_TRUE(file.getValue(("client" + std::to_string(i)).c_str(), "Round", round));
            EXPECT_STREQ(round.GetTextEx(), "4");
        }
        if (file.getNumberOfStanzas() < kWriters) kill(reader, SIGKILL);
        EXPECT_EQ(end(reader), 0);
        EXPECT_EQ(inFolder(), plain ? "clients.ini " : "2 clients.ini ");
    }
}

// ---- location ----

TEST(ConfigPath, ComesFromTheEnvironmentTheProfileOrTheDefault) {
    const std::string fallback = "/usr/local/VelartoServer/5.5";
    const std::string longest = "/" + repeated(236, 'p'), slashed = longest + "/";
    const struct {
        const char* variable;  // null: not set
        const char* profile;   // null: no such file
        const char* cshrc;
        std::string base;
        int lookUps;
    } cases[] = {
        {"/opt/app/", "VELARTO_PATH=/no\n", nullptr, "/opt/app", 0},
        {"/opt/app//", nullptr, nullptr, "/opt/app/", 0},
        {longest.c_str(), nullptr, nullptr, longest, 0},
        {slashed.c_str(), nullptr, nullptr, longest, 0},
        {"", nullptr, nullptr, fallback, 1},
        {nullptr, nullptr, nullptr, fallback, 1},
        {nullptr, "# nothing\n", "setenv VELARTO_PATH /no\n", fallback, 1},
        {nullptr, "umask 022\nexport VELARTO_PATH=/srv/v\nVELARTO_PATH=/no\n", nullptr, "/srv/v", 1},
        {nullptr, nullptr, "setenv VELARTO_PATH /srv/v", "/srv/v", 1},
        {nullptr, "VELARTO_PATH=/srv/v/\n", nullptr, "/srv/v", 1},
        {nullptr, "VELARTO_PATH='/srv/v'\n", nullptr, "'/srv/v'", 1},
        {nullptr, "# VELARTO_PATH=/old\nVELARTO_PATH=/new\n", nullptr, "/old", 1},
        {nullptr, "VELARTO_PATH\nVELARTO_PATH=\nVELARTO_PATH=/v\n", nullptr, "/v", 1},
        {nullptr, "VELARTO_PATH", nullptr, fallback, 1},
    };
    for (const auto& c : cases) {
        const support::TempDir home;
        velartoHome = home.path().c_str();
        userLookUps = 0;
        c.variable != nullptr ? setenv("VELARTO_PATH", c.variable, 1) : unsetenv("VELARTO_PATH");
        if (c.profile != nullptr) support::writeFile(home / ".profile", c.profile);
        if (c.cshrc != nullptr) support::writeFile(home / ".cshrc", c.cshrc);
        CText path;
        EXPECT_TRUE(ConfigFile::buildConfigPath("clients.ini", path));
        EXPECT_EQ(path.GetTextEx(), c.base + "/configuration/clients.ini");
        EXPECT_EQ(userLookUps, c.lookUps);
    }
    velartoHome = nullptr;
    unsetenv("VELARTO_PATH");
    char buffer[44];
    EXPECT_TRUE(ConfigFile::getPlatformConfigPath(buffer, 44));
    EXPECT_STREQ(buffer, "/usr/local/VelartoServer/5.5/configuration/");
    EXPECT_FALSE(ConfigFile::getPlatformConfigPath(buffer, 43));

    setenv("VELARTO_PATH", (longest + "p").c_str(), 1);
    CText untouched("before");
    EXPECT_FALSE(ConfigFile::buildConfigPath("clients.ini", untouched));
    EXPECT_STREQ(untouched.GetTextEx(), "before");
    setenv("VELARTO_PATH", "/v", 1);
    EXPECT_FALSE(ConfigFile::getPlatformConfigPath(buffer, 19));
    EXPECT_TRUE(ConfigFile::getPlatformConfigPath(buffer, 20));
    EXPECT_STREQ(buffer, "/v/configuration/");
}
