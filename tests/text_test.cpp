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
    EXPECT_TRUE(assignedEarly);
    EXPECT_EQ(str(processWide), "kept");
}

TEST(Text, CaseTablesFoldLatinLettersExceptTheAcuteE) {
    for (int c = 0; c < 256; ++c) {
        const bool lower = (c >= 0x61 && c <= 0x7A) || c >= 0xE0;
        const bool upper = (c >= 0x41 && c <= 0x5A) || (c >= 0xC0 && c <= 0xDF);
        const auto i = static_cast<std::size_t>(c);
        EXPECT_EQ(k2upper[i], c == 0xE9 || c == 0xC9 ? 0x65 : lower ? c - 0x20 : c) << c;
        EXPECT_EQ(k2lower[i], upper ? c + 0x20 : c) << c;
    }
    CText text("az{`AZ@[\xC9\xE9\xFF\xF7\xDF");
    CText lower(text);
    text.UpperCase();
    EXPECT_EQ(str(text), "AZ{`AZ@[\xC9\x65\xDF\xD7\xDF");
    lower.LowerCase();
    EXPECT_EQ(str(lower), "az{`az@[\xE9\xE9\xFF\xF7\xFF");
}

TEST(Text, ConstructorsTerminateAndTakeNullForEmpty) {
    const char unterminated[] = {'a', 'b', 'c'};
    EXPECT_EQ(str(CText(unterminated, 3)), "abc");
    EXPECT_EQ(str(CText("abc", 9)), "abc");
    EXPECT_EQ(str(CText('x')), "x");
    EXPECT_EQ(CText(static_cast<unsigned char>(0xE9))[0], 0xE9);
    const char* null = nullptr;
    EXPECT_EQ(CText(null).GetBuffer(), nullptr);
    EXPECT_TRUE(CText(null, 5).IsEmpty());
    EXPECT_TRUE(CText('\0').IsEmpty());
    EXPECT_EQ(CText(10u).GetBufferSize(), 11u);
    EXPECT_STREQ(CText(10u).GetText(), "");
    EXPECT_EQ(CText(kMax).GetBuffer(), nullptr);

    CText text("abc");
    EXPECT_EQ(text.GetDataSize(), 4u);
    text.Clear();
    EXPECT_EQ(text.GetDataSize(), 0u);
    EXPECT_STREQ(text.GetTextEx(), "");
    text = -2147483647L;
    text += ' ';
    text += 4294967295UL;
    EXPECT_EQ(str(text), "-2147483647 4294967295");
    text += null;
    text = null;
    EXPECT_TRUE(text.IsEmpty());
}

TEST(Text, LengthGrowsTheBufferAndShrinkKeepsTheTerminator) {
    CText text("abc");
    EXPECT_EQ(text.SetUsableDataSize(4), 5u);
    EXPECT_EQ(text.GetUsableDataSize(), 4u);
    EXPECT_EQ(text.SetUsableDataSize(2), 3u);
    EXPECT_EQ(str(text), "ab");
    EXPECT_EQ(text.SetUsableDataSize(kMax), 3u);
    EXPECT_EQ(text.SetEqualTo("x", kMax, 0), 0u);
    text = std::string(99, 'x').c_str();
    EXPECT_TRUE(text.SetBufferSize(90));
    EXPECT_EQ(text.Length(), 99u);
    EXPECT_TRUE(text.SetBufferSize(50));
    EXPECT_EQ(str(text), std::string(49, 'x'));
    CTextLocal<31> local("abc");
    EXPECT_EQ(local.SetUsableDataSize(31), 4u);
    EXPECT_EQ(local.SetUsableDataSize(30), 31u);
}

TEST(Text, InlineTextsCutCharactersAndRefuseTexts) {
    const std::string forty(40, 'x');
    CTextLocal<31> text(forty.c_str());
    EXPECT_EQ(str(text), forty.substr(0, 30));
    text = "kept";
    text = CText(forty.c_str());
    EXPECT_EQ(str(text), "kept");
    EXPECT_TRUE(CTextLocal<31>(CText(forty.c_str())).IsEmpty());
    text = std::string(28, 'y').c_str();
    text += "12345";
    text += CText("123");
    EXPECT_EQ(str(text), std::string(28, 'y'));
    text += "12";
    text += '3';
    EXPECT_EQ(text.Length(), 30u);

    EXPECT_EQ(text.ReleaseBuffer(nullptr, nullptr), nullptr);
    const CTextLocal<31> copy(text);
    text.ReleaseData();
    EXPECT_EQ(copy.Length(), 30u);
    text = reinterpret_cast<const unsigned char*>("again");
    EXPECT_EQ(str(text), "again");
    text = CText();
    EXPECT_STREQ(text.GetText(), "");
    text.SetDataSize(31);
    EXPECT_EQ(text.SetEqualTo(text.GetBuffer(), 31, 0), 31u);  // a full buffer keeps room for the terminator
    CTextLocal<1> none("x");
    EXPECT_TRUE(none.IsEmpty());
}

TEST(Text, FormatsUpTo16384Characters) {
    for (const std::size_t n : {1u, 128u, 129u, 16384u}) {
        CText text("old");
        const std::string x(n, 'x');
        text.Format("%s", x.c_str());
        EXPECT_EQ(str(text), x);
    }
    for (const std::size_t n : {0u, 16385u, 20000u}) {
        CText text("old");
        text.AppendFormat("%s", std::string(n, 'x').c_str());
        EXPECT_EQ(str(text), "old");
        text.Format("%s", std::string(n, 'x').c_str());
        EXPECT_TRUE(text.IsEmpty());
    }
    CText text("a");
    text.AppendFormat("%s%s%d", text.GetText(), text.GetText(), 7);
    EXPECT_EQ(str(text), "aaa7");
    EXPECT_EQ(str(text.VArgAppFormat("100%", nullptr)), "100%");
    EXPECT_EQ(str(text.VArgAppFormat("", nullptr)), "100%");
    EXPECT_TRUE(text.VArgFormat(nullptr, nullptr).IsEmpty());
}

TEST(Text, ComparesWithoutCaseUnlessToldOtherwise) {
    const CText abc("abc"), empty, terminated("");
    CText onlyTerminator("x");
    onlyTerminator.SetUsableDataSize(0);
    EXPECT_TRUE(CText("Abc") == CText("aBC"));
    EXPECT_TRUE(CText("Abc") == "aBC");
    EXPECT_FALSE(CText("Abc").Equals(CText("aBC"), true));
    EXPECT_TRUE(CText("A") < CText("b"));
    EXPECT_TRUE(empty == onlyTerminator && onlyTerminator == empty && empty == terminated);
    EXPECT_FALSE(empty == abc || abc == empty);
    EXPECT_TRUE(abc.Equals(CData(const_cast<char*>("ABC"), 4, 4)));
    EXPECT_FALSE(abc.Equals(CData(const_cast<char*>("ABCD"), 4, 4)));

    EXPECT_EQ(abc.Compare(nullptr), 'a');
    EXPECT_EQ(empty.Compare(nullptr, 3), 0);
    EXPECT_EQ(abc.Compare(nullptr, 3), -1);
    EXPECT_EQ(empty.Compare("a", 0), 0);
    EXPECT_EQ(empty.Compare("a", 1), -1);
    EXPECT_EQ(abc.Compare("a", 0), 1);

    EXPECT_TRUE(CText("abcdef").Equals("ABC", 3));
    EXPECT_FALSE(CText("abcdef").Equals("abc", 3, true));
    EXPECT_FALSE(abc.Equals("Abc", 3, true));
    EXPECT_FALSE(abc.Equals("abcd", 3, true));
    EXPECT_TRUE(abc.Equals("abc", 3, true) && empty.Equals("abc", 0, true));

    EXPECT_TRUE(abc.FirstNEquals("abcdef", 6, true));
    EXPECT_FALSE(abc.FirstNEquals("aBcdef", 6, true));
    EXPECT_TRUE(abc.FirstNEquals("aBcdef", 6, false));
    EXPECT_TRUE(CText("\xE9").FirstNEquals("\xC9", 1, false));
    EXPECT_FALSE(abc.FirstNEquals("", 0, true) || empty.FirstNEquals("a", 1, true));
    EXPECT_TRUE(empty.FirstNEquals("", 0, true));

    EXPECT_TRUE(abc.CompareLeft(CText("AB")) && abc.CompareLeft(empty));
    EXPECT_FALSE(abc.CompareLeft(CText("abcd")) || empty.CompareLeft(abc));
}

TEST(Text, ExtractsParts) {
    const CText text("abcdef");
    CText part("old");
    text.Left(part, 2);
    EXPECT_EQ(str(part), "ab");
    text.Left(part, kMax);
    EXPECT_EQ(str(part), "abcdef");
    text.Right(part, 2);
    EXPECT_EQ(str(part), "ef");
    text.Right(part, 7);
    EXPECT_EQ(str(part), "abcdef");
    text.Mid(part, 4, kMax);
    EXPECT_EQ(str(part), "ef");
    text.Mid(part, 6, 1);
    EXPECT_TRUE(part.IsEmpty());
    CText self("abcdef");
    self.Mid(self, 2, 3);
    EXPECT_EQ(str(self), "cde");
    self.Right(self, 1);
    EXPECT_EQ(str(self), "e");
}

TEST(Text, CopiesIntoArraysAreTerminated) {
    const CText text("abcdef");
    const struct {
        std::uint32_t size, start, count, result;
        const char* expected;
    } cases[] = {{10, 0, kMax, 6, "abcdef"}, {7, 0, kMax, 6, "abcdef"}, {6, 0, kMax, 5, "abcde"},
                 {1, 0, kMax, 0, ""},        {10, 1, 3, 2, "bcd"},      {10, 7, 1, 0, ""},
                 {10, kMax, 1, 0, ""}};
    for (const auto& c : cases) {
        std::string out(c.size, '#');
        auto* dest = reinterpret_cast<unsigned char*>(&out[0]);
        EXPECT_EQ(text.Copy(dest, c.size, c.start, c.count), c.result);
        EXPECT_STREQ(out.c_str(), c.expected);
        if (c.start != 0 || c.count != kMax) continue;
        out.assign(c.size, '#');
        EXPECT_EQ(text.Copy(dest, c.size), c.result);
        EXPECT_STREQ(out.c_str(), c.expected);
    }
    unsigned char dest[300] = "#";
    EXPECT_EQ(CText().Copy(dest, 3), 0u);
    EXPECT_EQ(dest[0], 0);
    EXPECT_EQ(text.Copy(dest, 0), 0u);
    EXPECT_EQ(text.Copy(nullptr, 3), 0u);

    EXPECT_EQ(text.Copy2PStr(dest, 256), 7u);
    EXPECT_EQ(std::memcmp(dest, "\6abcdef", 8), 0);
    EXPECT_EQ(text.Copy2PStr(dest, 2, 3, 9), 2u);
    EXPECT_EQ(std::memcmp(dest, "\2de", 3), 0);
    EXPECT_EQ(CText().Copy2PStr(dest, 9), 0u);
    EXPECT_EQ(dest[0], 0);
    EXPECT_EQ(CText(std::string(300, 'x').c_str()).Copy2PStr(dest, 256), 256u);
    EXPECT_EQ(dest[0], 255);
}

TEST(TextDeathTest, NullDestinationsStopTheProcess) {
    const CText text("abc");
    unsigned char dest[4];
    EXPECT_DEATH(text.Copy(nullptr, 4, 0, 1), "Server/Common_Classes/UText.*dest != 0 && destLen != 0");
    EXPECT_DEATH(text.Copy(dest, 0, 0, 1), "Server/Common_Classes/UText.*dest != 0 && destLen != 0");
    EXPECT_DEATH(text.Copy2PStr(nullptr, 4), "Server/Common_Classes/UText.*dest != 0");
    EXPECT_DEATH(text.Copy2PStr(nullptr, 4, 0, 1), "Server/Common_Classes/UText.*dest != 0");
}

TEST(Text, FindsPositionsBothWays) {
    const CText text("abcabcab");
    const struct {
        const char* s;
        std::uint32_t start;
        bool forward;
        std::uint32_t expected;
    } cases[] = {{"abc", 0, true, 0},
                 {"abc", 1, true, 3},
                 {"abc", 4, true, kMax},
                 {"ABC", 0, true, kMax},
                 {"b", 8, true, kMax},
                 {"", 0, true, kMax},
                 {nullptr, 0, true, kMax},
                 {"abc", 5, false, 3},
                 {"abc", 4, false, 0},
                 {"abc", 2, false, 0},
                 {"abc", 1, false, kMax},
                 {"ab", 99, false, 6},
                 {"b", 0x80000000u, false, kMax},
                 {"", 3, false, kMax},
                 {"abcabcabc", 8, false, kMax}};
    for (const auto& c : cases) {
        EXPECT_EQ(text.Pos(c.s, c.start, c.forward), c.expected) << (c.s ? c.s : "null") << " " << c.start;
    }
    EXPECT_EQ(CText().Pos("a", 0, false), CText::kNotFound);
}

TEST(Text, ReplacesOccurrences) {
    const struct {
        const char *text, *from, *to;
        bool caseSensitive;
        const char *all, *second;
    } cases[] = {
        {"aXbxXc", "x", "yy", false, "ayybyyyyc", "aXbyyXc"},
        {"aXbxXc", "X", "yy", true, "ayybxyyc", "aXbxyyc"},
        {"aaaa", "aa", "a", true, "aa", "aaa"},
        {"xx", "X", "xx", false, "xxxx", "xxx"},  // what was inserted is not searched again
        {"xx", "x", "", true, "", "x"},
        {"abc", "", "x", true, "abc", "abc"},
        {"", "a", "x", false, "", ""},
        {"abc", "d", "x", false, "abc", "abc"},
    };
    for (const auto& c : cases) {
        CText text(c.text);
        text.ReplaceAll(CText(c.from), CText(c.to), c.caseSensitive);
        EXPECT_EQ(str(text), c.all);
        text = c.text;
        text.ReplaceOccurrence(CText(c.from), CText(c.to), 2, c.caseSensitive);
        EXPECT_EQ(str(text), c.second);
        text.ReplaceOccurrence(CText(c.from), CText(c.to), 0, c.caseSensitive);
        EXPECT_EQ(str(text), c.second);
    }
    // Upper-cased, an acute e is a small e, as no other letter; its capital stays itself.
    CText text("\xE9t\xE9 e \xC9");
    text.ReplaceAll(CText("\xE9"), CText("-"), false);
    EXPECT_EQ(str(text), "-t- e \xC9");
    text.ReplaceAll(CText("\xC9"), CText("e"), false);
    EXPECT_EQ(str(text), "-t- e e");
    text.ReplaceAll(text, text);
    EXPECT_EQ(str(text), "-t- e e");
    CTextLocal<31> local("a b c d e f g h i j");
    local.ReplaceAll(CText(" "), CText(", and "));
    EXPECT_EQ(str(local), "a b c d e f g h i j");
    local.ReplaceText(18, kMax, CText("end"));
    EXPECT_EQ(str(local), "a b c d e f g h i end");
}

TEST(Text, TrimsPadsAndStrips) {
    using Change = void (*)(CText&);
    const struct {
        const char* text;
        Change change;
        const char* expected;
    } cases[] = {
        {" a \t\n", [](CText& t) { t.Trim(); }, " a"},
        {"a\r", [](CText& t) { t.Trim(); }, "a\r"},
        {" \n ", [](CText& t) { t.Trim(); }, ""},
        {"  a\t  ", [](CText& t) { t.TrimSpaces(true); }, "  a\t"},
        {"  \ta ", [](CText& t) { t.TrimSpaces(false); }, "\ta "},
        {" \r\n\ta\r\n ", [](CText& t) { t.TrimWhiteSpaces(true); }, " \r\n\ta"},
        {" \r\n\ta\r\n ", [](CText& t) { t.TrimWhiteSpaces(false); }, "a\r\n "},
        {"xxaxx", [](CText& t) { t.Trim('x', false); }, "xxa"},
        {"xxaxx", [](CText& t) { t.Trim('x', true); }, "axx"},
        {"ab", [](CText& t) { t.Pad('-', 5, true); }, "ab---"},
        {"ab", [](CText& t) { t.Pad('-', 5, false); }, "---ab"},
        {"", [](CText& t) { t.Pad('-', 2, false); }, "--"},
        {"abc", [](CText& t) { t.Pad('-', 3, true); }, "abc"},
        {"abc", [](CText& t) { t.Pad('-', kMax, true); }, "abc"},
        {"'a'", [](CText& t) { t.StripQuotes(); }, "a"},
        {"\"\"", [](CText& t) { t.StripQuotes(); }, ""},
        {"'a\"", [](CText& t) { t.StripQuotes(); }, "'a\""},
        {"'", [](CText& t) { t.StripQuotes(); }, "'"},
        {"  (a)", [](CText& t) { t.StripBrackets(); }, "a"},
        {"[a]", [](CText& t) { t.StripBrackets(); }, "a"},
        {" (a]", [](CText& t) { t.StripBrackets(); }, "(a]"},
        {"abcabc", [](CText& t) { t.Filter(CText("ca"), false); }, "acac"},
        {"abcabc", [](CText& t) { t.Filter(CText("ca"), true); }, "bb"},
        {"abcabc", [](CText& t) { t.Filter(t, true); }, ""},
        {"abc", [](CText& t) { t.Filter(CText(), true); }, "abc"},
        {"abc", [](CText& t) { t.Reverse(); }, "cba"},
        {"aaaa bbbb cccc", [](CText& t) { t.Fold(10); }, "aaaa bbbb\rcccc"},
        {"aaaa bbbbbbb", [](CText& t) { t.Fold(10); }, "aaaa\rbbbbbbb"},
        {"aaaa bbbb", [](CText& t) { t.Fold(10); }, "aaaa bbbb"},
        {"a\tb c d e", [](CText& t) { t.Fold(9); }, "a\rb c d e"},
        {" aaaaaa bb", [](CText& t) { t.Fold(4); }, " aaaaaa\rbb"},
        {"aaa\nbbbbb c", [](CText& t) { t.Fold(5); }, "aaa\rbbbbb\rc"},
        {"aa bbbb cc", [](CText& t) { t.Fold(5); }, "aa\rbbbb\rcc"},
        {"a\\\"b", [](CText& t) { t.RemoveEscapes(0, -1); }, "a\"b"},
        {"'a\\b' \\'\\\\", [](CText& t) { t.RemoveEscapes(0, -1); }, "'a\\b' '\\"},
        {"\"a'\\b'\"\\c", [](CText& t) { t.RemoveEscapes(0, -1); }, "\"a'\\b'\"c"},
        {"\\a\\b\\c", [](CText& t) { t.RemoveEscapes(2, 2); }, "\\ab"},
        {"\\a\\b\\c", [](CText& t) { t.RemoveEscapes(6, -1); }, "\\a\\b\\c"},
    };
    for (const auto& c : cases) {
        CText text(c.text);
        c.change(text);
        EXPECT_EQ(str(text), c.expected) << c.text;
    }
}

TEST(Text, ReadsNumbers) {
    const struct {
        const char* text;
        std::uint32_t number, mask, code;
    } cases[] = {
        {"", 0, 0, 0},
        {"101", 101, 5, 0x31303100},
        {"102", 102, 0, 0x31303200},
        {" 18155x", 18155, 0, 0x20313831},
        {"-1", kMax, 0, 0x2D310000},
        {"4294967302", kMax, 0, 0x34323934},
        {"ABCD", 0, 0, 0x41424344},
    };
    for (const auto& c : cases) {
        const CText text(c.text);
        EXPECT_EQ(text.GetTextAsULong(), c.number) << c.text;
        EXPECT_EQ(text.GetTextAsBitMask(), c.mask) << c.text;
        EXPECT_EQ(text.CastDataToLong(), c.code) << c.text;
    }
}

TEST(Text, ScansCookies) {
    const struct {
        const char *cookies, *name, *expected;
    } cases[] = {
        {"A=1; SID=xyz; B=2", "SID", "xyz"},
        {"A=1; SID=xyz; B=2", "ID", "xyz"},
        {"SID = xyz", "SID", "xyz"},
        {"SID=xyz", "SID", "xyz"},
        {"SID= xyz", "SID", " xyz"},
        {"SID  =a b\r\nc", "SID", "a b"},
        {"SID; SIDE; SID=2", "SID", "2"},
        {"SID=;SID=2", "SID", ""},
        {"SID and nothing", "SID", ""},
        {"sid=1", "SID", ""},
        {"SIDSID=1", "SID", ""},
        {"SID=1", "", ""},
        {"", "SID", ""},
    };
    for (const auto& c : cases) {
        CText value("old");
        EXPECT_EQ(&ScanCookie(CText(c.cookies), CText(c.name), value, ';'), &value);
        EXPECT_EQ(str(value), c.expected) << c.cookies;
    }
    CTextLocal<31> local;
    ScanCookie(CText(("S=" + std::string(40, 'x')).c_str()), CText("S"), local, '&');
    EXPECT_EQ(local.Length(), 30u);
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
        std::string src(below(12), '\0');
        for (char& c : src)
            c = static_cast<char>('a' + below(3));
        const std::uint32_t at = below(model.size() + 1), count = below(6);
        const std::string cut = model.substr(0, at),
                          rest = model.substr(std::min<std::size_t>(at + count, model.size()));
        const std::function<void()> changes[] = {
            [&] { text = src.c_str(), model = src.substr(0, capacity); },
            [&] {
                text += src.c_str(), model.empty() ? void(model = src.substr(0, capacity)) : fit(model + src);
            },
            [&] { text = CText(src.c_str()), fit(src); },
            [&] { text = text.GetTextEx() + at, model = model.substr(at); },
            [&] { text += CText(src.c_str()), fit(model + src); },
            [&] { text += text, fit(model + model); },
            [&] { text += 'z', fit(model + 'z'); },
            [&] { text.ReplaceText(at, count, CText(src.c_str())), fit(cut + src + rest); },
            [&] { text.ReplaceText(at, count, text), fit(cut + model + rest); },
            [&] { text.Mid(text, at, count), model = model.substr(at, count); },
        };
        changes[model.size() > 500 ? 0 : below(std::size(changes))]();
        ASSERT_EQ(text.GetTextEx(), model) << "step " << step;
        ASSERT_EQ(text.Length(), model.size()) << "step " << step;
    }
}

TEST(Text, RandomChangesMatchAString) {
    compareWithString<CText>(kMax);
    compareWithString<CTextLocal<31>>(30);
}

}  // namespace
