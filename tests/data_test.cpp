// CData: growth figures, foreign buffers, splices, and sources that lie inside the block itself.
#include "Server/Common_Classes/UData.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>
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

// Assignments and splices, with outside sources and with the block itself as the source, against a string.
void compareWithString(CData& block, std::size_t capacity) {
    std::mt19937 random(20040517);
    const auto below = [&](std::size_t n) { return static_cast<std::uint32_t>(random() % n); };
    std::string pool(100, '\0'), model;
    for (char& c : pool)
        c = static_cast<char>(random());
    for (int step = 0; step < 20000; ++step) {
        std::string src = pool.substr(below(100), below(3) == 0 ? below(90) : below(6));
        const void* bytes = src.data();
        if (below(3) == 0 && !model.empty()) {  // from the block itself
            const std::uint32_t at = below(model.size());
            src = model.substr(at, below(model.size() - at + 1));
            bytes = block.GetBuffer() + at;
        }
        const auto length = static_cast<std::uint32_t>(src.size());
        if (model.empty() || model.size() > 600 || below(8) == 0) {
            block.SetEqualTo(bytes, length, 0);
            model = src.substr(0, capacity);
        } else {
            const std::uint32_t pos = below(model.size() + 3), count = below(12);
            block.Replace(pos, count, bytes, length);
            std::string spliced = model;
            spliced.replace(std::min<std::size_t>(pos, model.size()), count, src);
            if (spliced.size() <= capacity) model = spliced;
        }
        ASSERT_EQ(content(block), model) << "step " << step;
    }
}

TEST(Data, RandomSplicesMatchAString) {
    CData owned;
    compareWithString(owned, kMax);
    char array[64];
    CData foreign(array, sizeof array, 0);
    compareWithString(foreign, sizeof array);
}

}  // namespace
