// Stanza: look-ups, attribute lists, locking, and the text it writes.
#include "config/Stanza.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <future>
#include <string>
#include <utility>
#include <vector>

#include "support/Attributes.h"

namespace {

using support::listOf;
using support::Pairs;

std::string imageOf(Stanza& stanza) {
    std::string image;
    for (std::uint32_t i = 0; i < stanza.getNumberOfAttributes(); ++i) {
        Attribute attribute;
        EXPECT_TRUE(stanza.getAttributeIndex(i, attribute));
        image += std::string(attribute.key().GetTextEx()) + "=" + attribute.value().GetTextEx() + "|";
    }
    return image;
}

std::FILE* openUnbuffered(void* cookie, ssize_t (*write)(void*, const char*, std::size_t)) {
    cookie_io_functions_t functions{};
    functions.write = write;
    std::FILE* f = fopencookie(cookie, "w", functions);
    std::setvbuf(f, nullptr, _IONBF, 0);
    return f;
}

// What write puts into a stream that takes no more than room bytes, and its result.
template <class Write>
auto written(Write write, std::size_t room = 4096) {
    std::pair<std::string, std::size_t> sink{"", room};
    std::FILE* f = openUnbuffered(&sink, [](void* cookie, const char* bytes, std::size_t n) {
        auto& [text, left] = *static_cast<std::pair<std::string, std::size_t>*>(cookie);
        n = std::min(n, left);
        text.append(bytes, n);
        left -= n;
        return static_cast<ssize_t>(n);
    });
    const auto result = write(f);
    std::fclose(f);
    return std::make_pair(sink.first, result);
}

std::pair<std::string, bool> saved(Stanza& stanza, std::size_t room = 4096) {
    return written([&](std::FILE* f) { return stanza.saveStanza(f); }, room);
}

}  // namespace

TEST(Stanza, LooksUpByKeyOccurrenceAndPosition) {
    Stanza stanza("Site", listOf({{"Key", ""}, {"Port", "80"}, {"port", "81"}}));
    CText out("before");
    EXPECT_TRUE(stanza.getValue("KEY", out));
    EXPECT_TRUE(out.IsEmpty());
    EXPECT_TRUE(stanza.getValue("port", out) && out == "80");
    EXPECT_TRUE(stanza.getValue("port", 2, out) && out == "81");
    EXPECT_FALSE(stanza.getValue("port", 3, out));
    EXPECT_TRUE(out.IsEmpty());
    EXPECT_FALSE(stanza.getValue("key", 1, out));  // its value never held a character
    EXPECT_TRUE(stanza.getAttributeKey(0, out) && out == "Key");
    EXPECT_FALSE(stanza.getAttributeKey(3, out) || !out.IsEmpty());
    EXPECT_TRUE(stanza.getAttributeValue(2, out) && out == "81");
    EXPECT_FALSE(stanza.getAttributeValue(4294967295u, out) || !out.IsEmpty());
    EXPECT_EQ(stanza.getNumOccurrences("PORT"), 2);
    EXPECT_TRUE(stanza.findValue("key"));
    Attribute kept("a", "b");
    EXPECT_FALSE(stanza.getAttribute("none", kept) || stanza.getAttributeIndex(3, kept));
    EXPECT_STREQ(kept.value().GetTextEx(), "b");
    EXPECT_TRUE(stanza.isStanzaName("sITE") && stanza == Stanza("site"));
}

TEST(Stanza, CopyHasAttributesAndALockOfItsOwn) {
    Stanza stanza("s", listOf({{"A", "1"}}));
    Stanza copy(stanza);
    copy.changeValue("a", "2");
    copy.setStanzaName("t");
    EXPECT_EQ(imageOf(stanza) + stanza.getStanzaName().GetTextEx(), "A=1|s");
    EXPECT_EQ(imageOf(copy) + copy.getStanzaName().GetTextEx(), "A=2|t");
}

TEST(Stanza, AddsAnAttributeList) {
    const struct {
        Pairs before;
        const char* key;
        Pairs in;
        bool done;
        const char* after;
    } cases[] = {
        {{{"B", "9"}}, "L", {{"A", "1"}, {"B", "2"}}, true, "B=2|L=A:B|A=1|"},
        {{{"l", ""}}, "L", {{"A", "1"}}, false, "l=|"},
        {{}, "L", {}, true, "L=|"},
        {{}, "L", {{"L", "1"}, {"A", "2"}}, true, "L=L:A|A=2|"},
        {{}, "", {{"A", "1"}}, true, "=A|A=1|"},
        {{}, "L", {{"", "1"}, {"A", "2"}}, true, "L=:A|=1|A=2|"},
    };
    for (const auto& c : cases) {
        Stanza stanza("s", listOf(c.before));
        AttributeList in = listOf(c.in);
        EXPECT_EQ(stanza.addAttributeList(c.key, in), c.done) << c.after;
        EXPECT_EQ(imageOf(stanza), c.after);
    }
}

TEST(Stanza, AttributeListMayBeLong) {
    Stanza stanza("s");
    const std::string first(700, 'a'), second(700, 'b');
    AttributeList in = listOf({{first.c_str(), "1"}, {second.c_str(), "2"}}), out;
    EXPECT_TRUE(stanza.addAttributeList("L", in));
    EXPECT_TRUE(stanza.getAttributeList("L", out));
    EXPECT_EQ(out.length(), 2u);
}

TEST(Stanza, GetsTheNamedAttributesOnce) {
    Stanza stanza("s", listOf({{"L", "A:X::b:a:"}, {"A", "1"}, {"B", "2"}, {"a", "3"}}));
    AttributeList out = listOf({{"old", "1"}});
    EXPECT_TRUE(stanza.getAttributeList("l", out));
    ASSERT_EQ(out.length(), 2u);
    EXPECT_STREQ(out.getValue(0), "1");
    EXPECT_STREQ(out.getValue(1), "2");
    EXPECT_TRUE(stanza.getAttributeList("none", out));
    EXPECT_EQ(out.length(), 0u);
}

TEST(Stanza, RemovesTheNamedAttributesAndTheListLast) {
    const struct {
        const char* list;
        const char* after;
    } cases[] = {
        {"A:B", "C=4|a=5|l=6|"},      {"A:A", "B=2|C=4|l=6|"},      {"L:l:A:", "B=2|C=4|a=5|l=6|"},
        {"X::C", "A=1|B=2|a=5|l=6|"}, {"", "A=1|B=2|C=4|a=5|l=6|"},
    };
    for (const auto& c : cases) {
        Stanza stanza("s",
                      listOf({{"A", "1"}, {"B", "2"}, {"L", c.list}, {"C", "4"}, {"a", "5"}, {"l", "6"}}));
        EXPECT_TRUE(stanza.removeAttributeList("l"));
        EXPECT_EQ(imageOf(stanza), c.after) << c.list;
        EXPECT_TRUE(stanza.removeAttributeList("none"));
        EXPECT_EQ(imageOf(stanza), c.after) << c.list;
    }
}

TEST(Stanza, ChangesAnAttributeListThatIsThere) {
    Stanza stanza("s", listOf({{"L", "A:B"}, {"A", "1"}, {"B", "2"}, {"C", "3"}}));
    AttributeList in = listOf({{"B", "4"}});
    EXPECT_FALSE(stanza.changeAttributeList("M", in));
    EXPECT_EQ(imageOf(stanza), "L=A:B|A=1|B=2|C=3|");
    EXPECT_TRUE(stanza.changeAttributeList("L", in));
    EXPECT_EQ(imageOf(stanza), "C=3|L=B|B=4|");
}

TEST(Stanza, CopiesAttributesOnlyWhileTheOtherIsFree) {
    // Another thread holds the lock of busy: it saves into a stream whose first write waits.
    struct Gate {
        std::promise<void> reached, opened;
        bool passed = false;
    } gate;
    std::FILE* f = openUnbuffered(&gate, [](void* cookie, const char*, std::size_t n) {
        Gate& g = *static_cast<Gate*>(cookie);
        if (!std::exchange(g.passed, true)) {
            g.reached.set_value();
            g.opened.get_future().wait();
        }
        return static_cast<ssize_t>(n);
    });
    Stanza busy("busy", listOf({{"A", "1"}})), stanza("s", listOf({{"B", "2"}}));
    auto saving = std::async(std::launch::async, [&] { return busy.saveStanza(f); });
    gate.reached.get_future().wait();
    EXPECT_FALSE(stanza.copyAttributeList(busy));
    EXPECT_EQ(imageOf(stanza), "B=2|");
    gate.opened.set_value();
    EXPECT_TRUE(saving.get());
    std::fclose(f);
    EXPECT_TRUE(stanza.copyAttributeList(busy));
    EXPECT_EQ(imageOf(stanza), "A=1|");
    EXPECT_TRUE(stanza.copyAttributeList(stanza));
    EXPECT_EQ(imageOf(stanza), "A=1|");
}

TEST(Stanza, SavesSortedAndEscaped) {
    const struct {
        const char* name;
        Pairs attributes;
        const char* text;
    } cases[] = {
        {"site one",
         {{"Zeta", "1"}, {"alpha", "two\nlines"}, {"Path", "C:\\dir"}},
         "[site one]\nalpha=two\\nlines\nPath=C:\\\\dir\nZeta=1\n\n"},
        {"", {}, "[]\n\n"},
        {"a\rb\\", {{"b", "1"}, {"A", "2"}, {"a", "3"}, {"", "4"}}, "[a\\rb\\\\]\n=4\nA=2\na=3\nb=1\n\n"},
        {"[x;", {{"k=;\n[", " = ; ]\t\xE9"}}, "[[x;]\nk=;\\n[= = ; ]\t\xE9\n\n"},
    };
    for (const auto& c : cases) {
        Stanza stanza(c.name, listOf(c.attributes));
        const std::string before = imageOf(stanza);
        EXPECT_EQ(saved(stanza), std::make_pair(std::string(c.text), true));
        EXPECT_EQ(imageOf(stanza), before);
    }
}

TEST(Stanza, SavingFailsAtTheFirstCharacterRefused) {
    Stanza stanza("s\\", listOf({{"k\n", "v"}}));
    const std::string whole = "[s\\\\]\nk\\n=v\n\n";
    for (std::size_t room = 1; room <= whole.size(); ++room) {
        const auto [text, done] = saved(stanza, room);
        EXPECT_EQ(done, room + 1 >= whole.size()) << room;  // the last line feed may be refused
        EXPECT_EQ(text, whole.substr(0, room));
    }
}

TEST(Stanza, CountsTheCharactersWritten) {
    Stanza stanza("s");
    for (const auto& [text, count] :
         std::vector<std::pair<const char*, int>>{{nullptr, 0}, {"", 0}, {"a\\b", 4}, {"\r\n=;[]", 8}}) {
        const auto write = [&, argument = text](std::FILE* f) {
            return stanza.writeBSEscString(f, argument);
        };
        EXPECT_EQ(written(write).second, count);
        EXPECT_EQ(written(write, 1).second, count > 1 ? -1 : 0);
    }
    EXPECT_EQ(stanza.writeBSEscString(nullptr, "x"), 0);
}

TEST(Stanza, EscapeTablesAreEachOthersReverse) {
    EXPECT_EQ(Stanza::GetBSEscKey('\r'), 'r');
    EXPECT_EQ(Stanza::GetBSEscKey('\n'), 'n');
    EXPECT_EQ(Stanza::GetBSEscKey('\\'), '\\');
    for (int c = 0; c < 256; ++c) {
        const char character = static_cast<char>(c), key = Stanza::GetBSEscKey(character);
        EXPECT_EQ(key != 0, c == '\r' || c == '\n' || c == '\\') << c;
        if (key != 0) {
            EXPECT_EQ(Stanza::GetBSEscValue(key), character);
        }
    }
    EXPECT_EQ(Stanza::GetBSEscValue('t') + Stanza::GetBSEscValue('\0') + Stanza::GetBSEscValue('N'), 0);
}
