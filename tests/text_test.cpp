// CText, CTextLocal<N>, CData beneath them and ScanCookie: what a comparison with std::string leaves out.
#include "Server/Common_Classes/UText.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <type_traits>

namespace {

constexpr std::uint32_t kMax = UINT32_MAX;

TEST(Text, ChangesInPlace) {
    const struct {
        const char* text;
        void (*change)(CText&);
        std::string expected;
    } cases[] = {
        {"abc", [](CText& t) { t = static_cast<const char*>(nullptr); }, ""},
        {"a", [](CText& t) { (t += -2147483647L) += 4294967295UL; }, "a-21474836474294967295"},
        {"a", [](CText& t) { t.AppendFormat("%s%s%d", t.GetText(), t.GetText(), 7); }, "aaa7"},
        {"a", [](CText& t) { t.Format("%16384d", 1); }, std::string(16383, ' ') + "1"},
        {"a", [](CText& t) { t.AppendFormat("%16385d", 1); }, "a"},
        {"abc", [](CText& t) { t.Right(t, 2); }, "bc"},
        {"abc", [](CText& t) { t.Replace(0, 0, t.GetText() + 1, 2); }, "bcabc"},
        {" a\r \t\n", [](CText& t) { t.Trim(); }, " a\r"},
        {"  \ta ", [](CText& t) { t.TrimSpaces(false); }, "\ta "},
        {"abc", [](CText& t) { t.Pad('-', kMax, true); }, "abc"},
        {"'a'", [](CText& t) { t.StripQuotes(); }, "a"},
        {"'", [](CText& t) { t.StripQuotes(); }, "'"},
        {"  (a)", [](CText& t) { t.StripBrackets(); }, "a"},
        {"az\xE9\xFF", [](CText& t) { t.UpperCase(); }, "AZe\xDF"},
        {"AZ\xC9\xDF", [](CText& t) { t.LowerCase(); }, "az\xE9\xFF"},
        {"aaa\nbbbbb c", [](CText& t) { t.Fold(5); }, "aaa\rbbbbb\rc"},
        {"\"a'\\b'\"\\c", [](CText& t) { t.RemoveEscapes(0, -1); }, "\"a'\\b'\"c"},
    };
    for (const auto& c : cases) {
        CText text(c.text);
        c.change(text);
        EXPECT_EQ(text.GetTextEx(), c.expected) << c.text;
    }
}

TEST(Text, InlineTextsKeepTheirBuffer) {
    CTextLocal<31> text("kept");
    EXPECT_EQ(text.ReleaseBuffer(nullptr, nullptr), nullptr);
    EXPECT_TRUE(CTextLocal<31>(text) == "kept" && CTextLocal<1>("x").IsEmpty());
    static_assert(!std::is_assignable_v<CTextLocal<31>&, long>);
    static_assert(!std::is_constructible_v<CTextLocal<31>, unsigned long>);
    text.ReleaseData();
    text = "again";
    EXPECT_STREQ(text.GetTextEx(), "again");
}

TEST(Text, ComparesWithoutCaseUnlessToldOtherwise) {
    const CText abc("abc"), empty, terminated("");
    EXPECT_TRUE(empty == terminated && abc.Compare(nullptr) > 0 && abc.Compare("a", 0) == 1);
    EXPECT_TRUE(abc.Equals("ABCd", 3) && abc.Equals("abc", 3, true) && abc.FirstNEquals("aBcd", 4, false));
    EXPECT_FALSE(abc.Equals(CText("aBC"), true) || abc.FirstNEquals("aBc", 3, true) ||
                 abc.Equals("abcd", 4, true) || abc.FirstNEquals("", 0, true));
    const std::unique_ptr<char[]> shorter(new char[2]{'a', 0});  // where an address sanitizer sees its end
    EXPECT_FALSE(abc.FirstNEquals(shorter.get(), 3, true));
}

TEST(Text, TerminatesWhatItCopiesIntoArrays) {
    const CText text("abcdef");
    char dest[9] = "########";
    auto* const bytes = reinterpret_cast<unsigned char*>(dest);
    EXPECT_EQ(text.Copy(bytes, 6), 5u);
    EXPECT_STREQ(dest, "abcde");
    EXPECT_EQ(text.Copy2PStr(bytes, 2, 3, 9), 2u);
    EXPECT_STREQ(dest, "\2dede");
    EXPECT_DEATH(text.Copy(bytes, 0, 0, 1), "Server/Common_Classes/UText.*dest != 0 && destLen != 0");
}

TEST(Text, ReadsNumbers) {
    EXPECT_EQ(CText(" 18155x").GetTextAsULong(), 18155u);
    EXPECT_EQ(CText("4294967302").GetTextAsULong(), kMax);
    EXPECT_TRUE(CText("101").GetTextAsBitMask() == 5 && CText("101").CastDataToLong() == 0x31303100);
}

TEST(Text, ScansCookies) {
    CText value("old");
    EXPECT_TRUE(ScanCookie("sid=1; Sid=2", "SID", value, ';').IsEmpty());
    EXPECT_STREQ(ScanCookie("A=1; SID=xyz; B=2", "ID", value, ';').GetTextEx(), "xyz");
    EXPECT_STREQ(ScanCookie("SID = xyz", "SID", value, ';').GetTextEx(), "xyz");
    EXPECT_STREQ(ScanCookie("SID= x y\r\n", "SID", value, ';').GetTextEx(), " x y");
    EXPECT_STREQ(ScanCookie("SID; SIDE; SID=2", "SID", value, ';').GetTextEx(), "2");
}

TEST(Data, StoresInAForeignBufferWhatFitsBesideTheReserve) {
    char array[17] = "................";
    CData block(array, 16, 3);
    EXPECT_EQ(block.SetEqualTo("0123456789abcdefghij", 20, 0), 16u);
    EXPECT_STREQ(array, "0123456789abcdef");
    EXPECT_EQ(block.SetEqualTo("0123456789abcdefghij", 20, 35), 1u);
}

TEST(Data, CutsRangesAndTakesNoSizeBeyond32Bits) {
    CData block, part;
    block.SetEqualTo("abcd", 4, 0);
    block.Copy(part, 2, kMax);
    EXPECT_TRUE(part.Equals("cd", 2) && !part.Equals("cd", 1) && block[3] == 'd' && block[4] == 0);
    EXPECT_EQ(block.Copy(part.GetBuffer(), 1, 3, kMax), 1u);
    EXPECT_EQ(block.Copy(part.GetBuffer(), 1, 5, 1), 0u);
    EXPECT_EQ(block.Copy(part.GetBuffer(), 2, 0, 1), 1u);
    block.Replace(2, 1, nullptr, kMax - 2);
    block.Replace(1, kMax, -7L);
    EXPECT_TRUE(!block.SetBufferSize(kMax - 10) && block.Equals("a-7", 3));
}

}  // namespace
