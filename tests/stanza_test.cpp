// Stanza: look-ups, attribute lists, locking, and the text it writes.
#include "config/Stanza.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <future>
#include <string>
#include <utility>

#include "support/Attributes.h"

namespace {

using support::listOf;
using support::Pairs;

// "key=value|" for each attribute, in order.
std::string imageOf(Stanza& stanza) {
    std::string image;
    for (std::uint32_t i = 0; i < stanza.getNumberOfAttributes(); ++i) {
        Attribute attribute;
        EXPECT_TRUE(stanza.getAttributeIndex(i, attribute));
        image += std::string(attribute.key().GetTextEx()) + "=" + attribute.value().GetTextEx() + "|";
    }
    return image;
}

// What a stanza puts into a stream that takes no more than room bytes, and whether it says it is saved.
std::pair<std::string, bool> saved(Stanza& stanza, std::size_t room) {
    std::string bytes(room, '\0');
    std::FILE* f = fmemopen(&bytes[0], room, "a");
    std::setvbuf(f, nullptr, _IONBF, 0);
    const bool done = stanza.saveStanza(f);
    std::fclose(f);
    return {bytes.c_str(), done};
}

}  // namespace

TEST(Stanza, LooksUpByKeyOccurrenceAndPosition) {
    Stanza stanza("Site", listOf({{"Key", ""}, {"Port", "80"}, {"port", "81"}})), copy(stanza);
    CText out("before");
    EXPECT_TRUE(stanza.getValue("KEY", out) && out.IsEmpty() && !stanza.getValue("key", 1, out));
    EXPECT_TRUE(stanza.getValue("port", out) && out == "80");
    EXPECT_TRUE(stanza.getValue("port", 2, out) && out == "81");
    EXPECT_FALSE(stanza.getValue("port", 3, out) || !out.IsEmpty());
    EXPECT_TRUE(stanza.getAttributeKey(0, out) && out == "Key");
    EXPECT_FALSE(stanza.getAttributeValue(UINT32_MAX, out) || !out.IsEmpty());
    copy.changeValue("PORT", "9");
    EXPECT_EQ(imageOf(copy) + imageOf(stanza), "Key=|Port=9|port=81|Key=|Port=80|port=81|");
}

TEST(Stanza, AddsAndGetsAnAttributeList) {
    const struct {
        Pairs before, in;
        std::uint32_t got;
        const char* after;
    } cases[] = {{{{"B", "9"}}, {{"A", "1"}, {"B", "2"}}, 2, "B=2|L=A:B|A=1|"},
                 {{{"l", ""}}, {{"A", "1"}}, 0, "l=|"},
                 {{}, {{"L", "1"}, {"", "2"}, {"A", "3"}}, 2, "L=L::A|=2|A=3|"}};
    for (const auto& c : cases) {
        Stanza stanza("s", listOf(c.before));
        AttributeList in = listOf(c.in), out = listOf({{"old", "1"}});
        EXPECT_EQ(stanza.addAttributeList("L", in), c.got != 0);
        EXPECT_EQ(imageOf(stanza), c.after);
        EXPECT_TRUE(stanza.getAttributeList("l", out));
        EXPECT_EQ(out.length(), c.got) << c.after;
    }
}

TEST(Stanza, RemovesAndChangesTheNamedAttributesAndTheirList) {
    Stanza stanza("s",
                  listOf({{"A", "1"}, {"L", "L:A:A::X"}, {"B", "2"}, {"a", "3"}, {"l", "A:B"}, {"C", "4"}}));
    EXPECT_TRUE(stanza.removeAttributeList("l"));
    EXPECT_EQ(imageOf(stanza), "B=2|l=A:B|C=4|");
    AttributeList in = listOf({{"B", "5"}});
    EXPECT_FALSE(stanza.changeAttributeList("M", in));
    EXPECT_TRUE(stanza.changeAttributeList("L", in));
    EXPECT_EQ(imageOf(stanza), "C=4|L=B|B=5|");
}

TEST(Stanza, CopiesAttributesOnlyWhileTheOtherIsFree) {
    // Another thread holds the lock of busy: it saves more than a pipe takes.
    Stanza busy("busy", listOf({{"A", std::string(300000, 'x').c_str()}})), stanza("s", listOf({{"B", "2"}}));
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    std::FILE *in = fdopen(ends[0], "r"), *out = fdopen(ends[1], "w");
    auto saving = std::async(std::launch::async, [&] {
        const bool done = busy.saveStanza(out);
        return std::fclose(out) == 0 && done;
    });
    EXPECT_EQ(std::getc(in), '[');
    EXPECT_FALSE(stanza.copyAttributeList(busy));
    EXPECT_EQ(imageOf(stanza), "B=2|");
    while (std::getc(in) != EOF)
        continue;
    std::fclose(in);
    EXPECT_TRUE(saving.get());
    EXPECT_TRUE(stanza.copyAttributeList(busy) && stanza.copyAttributeList(stanza) && stanza.findValue("a"));
}

TEST(Stanza, SavesSortedAndEscaped) {
    std::pair<Stanza, std::string> cases[] = {
        {Stanza("a\rb\\", listOf({{"b", "1"}, {"A", "2\n"}, {"a", "3"}, {"", "4"}})),
         "[a\\rb\\\\]\n=4\nA=2\\n\na=3\nb=1\n\n"},
        {Stanza("[x;", listOf({{"k=;\n[", " = ; ]\t\xE9"}})), "[[x;]\nk=;\\n[= = ; ]\t\xE9\n\n"}};
    for (auto& [stanza, whole] : cases) {
        const std::string before = imageOf(stanza);
        for (std::size_t room = 1; room <= whole.size() + 1; ++room) {
            const bool done = room + 1 >= whole.size();  // the last line feed may be refused
            EXPECT_EQ(saved(stanza, room), std::pair(whole.substr(0, room), done));
        }
        EXPECT_EQ(imageOf(stanza), before);
    }
}
