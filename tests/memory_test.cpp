// What is left when memory runs out: every scenario runs again and again, and each time another of its
// allocations fails, alone or with all that follow it, until none is left to fail.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cassert>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <new>
#include <string>

#include "cgi/VeHttpResponse.h"
#include "client/ConfigClnt.h"
#include "protocol/QuilClient.h"
#include "support/Attributes.h"
#include "support/FakeTransport.h"
#include "support/TempDir.h"
#include "support/Wire.h"

static struct {
    bool isScarce, failsOn, hasFailed;
    long failing, allocations, blocks;  // the number of the one that fails, from 0; blocks in use
} heap;

constexpr long kNever = 1L << 30;
constexpr int kDone = 0, kHeld = 10, kStopped = 11;  // exit statuses of a scenario

extern "C" {
// The allocator beneath: the C library's, or an address sanitizer's in its place.
void* __libc_realloc(void*, std::size_t);
void __libc_free(void*);
[[gnu::weak]] void* __interceptor_realloc(void*, std::size_t);
[[gnu::weak]] void __interceptor_free(void*);

// Lists stop the process when there is no memory for an item; nothing else does.
void __assert_fail(const char*, const char*, unsigned, const char* function) noexcept {
    _exit(std::strstr(function, "insertAtTail") != nullptr ? kStopped : 1);
}
}

static void* take(void* old, std::size_t size) {
    const long later = heap.isScarce ? heap.allocations++ - heap.failing : -1;
    if (later == 0 || (later > 0 && heap.failsOn)) {
        heap.hasFailed = true;
        errno = ENOMEM;
        return nullptr;
    }
    if (old == nullptr) ++heap.blocks;
    return __interceptor_realloc != nullptr ? __interceptor_realloc(old, size) : __libc_realloc(old, size);
}

static void give(void* block) {
    if (block != nullptr) --heap.blocks;
    __interceptor_free != nullptr ? __interceptor_free(block) : __libc_free(block);
}

// The operators new and delete end here too, but for those of an address sanitizer.
extern "C" {
void* malloc(std::size_t size) noexcept {
    return take(nullptr, size);
}
void* calloc(std::size_t n, std::size_t size) noexcept {
    void* block = take(nullptr, n * size);
    return block != nullptr ? std::memset(block, 0, n * size) : nullptr;
}
void* realloc(void* old, std::size_t size) noexcept {
    return take(old, size);
}
void free(void* block) noexcept {
    give(block);
}
}

namespace {

namespace wire = support::wire;

// Says whether all was done as with memory in plenty, and expects what must hold in any case.
using Scenario = bool (*)();

// In a process of its own, which an assertion may end. An exception stops it, too: nothing here may throw.
[[noreturn]] void runScenario(Scenario scenario) noexcept {
    const long blocks = heap.blocks;
    EXPECT_TRUE(scenario() || heap.hasFailed);
    EXPECT_EQ(heap.blocks, blocks) << "a leak";
    std::fflush(stdout);
    _exit(testing::Test::HasFailure() ? 1 : heap.hasFailed ? kHeld : kDone);
}

void failEveryAllocation(Scenario scenario) {
    heap.failing = kNever;
    ASSERT_TRUE(scenario());  // also because what it makes once, and keeps, is no leak later
    for (const bool failsOn : {false, true}) {
        int status = kHeld;
        for (long n = 0; status != kDone; ++n) {
            heap = {false, failsOn, false, n, 0, heap.blocks};
            std::fflush(stdout);
            const pid_t child = fork();
            if (child == 0) runScenario(scenario);
            ASSERT_EQ(waitpid(child, &status, 0), child);
            status = WIFEXITED(status) ? WEXITSTATUS(status) : 1000 + WTERMSIG(status);
            ASSERT_TRUE(status == kDone || status == kHeld || status == kStopped) << n << ": " << status;
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

const std::string kLong(999, 'n'), kHuge(3 << 20, 'h');
const CText kShop("shop"), kNew("new"), kD("D");
const Attribute kList("list", "short:longer than before");
constexpr bool kMayCut = true;

bool isPrefix(const std::string& part, const std::string& whole) {
    return whole.compare(0, part.size(), part) == 0;
}

// The old content stays, or what fits of the new is stored.
template <class Block>
bool changes(void (*change)(Block&), bool mayCut = false) {
    Block block, whole;
    block.SetEqualTo("old", 3, 0);
    whole = block;
    change(whole);
    scarcely([&] { return change(block), true; });
    const std::string content(reinterpret_cast<char*>(block.GetBuffer()), block.GetUsableDataSize());
    const bool isPart = whole.CData::GetDataSize() >= content.size() &&
                        std::memcmp(whole.GetBuffer(), content.data(), content.size()) == 0;
    EXPECT_TRUE(block.Equals(whole) || content == "old" || (mayCut && isPart)) << content;
    return block.Equals(whole);
}

struct Client : support::FakeTransport<QuilClient> {
    std::string sent, seen, server;

    Client() { sent.reserve(1 << 16), seen.reserve(kHuge.size() + 100); }
    std::uint32_t writeToTransport(const void* src, std::uint32_t n) override {
        sent.append(static_cast<const char*>(src), n);
        return n;
    }
    bool connectToServer(const char* host, const char* port) override {
        server.assign(host).append(",").append(port);
        return true;
    }
    bool send(Stanza& section) {
        TQuilRequest request;
        return request.SetParamAttribute(QUIL_PARAM_QUERY_STRING, kLong.c_str()) &&
               ConnectToQuilServer(&request, &section, "shop", true) && SendQuilRequest(&request);
    }
    bool dispatch() {
        const DispatchCallback see = [](QuilClient&, TQUILReqType, const char* data, std::uint32_t n,
                                        void* text) {
            static_cast<std::string*>(text)->append(data, n).append("|");
            return true;
        };
        return DispatchQuilRequests(see, &seen, false);
    }
};

const int inMemory = setenv("TMPDIR", "/dev/shm", 1);  // a thousand files, none of which need reach a disk
const support::TempDir folder;
const std::string kPath = folder / "clients.ini";
const std::string kOld = "[All]\nshop=\n\n[shop]\nCOLOUR=red\nSIZE=" + kLong + "\n\n";

// A section is whole or not there.
bool parses(bool (*parse)(ConfigFile&)) {
    support::writeFile(kPath, kOld);
    ConfigFile file(kPath.c_str(), "All");
    const bool done = scarcely([&] { return parse(file); });
    CText size;
    EXPECT_EQ(file.findStanza(kShop), file.getValue(kShop, "SIZE", size) && size == kLong.c_str());
    EXPECT_EQ(done, *file.lastParseError().reason == '\0');
    return done;
}

bool addsTheClient(ConfigFile& file) {
    Stanza* added = nullptr;
    return ProcessClientConfig(&file, kNew, added) == CLIENT_CONFIG_OK;
}

// The file is the old or the new one, and alone in its folder.
bool writes(bool (*write)(ConfigFile&)) {
    std::string written;
    bool done = false;
    for (const bool isScarce : {false, true}) {
        support::writeFile(kPath, kOld);
        ConfigFile file(kPath.c_str(), "All");
        file.parseConfigFile();
        file.changeValue(kShop, "COLOUR", kLong.c_str());
        done = isScarce ? scarcely([&] { return write(file); }) : write(file);
        if (!isScarce) written = support::readFile(kPath);
    }
    EXPECT_TRUE(support::readFile(kPath) == (done ? written : kOld)) << done;
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(folder.path()), {}), 1);
    return done;
}

#define SCENARIO(name)             \
    bool name();                   \
    TEST(MemoryRunsOut, name) {    \
        failEveryAllocation(name); \
    }                              \
    bool name()

SCENARIO(InLists) {
    const AttributeList more = support::listOf({{"a", kLong.c_str()}, {"b", kLong.c_str()}});
    AttributeList list = support::listOf({{"a", "n"}}), copy;
    scarcely([&] { return list.mergeAttributeList(more) && (copy = list).addAttribute("c", &kLong[0]); });
    bool isWhole = copy.length() == 3;
    for (std::uint32_t i = 0; i < copy.length(); ++i) {
        const CText& value = copy.attributeAt(i)->value();
        EXPECT_TRUE(isPrefix(value.GetTextEx(), kLong));
        isWhole = isWhole && value == kLong.c_str();
    }
    return isWhole;
}

SCENARIO(InUnmarshalling) {
    Client client;
    client.input = wire::number(1) + wire::counted("key") + wire::counted(kHuge);
    AttributeList* list = nullptr;
    const bool done = scarcely([&] { return client.unmarshallAttributeList(list); });
    EXPECT_TRUE(!done || kHuge == list->getValue("key"));
    delete list;
    return done;
}

SCENARIO(InConnectingAndSending) {
    Client client, model;
    Stanza section("shop");
    section.addValue("VELARTO_SERVER", "A001,10.0.0.1,1:A002,10.0.0.22,2");
    model.send(section);
    const bool done = scarcely([&] { return client.send(section); });
    EXPECT_TRUE(!done || client.server == "10.0.0.1,1" || client.server == "10.0.0.22,2");
    EXPECT_TRUE(client.sent == (done ? model.sent : ""));  // nothing that lacks something
    return done;
}

SCENARIO(InDispatching) {
    support::writeFile(kPath, kOld);
    Client client, model;
    const std::string messages[] = {wire::header("H"), wire::body(kHuge), wire::fileRequest(kPath),
                                    wire::end()};
    for (Client* one : {&client, &model}) {
        for (const std::string& message : messages)
            one->cuts.insert((one->input += message).size());
    }
    model.dispatch();
    const bool done = scarcely([&] { return client.dispatch(); });
    EXPECT_TRUE(done ? client.seen == model.seen : isPrefix(client.seen, model.seen));
    return done && client.sent == model.sent;  // else the file was refused
}

SCENARIO(InAResponseHeader) {
    const std::string text = "HTTP/1.0 200 OK\r\nA:1\r\nB:" + kLong + "\r\n\r\n";
    void* response = nullptr;
    scarcely([&] { return (response = VeHttpParseResponse(text.c_str(), true)) != nullptr; });
    const bool done = response != nullptr && scarcely([&] { return VeHttpGetFieldInfo(response, 1); });
    EXPECT_EQ(VeHttpGetFieldCount(response), response != nullptr ? 2u : 0u);
    EXPECT_TRUE(response == nullptr || (done ? kLong : "") == VeHttpGetFieldValue(response, nullptr));
    VeHttpReleaseResponse(response);
    return done;
}

TEST(MemoryRunsOut, InOneOperation) {
    const Scenario scenarios[] = {
        [] { return changes<CData>([](CData& d) { d.SetBufferSize(99); }); },
        [] { return changes<CData>([](CData& d) { d.SetEqualTo(&kLong[0], 99, 0); }, kMayCut); },
        [] { return changes<CData>([](CData& d) { d.Replace(1, 1, &kLong[0], 99); }); },
        [] { return changes<CData>([](CData& d) { d.Replace(1, 0, d); }); },
        [] { return changes<CText>([](CText& t) { t = kLong.c_str(); }, kMayCut); },
        [] { return changes<CText>([](CText& t) { t += kLong.c_str(); }); },
        [] { return changes<CText>([](CText& t) { t.Format("%99d", 1); }, kMayCut); },
        [] { return changes<CText>([](CText& t) { t.Pad('p', 99, false); }); },
        [] { return changes<CText>([](CText& t) { t.ReplaceAll(kD, kShop, false); }); },
        [] { return changes<CText>([](CText& t) { kList.getValueListElement(1, t); }); },
        [] { return parses([](ConfigFile& file) { return file.parseConfigFile(); }); },
        [] { return parses([](ConfigFile& file) { return file.parseStanza(kShop); }); },
        [] { return writes([](ConfigFile& file) { return file.writeFile(false); }); },
        [] { return writes([](ConfigFile& file) { return file.writeFile(true); }); },
        [] { return writes([](ConfigFile& file) { return file.changeStanzaWithWrite("shop"); }); },
        [] { return writes([](ConfigFile& file) { return file.removeStanzaWithWrite("shop"); }); },
        [] { return writes([](ConfigFile& file) { return addsTheClient(file); }); },
    };
    for (const Scenario& scenario : scenarios) {
        SCOPED_TRACE(&scenario - scenarios);
        ASSERT_NO_FATAL_FAILURE(failEveryAllocation(scenario));
    }
}

}  // namespace
