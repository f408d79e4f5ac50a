// What is left when memory runs out: every scenario runs again and again, and each time another of its
// allocations fails, alone or with all that follow it, until none is left to fail.
#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <filesystem>
#include <string>

#include "config/ConfigFile.h"
#include "eventlog/eventlog.h"
#include "protocol/QuilClient.h"
#include "support/Concurrent.h"
#include "support/FakeTransport.h"
#include "support/TempDir.h"
#include "support/Wire.h"

static struct {
    bool isScarce, failsOn, hasFailed;
    long left, blocks;  // allocations until one fails; blocks in use
} heap;

constexpr int kDone = 0, kHeld = 10;  // exit statuses of a scenario

extern "C" {
// The allocator beneath: the C library's, or an address sanitizer's in its place.
void* __libc_realloc(void*, std::size_t);
void __libc_free(void*);
[[gnu::weak]] void* __interceptor_realloc(void*, std::size_t);
[[gnu::weak]] void __interceptor_free(void*);

// Lists stop the process when there is no memory for an item; nothing else does.
void __assert_fail(const char*, const char*, unsigned, const char* function) noexcept {
    _exit(std::strstr(function, "insertAtTail") != nullptr ? kHeld : 1);
}

void* take(void* old, std::size_t size) {
    if (heap.isScarce && --heap.left < 0 && (heap.failsOn || !heap.hasFailed)) {
        heap.hasFailed = true;
        return nullptr;
    }
    if (old == nullptr) ++heap.blocks;
    return __interceptor_realloc != nullptr ? __interceptor_realloc(old, size) : __libc_realloc(old, size);
}

// The operators new and delete end here too, but for those of an address sanitizer.
void* malloc(std::size_t size) noexcept {
    return take(nullptr, size);
}
void* calloc(std::size_t n, std::size_t size) noexcept {
    void* block = take(nullptr, n * size);
    return block != nullptr ? std::memset(block, 0, n * size) : nullptr;
}
[[gnu::alias("take")]] void* realloc(void* old, std::size_t size) noexcept;
void free(void* block) noexcept {
    if (block != nullptr) --heap.blocks;
    __interceptor_free != nullptr ? __interceptor_free(block) : __libc_free(block);
}
}

namespace {

// Says whether all was done as with memory in plenty, and expects what must hold in any case.
using Scenario = bool (*)();

void failEveryAllocation(Scenario scenario) {
    heap.left = 1L << 30;
    ASSERT_TRUE(scenario());  // also because what it makes once, and keeps, is no leak later
    // In a process of its own, which an assertion may end. An exception stops it, too: nothing may throw.
    const auto run = [&]() noexcept {
        const long blocks = heap.blocks;
        EXPECT_TRUE(scenario() || heap.hasFailed);
        EXPECT_EQ(heap.blocks, blocks) << "a leak";
        return testing::Test::HasFailure() ? 1 : heap.hasFailed ? kHeld : kDone;
    };
    for (const bool failsOn : {false, true}) {
        int status = kHeld;
        for (long n = 0; status != kDone; ++n) {
            heap = {false, failsOn, false, n, heap.blocks};
            status = support::resultOf(support::startChild(run));
            ASSERT_TRUE(status == kDone || status == kHeld) << n << ": " << status;
        }
    }
}

// The step of a scenario in which allocations fail; nothing of the test's own allocates there.
template <class Operation>
bool scarcely(Operation operation) {
    heap.isScarce = true;
    const bool done = operation();
    heap.isScarce = false;
    return done;
}

const std::string kLong(999, 'n');
const CText kShop("shop"), kD("D");

// The old content stays; of what is assigned, what fits may be stored.
template <class Block, bool kMayCut = false, class Change>
bool changes(Change change) {
    Block block;
    block.SetEqualTo("old", 3, 0);
    scarcely([&] { return change(block), true; });
    const std::string content(reinterpret_cast<char*>(block.GetBuffer()), block.GetUsableDataSize());
    static const std::string whole = content;  // of the first time, with memory in plenty
    EXPECT_TRUE(content == whole || content == "old" || (kMayCut && whole.rfind(content, 0) == 0)) << content;
    return content == whole;
}

struct Client : support::FakeTransport<QuilClient> {
    std::uint32_t sent = 0;  // a request goes out in one piece

    std::uint32_t writeToTransport(const void*, std::uint32_t n) override { return sent = n; }
    bool connectToServer(const char*, const char*) override { return true; }
};

bool sends() {
    Client client;
    const bool done = scarcely([&] {
        TQuilRequest request;
        return request.SetParamAttribute(QUIL_PARAM_QUERY_STRING, kLong.c_str()) &&
               client.SendQuilRequest(&request);
    });
    static const std::uint32_t whole = client.sent;
    EXPECT_EQ(client.sent, done ? whole : 0);  // nothing that lacks something
    return done;
}

bool unmarshallsAList() {
    Client client;
    const std::string huge(3 << 20, 'h');
    client.input = support::wire::number(1) + support::wire::counted("key") + support::wire::counted(huge);
    AttributeList* list = nullptr;
    const bool done = scarcely([&] { return client.unmarshallAttributeList(list); });
    EXPECT_TRUE(!done || list->getValue("key") == huge);
    delete list;
    return done;
}

// A thousand files, none of which need reach a disk.
const bool inMemory = std::filesystem::is_directory("/dev/shm") && setenv("TMPDIR", "/dev/shm", 1) == 0;
const support::TempDir folder;
const std::string kPath = folder / "clients.ini", kForeign = folder / "backup";
const std::string kOld = "[All]\nshop=\n\n[shop]\nCOLOUR=red\nSIZE=" + kLong + "\n\n";

bool opensTheEventLog() {
    static unsigned runs = 0;
    const std::string path = folder / std::string(++runs * 99, 'l');  // longer than the one before
    const bool done = scarcely([&] { return OpenSystemEventLog(path.c_str(), nullptr); });
    EXPECT_EQ(CloseSystemEventLog(), done);
    EXPECT_EQ(std::filesystem::remove(path), done);
    return done;
}

// The file on disk is the old or the new one; a section is whole or not there; an old file of somebody else's
// stays. Lists grow and are copied on the way.
template <class Operation>
bool readsOrWrites(Operation operation) {
    support::writeFile(kPath, kOld);
    support::writeFile(kForeign, "");
    std::filesystem::last_write_time(kForeign,
                                     std::filesystem::file_time_type::clock::now() - std::chrono::hours(2));
    ConfigFile file(kPath.c_str(), "All");
    file.parseConfigFile();
    file.changeValue(kShop, "COLOUR", kLong.c_str());
    const bool done = scarcely([&] { return operation(file); });
    CText size;
    const bool isThere = file.getValue(kShop, "SIZE", size) && size == kLong.c_str();
    const std::string written = support::readFile(kPath);
    static const auto whole = std::pair(written, isThere);
    EXPECT_TRUE(done ? whole == std::pair(written, isThere) : written == kOld) << done;
    EXPECT_EQ(file.findStanza(kShop), isThere);
    EXPECT_TRUE(std::filesystem::exists(kForeign));
    return done;
}

// As a server list is added: what cannot be made of the section is not added.
bool addsCopy(Stanza& stanza, bool) {
    CText size;
    stanza.getValue("SIZE", size);
    return size == kLong.c_str() && stanza.addValue("COPY", size.GetTextEx());
}

TEST(Memory, MayRunOutInEveryOperation) {
    std::setvbuf(stdout, nullptr, _IONBF, 0);  // a child tells what it finds before its end
    const Scenario scenarios[] = {
        [] { return changes<CData>([](CData& d) { d.Replace(1, 1, &kLong[0], 99); }); },
        [] { return changes<CText, true>([](CText& t) { t = kLong.c_str(); }); },
        [] { return changes<CText>([](CText& t) { t += kLong.c_str(); }); },
        [] { return changes<CText>([](CText& t) { t.ReplaceAll(kD, kShop, false); }); },
        sends,
        unmarshallsAList,
        opensTheEventLog,
        [] { return readsOrWrites([](ConfigFile& file) { return file.parseConfigFile(); }); },
        [] { return readsOrWrites([](ConfigFile& file) { return file.parseStanza(kShop); }); },
        [] { return readsOrWrites([](ConfigFile& file) { return file.writeFile(false); }); },
        [] { return readsOrWrites([](ConfigFile& file) { return file.writeFile(true); }); },
        [] { return readsOrWrites([](ConfigFile& file) { return file.changeStanzaWithWrite("shop"); }); },
        [] { return readsOrWrites([](ConfigFile& file) { return file.removeStanzaWithWrite("shop"); }); },
        [] {
            return readsOrWrites(
                [](ConfigFile& file) { return file.completeStanzaWithWrite(kShop, addsCopy); });
        },
    };
    for (const auto& scenario : scenarios) {
        SCOPED_TRACE(&scenario - scenarios);
        ASSERT_NO_FATAL_FAILURE(failEveryAllocation(scenario));
    }
}

}  // namespace
