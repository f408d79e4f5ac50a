// CText, CTextLocal<N>, the case tables and ScanCookie.
#include "Server/Common_Classes/UText.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <functional>
#include <iterator>
#include <random>
#include <string>

namespace {

constexpr std::uint32_t kMax = UINT32_MAX;

std::string str(const CText& text) {
    EXPECT_EQ(std::strlen(text.GetTextEx()), text.Length());
    return text.GetTextEx();
}

// Assigned before the place in this file where a run-time construction would come and empty it again.
extern CText processWide;
const bool assignedEarly = (processWide = "kept", true);
CText processWide;

TEST(Text, ProcessWideTextsExistBeforeMain) {
    EXPECT_TRUE(assignedEarly && processWide == "kept");
}

TEST(Text, CaseTablesFoldLatinLettersExceptTheAcuteE) {
    for (int c = 0; c < 256; ++c) {
        const bool lower = (c >= 0x61 && c <= 0x7A) || c >= 0xE0;
        const bool upper = (c >= 0x41 && c <= 0x5A) || (c >= 0xC0 && c <= 0xDF);
        const auto i = static_cast<std::size_t>(c);
        EXPECT_EQ(k2upper[i], c == 0xE9 || c == 0xC9 ? 0x65 : lower ? c - 0x20 : c) << c;
        EXPECT_EQ(k2lower[i], upper ? c + 0x20 : c) << c;
    }
}

TEST(Text, StaysTerminatedAndTakesNullForEmpty) {
    const char unterminated[] = {'a', 'b', 'c'};
    CText text(unterminated, 3);
    EXPECT_EQ(str(text), "abc");
    EXPECT_EQ(text.SetUsableDataSize(4), 5u);
    EXPECT_EQ(text.SetUsableDataSize(2), 3u);
    EXPECT_EQ(text.SetUsableDataSize(kMax), 3u);
    text += -2147483647L;
    text += 4294967295UL;
    EXPECT_EQ(str(text), "ab-21474836474294967295");
    text = std::string(99, 'x').c_str();
    EXPECT_TRUE(text.SetBufferSize(50));
    EXPECT_EQ(str(text), std::string(49, 'x'));
    const char* null = nullptr;
    text = null;
    EXPECT_TRUE(text.IsEmpty() && CText(null, 5).IsEmpty() && CText('\0').IsEmpty());
    EXPECT_STREQ(CText(10u).GetText(), "");
}

TEST(Text, InlineTextsKeepTheirBuffer) {
    CTextLocal<31> text("kept");
    EXPECT_EQ(text.ReleaseBuffer(nullptr, nullptr), nullptr);
    const CTextLocal<31> copy(text);
    text.ReleaseData();
    text = "again";
    EXPECT_EQ(str(copy) + str(text), "keptagain");
    EXPECT_TRUE(CTextLocal<1>("x").IsEmpty());
}

TEST(Text, FormatsUpTo16384Characters) {
    for (const std::size_t n : {0u, 1u, 128u, 129u, 16384u, 16385u, 20000u}) {
        const std::string x(n, 'x');
        CText text("old");
        text.AppendFormat("%s", x.c_str());
        EXPECT_EQ(str(text), n <= 16384 ? "old" + x : "old");
    }
    CText text("a");
    text.AppendFormat("%s%s%d", text.GetText(), text.GetText(), 7);
    EXPECT_EQ(str(text), "aaa7");
}

TEST(Text, ComparesWithoutCaseUnlessToldOtherwise) {
    const CText abc("abc"), empty, terminated("");
    EXPECT_TRUE(abc == CText("aBC") && abc == "aBC" && CText("A") < CText("b") && empty == terminated);
    EXPECT_FALSE(abc.Equals(CText("aBC"), true) || empty == abc || abc == empty);
    EXPECT_TRUE(abc.Compare(nullptr) > 0 && abc.Compare("a", 0) == 1 && empty.Compare("a", 1) == -1);
    EXPECT_TRUE(CText("abcdef").Equals("ABC", 3) && abc.Equals("abc", 3, true));
    EXPECT_FALSE(CText("abcdef").Equals("abc", 3, true) || abc.Equals("abcd", 3, true));
    EXPECT_TRUE(abc.FirstNEquals("abcdef", 6, true) && abc.FirstNEquals("aBcdef", 6, false));
    EXPECT_FALSE(abc.FirstNEquals("aBcdef", 6, true) || abc.FirstNEquals("", 0, true));
    EXPECT_TRUE(abc.CompareLeft(CText("AB")) && !abc.CompareLeft(CText("abcd")));
}

TEST(Text, CopiesIntoArraysAreTerminated) {
    const CText text("abcdef");
    const struct {
        std::uint32_t size, start, count;
        std::string expected;
    } cases[] = {{7, 0, kMax, "abcdef"}, {6, 0, kMax, "abcde"}, {1, 0, kMax, ""},
                 {10, 1, 3, "bcd"},      {10, 7, 1, ""},        {10, kMax, 1, ""}};
    for (const auto& [size, start, count, expected] : cases) {
        std::string out(size, '#');
        text.Copy(reinterpret_cast<unsigned char*>(&out[0]), size, start, count);
        EXPECT_EQ(out.c_str(), expected);
    }
    unsigned char dest[8] = "#";
    EXPECT_EQ(text.Copy(dest, 8), 6u);
    EXPECT_EQ(text.Copy(dest, 8, 1, 3), 2u);  // the terminator counts as one of three bytes
    EXPECT_EQ(text.Copy2PStr(dest, 2, 3, 9), 2u);
    EXPECT_EQ(std::memcmp(dest, "\2de", 3), 0);
    EXPECT_DEATH(text.Copy(dest, 0, 0, 1), "Server/Common_Classes/UText.*dest != 0 && destLen != 0");
}

TEST(Text, FindsPositionsBothWays) {
    const CText text("abcabcab");
    EXPECT_EQ(text.Pos("abc", 1, true), 3u);
    EXPECT_EQ(text.Pos("abc", 5, false), 3u);
    EXPECT_EQ(text.Pos("abc", 4, false), 0u);
    EXPECT_EQ(text.Pos("ab", 99, false), 6u);
    EXPECT_EQ(text.Pos("abc", 1, false), kMax);
    for (const char* s : {"ABC", "", "abcabcabc", static_cast<const char*>(nullptr)}) {
        EXPECT_EQ(text.Pos(s, 0, true), kMax);
        EXPECT_EQ(text.Pos(s, 8, false), kMax);
    }
}

TEST(Text, ChangesInPlace) {
    const struct {
        const char* text;
        void (*change)(CText&);
        const char* expected;
    } cases[] = {
        {"xx", [](CText& t) { t.ReplaceAll("X", "xx", false); }, "xxxx"},  // not what was inserted
        {"\xE9t\xE9 e \xC9", [](CText& t) { t.ReplaceAll("\xE9", "-", false); }, "-t- e \xC9"},
        {"aXbxXc", [](CText& t) { t.ReplaceOccurrence("x", "yy", 2, false); }, "aXbyyXc"},
        {"abc", [](CText& t) { t.Right(t, 2); }, "bc"},
        {" a\r \t\n", [](CText& t) { t.Trim(); }, " a\r"},
        {"  \ta ", [](CText& t) { t.TrimSpaces(false); }, "\ta "},
        {" \r\n\ta\r\n ", [](CText& t) { t.TrimWhiteSpaces(true); }, " \r\n\ta"},
        {"xxaxx", [](CText& t) { t.Trim('x', true); }, "axx"},
        {"ab", [](CText& t) { t.Pad('-', 5, false); }, "---ab"},
        {"abc", [](CText& t) { t.Pad('-', kMax, true); }, "abc"},
        {"'a'", [](CText& t) { t.StripQuotes(); }, "a"},
        {"'", [](CText& t) { t.StripQuotes(); }, "'"},
        {"  (a)", [](CText& t) { t.StripBrackets(); }, "a"},
        {" (a]", [](CText& t) { t.StripBrackets(); }, "(a]"},
        {"abcabc", [](CText& t) { t.Filter("ca", false); }, "acac"},
        {"abc", [](CText& t) { t.Reverse(); }, "cba"},
        {"az\xE9\xC9", [](CText& t) { t.UpperCase(); }, "AZe\xC9"},
        {"AZ\xC9\xDF", [](CText& t) { t.LowerCase(); }, "az\xE9\xFF"},
        {"aaa\nbbbbb c", [](CText& t) { t.Fold(5); }, "aaa\rbbbbb\rc"},
        {"\"a'\\b'\"\\c", [](CText& t) { t.RemoveEscapes(0, -1); }, "\"a'\\b'\"c"},
        {"\\a\\b\\c", [](CText& t) { t.RemoveEscapes(2, 2); }, "\\ab"},
    };
    for (const auto& c : cases) {
        CText text(c.text);
        c.change(text);
        EXPECT_EQ(str(text), c.expected) << c.text;
    }
}

TEST(Text, ReadsNumbers) {
    EXPECT_EQ(CText(" 18155x").GetTextAsULong(), 18155u);
    EXPECT_EQ(CText("4294967302").GetTextAsULong(), kMax);
    EXPECT_EQ(CText("101").GetTextAsBitMask(), 5u);
    EXPECT_EQ(CText("101").CastDataToLong(), 0x31303100u);
}

TEST(Text, ScansCookies) {
    const struct {
        const char *cookies, *name, *expected;
    } cases[] = {
        {"A=1; SID=xyz; B=2", "ID", "xyz"}, {"SID = xyz", "SID", "xyz"},      {"SID= xyz", "SID", " xyz"},
        {"SID  =a b\r\nc", "SID", "a b"},   {"SID; SIDE; SID=2", "SID", "2"}, {"SID=;SID=2", "SID", ""},
        {"SID and nothing", "SID", ""},     {"sid=1; Sid=2", "SID", ""},      {"SID=1", "", ""}};
    for (const auto& c : cases) {
        CText value("old");
        EXPECT_EQ(&ScanCookie(c.cookies, c.name, value, ';'), &value);
        EXPECT_EQ(str(value), c.expected) << c.cookies;
    }
    CTextLocal<31> local;
    EXPECT_EQ(ScanCookie(("S=" + std::string(40, 'x')).c_str(), "S", local, '&').Length(), 30u);
}

// Assignments, appends, replacements and extractions, with sources inside the text too, against a string.
// What is assigned from characters is cut to the capacity; everything else fits or changes nothing.
template <class Text>
void compareWithString(std::size_t capacity) {
    std::mt19937 random(19980321);
    const auto below = [&](std::size_t n) { return static_cast<std::uint32_t>(random() % n); };
    Text text;
    std::string model;
    const auto fit = [&](const std::string& next) {
        if (next.size() <= capacity) model = next;
    };
    for (int step = 0; step < 20000; ++step) {
        const std::string src = std::string("abcaacbbcaba").substr(below(12));
        const std::uint32_t at = below(model.size() + 1), count = below(6);
        const std::string cut = model.substr(0, at),
                          rest = model.substr(std::min<std::size_t>(at + count, model.size()));
        const std::function<void()> changes[] = {
            [&] { text = src.c_str(), model = src.substr(0, capacity); },
            [&] { text = text.GetTextEx() + at, model = model.substr(at); },
            [&] { text += src.c_str(), fit(model + src); },
            [&] { text += text, fit(model + model); },
            [&] { text += 'z', fit(model + 'z'); },
            [&] { text.ReplaceText(at, count, CText(src.c_str())), fit(cut + src + rest); },
            [&] { text.ReplaceText(at, count, text), fit(cut + model + rest); },
            [&] { text.Mid(text, at, count), model = model.substr(at, count); },
        };
        changes[model.size() > 500 ? 0 : below(std::size(changes))]();
        ASSERT_EQ(str(text), model) << "step " << step;
    }
}

TEST(Text, RandomChangesMatchAString) {
    compareWithString<CText>(kMax);
    compareWithString<CTextLocal<31>>(30);
}

}  // namespace
