// CData: growth figures, foreign buffers, splices, and sources that lie inside the block itself.
#include "Server/Common_Classes/UData.h"

#include <gtest/gtest.h>

#include <string>
#include <utility>

namespace {

constexpr std::uint32_t kMax = UINT32_MAX;

std::string content(const CData& block) {
    return std::string(reinterpret_cast<const char*>(block.GetBuffer()), block.GetDataSize());
}

TEST(Data, BufferSizesFollowTheGrowthSteps) {
    const struct {
        std::uint32_t from, asked, expected;
    } cases[] = {{10, 17, 32},   {5000, 5001, 8192}, {4096, 4097, 4112},  {4097, 4098, 8192},
                 {100, 69, 100}, {100, 68, 68},      {10, kMax - 15, 10}, {4097, kMax - 4095, 4097}};
    for (const auto& c : cases) {
        CData block(c.from);
        EXPECT_EQ(block.SetBufferSize(c.asked), c.expected >= c.asked) << c.from << " -> " << c.asked;
        EXPECT_EQ(block.GetBufferSize(), c.expected) << c.from << " -> " << c.asked;
    }
}

TEST(Data, ForeignBufferStoresWhatFitsBesideTheReserve) {
    const std::pair<std::uint32_t, std::string> cases[] = {
        {0, "0123456789abcdef"}, {21, "0123456789abcde"}, {35, "0"}, {36, ""}, {kMax, ""}};
    for (const auto& [reserve, expected] : cases) {
        char array[17] = "................";
        CData block(array, 16, 3);
        EXPECT_FALSE(block.SetBufferSize(17));
        EXPECT_EQ(block.SetEqualTo("0123456789abcdefghij", 20, reserve), expected.size());
        EXPECT_EQ(content(block), expected) << reserve;
        EXPECT_EQ(array[16], 0);
    }
}

TEST(Data, RangesAreCutAndSizesThatPass32BitsChangeNothing) {
    CData block, part;
    unsigned char out[8] = {};
    block.SetEqualTo("abcd", 4, 0);
    EXPECT_EQ(block.Copy(out, 8, 3, kMax), 1u);
    EXPECT_EQ(block.Copy(out, 8, 5, 1), 0u);
    EXPECT_EQ(block[4] + CData()[0], 0);
    block.Copy(part, 1, 2);
    EXPECT_TRUE(part.Equals("bc", 2) && CData().Equals(CData(5)));
    EXPECT_FALSE(part.Equals("bc", 1) || part.Equals(block));
    block.Replace(2, 1, nullptr, kMax - 2);
    EXPECT_EQ(content(block), "abcd");
    block.Replace(1, kMax, -7L);
    EXPECT_EQ(content(block), "a-7");
}

}  // namespace
