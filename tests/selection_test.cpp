// Which servers a client tries, in which order, and the cookies that tell what was chosen.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <ctime>
#include <set>
#include <string>
#include <vector>

#include "Server/General/AdditiveRandom.h"
#include "platform/AddressFamily.h"
#include "protocol/QuilClient.h"
#include "support/FakeTransport.h"

static std::time_t now = 1;

// The clock of this program: all that random choice depends on.
extern "C" std::time_t time(std::time_t*) noexcept {
    return now;
}

namespace {

// Writes down which servers are tried and reaches those it is told to. A server's name is the first character
// of its host; "-" without one.
struct Recorder : support::FakeTransport<QuilClient> {
    std::string up, tried;

    bool connectToServer(const char* host, const char* port) override {
        tried += *host != 0 ? *host : '-';
        const int family = AddressFamily(host);
        if (up.find(*host) == std::string::npos || (*port == 0 && family != AF_UNIX)) return false;
        if (family == AF_UNIX || family == AF_INET6) {
            setServerBeyondIPv4(host, port);
        } else {
            setServer(host, port, 0x7F000001, 0xABCD);
        }
        return true;
    }

    bool choose(const std::string& list, TQuilRequest& request) {
        Stanza section("shop");
        section.addValue("VELARTO_SERVER", list.c_str());
        section.addValue("FORCE_SERVER_ARG_NAME", "srv");
        return ConnectToQuilServer(&request, &section, "shop", true);
    }
};

const std::string kTwo = "s001,a,1:s002,10.0.0.2,18155", kThree = kTwo + ":s003,c,3";
const std::string kHost(253, 'c'), kTooLong = "s001,c" + kHost + ",3", kTooMany = "s001,c,3,3";
const std::string kRef = "_UserReference=", kRest(24, '-');  // nobody looks at the rest of a reference
const std::string kS002 = "S002" + kRest, kS009 = "s009" + kRest, kAddress = "0A00000246eb" + kRest;

const struct {
    const char* description;
    std::string list, query, cookie, body;
    const char* up;
    const char* tried;
    const char* route;  // in the cookie; "": no such cookie, null: no connection
} kSelections[] = {
    {"one server", "a,1", "srv=s002", kAddress, "", "a", "a", ""},
    {"by unknown SID", "x,1:x,1", "", kS009, "", "", "xx", nullptr},
    {"a long host, a blank", "s001," + kHost + ", 3", "", "", "", "c", "c", ""},
    {"too long a host", kTooLong, "", "", "", "c", "-", nullptr},
    {"forced", kThree, "a=1&srv=s002", kS009, "", "1", "1", ""},
    {"forced, in another letter case: the last", kThree, "srv=S002", "", "", "1c", "c", ""},
    {"forced, down: no other", kThree, "srv=s001", kS002, "", "1", "a", nullptr},
    {"forced, too long an SID: as without", kTwo, "srv=" + std::string(32, 's'), "", "", "a1", "1",
     "0A00000246EB"},
    {"forced, too long: no other", kTooLong + ":" + kTwo, "srv=s001", "", "", "a1", "-", nullptr},
    {"forced, too many fields: no other", kTooMany + ":" + kTwo, "srv=s001", "", "", "a1", "-", nullptr},
    {"by SID, too many fields: none has it", kTooMany + ":b,1", "", "s001" + kRest, "", "b", "b",
     "7F0000010001"},
    {"by SID, both down: any but the last", kTwo + ":s002,c,3", "", kS002, "", "a", "1c1a", "s002"},
    {"by address", "s003,c,3:" + kTwo, "", kAddress, "", "a1c", "1", "0A00000246EB"},
    {"by address, down: the other", kTwo, "", kAddress, "", "a", "1a", "7F0000010001"},
    {"cookie before query", kThree, kRef + kAddress, kS002, "", "1", "1", "s002"},
    {"by SID, a path", "s001,a,1:s002,/run/app.sock", "", kS002, "", "/", "/", "s002"},
    {"by SID, IPv6", "s001,a,1:s002,2001:db8::5,18155", "", kS002, "", "2", "2", "s002"},
    {"forced, IPv6", "s001,[2001:db8::5],1:s002,b,1", "srv=s001", kS002, "", "2", "2", ""},
    {"a path without SID", "b,1:/run/app.sock", "", "", "", "/", "/", ""},
    {"by address, which an IPv6 address contains: none has it", "b,3:c,3:s001,::ffff:10.0.0.2,18155", "",
     kAddress, "", "b:c", "c", "7F0000010003"},
    {"body last", kThree, kRef + "-" + kS002, kRest, "a&" + kRef + kS002 + "&b", "1", "1", "s002"},
};

TEST(ServerSelection, TriesServers) {
    for (const auto& c : kSelections) {
        TQuilRequest request;
        request.SetParamAttribute("query_string", c.query.c_str());
        request.SetParamAttribute("HTTP_COOKIE", ("a=1; Velarto_UserReference=" + c.cookie + "; b").c_str());
        request.postArgs().SetEqualTo(c.body.data(), static_cast<std::uint32_t>(c.body.size()), 0);
        EXPECT_FALSE(request.SetParamAttribute("NO_PARAMETER", kRef.c_str()));
        Recorder client;
        client.up = c.up;
        EXPECT_EQ(client.choose(c.list, request), c.route != nullptr) << c.description;
        EXPECT_EQ(client.tried, c.tried) << c.description;
        if (c.route == nullptr) continue;
        CText cookies;
        const std::string route = *c.route == 0 ? "" : std::string("; Velarto_CGIIP=") + c.route;
        EXPECT_EQ(client.AddVelartoCookieWithIP("", cookies).GetTextEx(), "VelartoClient=shop" + route);
    }
}

TEST(ServerSelection, SpreadsOverAllServersAndTriesEachOnce) {
    std::set<std::string> orders;
    srandom(1);
    const long first = random();
    srandom(1);
    for (now = 0; now < 100; ++now) {
        TQuilRequest request;
        Recorder client;
        EXPECT_FALSE(client.choose(kThree, request));
        orders.insert(client.tried);
    }
    EXPECT_EQ(orders, (std::set<std::string>{"1ac", "1ca", "a1c", "ac1", "c1a", "ca1"}));
    EXPECT_EQ(random(), first) << "the process's own sequence";
}

TEST(ServerSelection, TakesTheNumbersOfTheGnuCLibrary) {
    for (const unsigned seed : {0u, 1u, 1700000000u, 0x7FFFFFFFu, 0x80000000u, 0xFFFFFFFFu}) {
        AdditiveRandom numbers(seed);
        srandom(seed);
        for (int i = 0; i < 100; ++i)
            ASSERT_EQ(numbers.next(), random()) << seed;
    }
}

TEST(ServerEntry, FitsInFieldsOf32Bytes) {
    const std::string host(31, 'h');
    char sid[32], name[32], port[32];
    parse_zorbi_server_param(("s," + host + ", 1 ").c_str(), sid, name, port);
    EXPECT_EQ(std::string(sid) + name + port, "s" + host + "1");
    parse_zorbi_server_param(("s,h" + host + ",1").c_str(), sid, name, port);
    EXPECT_EQ(std::string(sid) + name + port, "");
}

const struct {
    const char* text;
    std::string parts;  // SID, host and port, joined with a blank
    EntryFault fault;
} kEntries[] = {
    {"s001,10.0.0.2,18155", "s001 10.0.0.2 18155", EntryFault::kNone},
    {"[2001:db8::5],1", " 2001:db8::5 1", EntryFault::kNone},
    {"s001,::1, 1 ", "s001 ::1 1", EntryFault::kNone},
    {"/run/app.sock", " /run/app.sock ", EntryFault::kNone},
    {"s001,/run/app.sock", "s001 /run/app.sock ", EntryFault::kNone},
    {",/run/app.sock", "  ", EntryFault::kEmptyField},
    {"/run/app.sock,18155", "  18155", EntryFault::kPortOfPath},
    {"s001,/run/app.sock,18155", "s001  18155", EntryFault::kPortOfPath},
    {"s001,[2001:db8::g],1", "s001 [2001:db8::g] 1", EntryFault::kNoAddress},
    {"s001,[10.0.0.2],1", "s001 [10.0.0.2] 1", EntryFault::kNoAddress},
    {"[::1,1", " [::1 1", EntryFault::kNoAddress},
    {"[,1", " [ 1", EntryFault::kNoAddress},
    {"[::1],0", " ::1 0", EntryFault::kPortNumber},
    {"[::1]", "  ", EntryFault::kFieldCount},
};

TEST(ServerEntry, IsTakenApart) {
    for (const auto& c : kEntries) {
        const ServerEntry entry(c.text);
        EXPECT_EQ(std::string(entry.sid()) + " " + entry.host() + " " + entry.port(), c.parts) << c.text;
        EXPECT_EQ(entry.fault(), c.fault) << c.text;
    }
    const std::string longest = "/" + std::string(ServerEntry::kPathSize - 2, 'p');
    EXPECT_EQ(ServerEntry(longest.c_str()).host(), longest);
    EXPECT_EQ(ServerEntry((longest + "p").c_str()).fault(), EntryFault::kLongField);
}

std::vector<std::string> entriesOf(const std::string& servers, const char* host = "",
                                   const char* ports = "") {
    Stanza section("shop");
    section.addValue("VELARTO_SERVER", servers.c_str());
    section.addValue("VELARTO_HOST", host);
    section.addValue("VELARTO_PORT", ports);
    const ServerList list(section);
    std::vector<std::string> entries(list.size());
    CText entry;
    for (std::uint32_t i = 0; i < entries.size(); ++i)
        entries[i] = list.getEntry(i, entry).GetTextEx();
    return entries;
}

TEST(ServerList, ColonsOfAnIPv6AddressEndNoEntry) {
    using Entries = std::vector<std::string>;
    const std::pair<const char*, Entries> lists[] = {
        {"", {}},
        {"s001,2001:db8::5,1:s002,b,2", {"s001,2001:db8::5,1", "s002,b,2"}},
        {"b,2:[::1],1:[::2],2:/run/a:s003,/run/b", {"b,2", "[::1],1", "[::2],2", "/run/a", "s003,/run/b"}},
        {"a,1::b,2", {"a,1", "", "b,2"}},
        {"a,1:", {"a,1", ""}},
        {":", {"", ""}},
        {"[::1],x:b,2", {"[", "", "1],x", "b,2"}},
        {"s001,::1,1:b,2:s003,fd00::5,3", {"s001,::1,1", "b,2", "s003,fd00::5,3"}},
        {"s001,2001::5,1", {"s001,2001", "", "5,1"}},
        {"a:1,b:2", {"a,1", "b,2"}},
    };
    for (const auto& [text, entries] : lists)
        EXPECT_EQ(entriesOf(text), entries) << text;
    EXPECT_EQ(entriesOf("", "::1", "1:2"), (Entries{"[::1],1", "[::1],2"}));
}

// Any list of which each entry could be used when every ":" ended one is the same list still.
TEST(ServerList, OlderListsAreWhatTheyWere) {
    constexpr char kCharacters[] = "a1,:/";
    constexpr int kLongest = 7;
    int usable = 0;
    for (std::string text = "a"; text.size() <= kLongest;) {
        std::vector<std::string> entries;
        for (std::size_t at = 0; at <= text.size(); at += entries.back().size() + 1)
            entries.push_back(text.substr(at, text.find(':', at) - at));
        const bool isUsable = std::all_of(entries.begin(), entries.end(), [](const std::string& entry) {
            return ServerEntry(entry.c_str()).fault() == EntryFault::kNone;
        });
        if (isUsable) {
            ++usable;
            ASSERT_EQ(entriesOf(text), entries) << text;
        }
        std::size_t i = 0;  // the next text, as if it were a number
        for (; i < text.size() && text[i] == '/'; ++i)
            text[i] = 'a';
        if (i == text.size()) {
            text += 'a';
        } else {
            text[i] = kCharacters[std::string(kCharacters).find(text[i]) + 1];
        }
    }
    EXPECT_GT(usable, 1000);
}

}  // namespace
