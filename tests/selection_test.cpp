// Which servers a client tries, in which order, and the cookies that tell what was chosen.
#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <string>

#include "protocol/QuilClient.h"
#include "support/FakeTransport.h"

namespace {

// Knows the servers A, B and C, writes down which is tried and reaches those it is told to.
class Recorder : public support::FakeTransport<QuilClient> {
  public:
    using QuilClient::connectToServer;
    using QuilClient::setServer;

    std::string up;
    std::string tried;

    bool connectToServer(const char* host, const char* port) override {
        static const std::map<std::string, char> names = {
            {"a,1", 'A'}, {"10.0.0.2,18155", 'B'}, {"c,3", 'C'}, {",", '-'}};
        const auto name = names.find(std::string(host) + "," + port);
        tried += name != names.end() ? name->second : '?';
        if (up.find(tried.back()) == std::string::npos) return false;
        setServer(host, port, 0x7F000001, 0xABCD);
        return true;
    }

    bool choose(const std::string& list, TQuilRequest* request) {
        Stanza section("shop");
        section.addValue("VELARTO_SERVER", list.c_str());
        section.addValue("FORCE_SERVER_ARG_NAME", "srv");
        return ConnectToQuilServer(request, &section, "shop", true);
    }

    std::string cookies() {
        CText out;
        return AddVelartoCookieWithIP("", out).GetTextEx();
    }
};

const std::string kTwo = "s001,a,1:s002,10.0.0.2,18155", kThree = kTwo + ":s003,c,3";
const std::string kRest(24, '-');  // of a user reference; nobody looks at it
const std::string kS002 = "S002" + kRest, kS009 = "s009" + kRest, kB = "0A00000246eb" + kRest;

const struct {
    const char* description;
    std::string list, query, cookie, body;
    const char* up;
    const char* tried;  // in this order; after the blank in any order, up to the first that is up
    const char* route;  // in the cookie; "": no such cookie, null: no connection
} kSelections[] = {
    {"one server", "a,1", "srv=s002", kB, "", "A", "A ", ""},
    {"forced", kThree, "a=1&srv=s002", kS009, "", "B", "B ", ""},
    {"forced, in other letters: the last", kThree, "srv=S001", "", "", "C", "C ", ""},
    {"forced, down: no other", kThree, "srv=s001", kS002, "", "B", "A ", nullptr},
    {"forced, empty list", "", "srv=s001", "", "", "", "- ", nullptr},
    {"by SID, down: the others, under that SID", kThree, "", kS002, "", "A", "B AC", "s002"},
    {"by SID, two down: the first again", "s002,a,1:s002,c,3:x,y", "", kS002, "", "", "AC ?A", nullptr},
    {"by unknown SID", kThree, "", kS009, "", "", " ABC", nullptr},
    {"by address", kThree, "", kB, "", "ABC", "B ", "0A00000246EB"},
    {"by address, down: the others", kThree, "", kB, "", "C", "B AC", "7F0000010003"},
    {"by address, in a longer entry", "x,110.0.0.2,181556:a,1", "", kB, "", "", "? A", nullptr},
    {"cookie before query", kThree, "_UserReference=" + kB, kS002, "", "B", "B ", "s002"},
    {"query before body", kThree, "_UserReference=" + kB, "", "_UserReference=" + kS002, "B", "B ",
     "0A00000246EB"},
    {"body last", kThree, "_UserReference=-" + kB, kRest + "xyz", "a&_UserReference=" + kS002 + "&b", "B",
     "B ", "s002"},
    {"any, each once", kThree + ":a,1", "", "", "", "", " AABC", nullptr},
    {"unreadable entries", "a,b,c,d:ab", "", "", "", "", " --", nullptr},
    {"empty list", "", "", kS002, "", "", " ", nullptr},
};

TEST(ServerSelection, TriesServers) {
    for (const auto& c : kSelections) {
        SCOPED_TRACE(c.description);
        TQuilRequest request;
        request.SetParamAttribute("QUERY_STRING", c.query.c_str());
        request.SetParamAttribute("HTTP_COOKIE", ("a=1; Velarto_UserReference=" + c.cookie + "; b").c_str());
        request.SetPostArgs(reinterpret_cast<const unsigned char*>(c.body.data()),
                            static_cast<std::uint32_t>(c.body.size()));
        Recorder client;
        client.up = c.up;
        EXPECT_EQ(client.choose(c.list, &request), c.route != nullptr);

        const std::string tried = c.tried;
        const std::string first = tried.substr(0, tried.find(' ')), then = tried.substr(first.size() + 1);
        std::string rest = client.tried.substr(std::min(first.size(), client.tried.size()));
        EXPECT_EQ(client.tried.substr(0, first.size()), first);
        std::sort(rest.begin(), rest.end());
        if (c.route != nullptr) {
            EXPECT_TRUE(std::includes(then.begin(), then.end(), rest.begin(), rest.end())) << rest;
            const std::string route = *c.route == 0 ? "" : std::string("; Velarto_CGIIP=") + c.route;
            EXPECT_EQ(client.cookies(), "VelartoClient=shop" + route);
        } else {
            EXPECT_EQ(rest, then);
        }
    }
}

TEST(ServerSelection, NeedsASectionAndTakesTheWholeListWithoutARequest) {
    Recorder client;
    EXPECT_FALSE(client.ConnectToQuilServer(nullptr, nullptr, "shop", true));
    client.up = "?";
    EXPECT_TRUE(client.choose("s001,host,1:s002", nullptr));
    EXPECT_STREQ(client.serverPort(), "1:s002");
}

TEST(ServerSelection, SplitsEntries) {
    const std::string longest(31, 'x'), tooLong(32, 'x');
    const std::string cases[][2] = {
        {"sid, host , 1 ", "sid| host |1"},
        {"host,", "|host|"},
        {"a,b,c,d", "||"},
        {longest + "," + longest + "," + longest, longest + "|" + longest + "|" + longest},
        {tooLong + ",host,1", "||"},
        {"sid," + tooLong + ",1", "||"},
        {"sid,host," + tooLong, "||"},
    };
    for (const auto& [entry, fields] : cases) {
        char sid[32], host[32], port[32];
        parse_zorbi_server_param(entry.c_str(), sid, host, port);
        EXPECT_EQ(std::string(sid) + "|" + host + "|" + port, fields) << entry;
    }
}

TEST(UserReference, IsDecodedFromItsHead) {
    const std::string cases[][2] = {
        {"Ab12", "Ab12||"},
        {"fF00800AFFFF", "|255.0.128.10|65535"},
        {"zz7F0g01 1x1", "|0.127.0.1|1"},
        {"Ab1", "||"},
        {"Ab123", "||"},
    };
    for (const auto& [head, decoded] : cases) {
        TQuilRequest request;
        request.SetParamAttribute("QUERY_STRING", ("_UserReference=" + head + kRest).c_str());
        Recorder client;
        CText sid, ip, port;
        EXPECT_EQ(client.setUserRef(&request), decoded != "||");
        EXPECT_EQ(client.processUserRef(sid, ip, port), decoded != "||");
        EXPECT_EQ(std::string(sid.GetTextEx()) + "|" + ip.GetTextEx() + "|" + port.GetTextEx(), decoded);
    }
}

TEST(RouteCookie, TellsTheSidOrTheAddress) {
    const char* const cases[][4] = {
        // SID, address, port, route
        {"s001", "10.0.0.5", "18155", "s001"},      {"s01", "255.255.255.255", "65535", "FFFFFFFFFFFF"},
        {"s0001", "0.0.0.0", "1", "000000000001"},  {"", "127.1", "18155", "7F00000146EB"},  // as connected
        {"", "1.2.3.256", "18155", "7F00000146EB"}, {"", "10.0.0.5", "83691", "0A000005ABCD"},
    };
    for (const auto& [sid, ip, port, route] : cases) {
        Recorder client;
        TQuilRequest request;
        client.choose("", &request);
        client.setSID(sid);
        client.setServer(ip, port, 0x7F000001, 0xABCD);
        EXPECT_EQ(client.cookies(), std::string("VelartoClient=shop; Velarto_CGIIP=") + route);
    }
}

}  // namespace
