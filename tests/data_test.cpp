// CData: growth figures, foreign buffers, splices, and sources that lie inside the block itself.
#include "Server/Common_Classes/UData.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <random>
#include <string>

namespace {

constexpr std::uint32_t kMax = UINT32_MAX;

std::string content(const CData& block) {
    return std::string(reinterpret_cast<const char*>(block.GetBuffer()), block.GetDataSize());
}

void assign(CData& block, const std::string& bytes) {
    block.SetEqualTo(bytes.data(), static_cast<std::uint32_t>(bytes.size()), 0);
}

TEST(Data, BufferSizesFollowTheGrowthSteps) {
    const struct {
        std::uint32_t from, asked, expected;
        bool ok;
    } cases[] = {
        {0, 10, 10, true},          {10, 17, 32, true},       {10, 16, 32, true},
        {5000, 5001, 8192, true},   {4096, 4097, 4112, true}, {4097, 4098, 8192, true},
        {8192, 8192, 8192, true},   {100, 80, 100, true},     {100, 69, 100, true},
        {100, 68, 68, true},        {100, 60, 60, true},      {100, 0, 0, true},
        {10, kMax - 15, 10, false}, {10, kMax, 10, false},    {4097, kMax - 4095, 4097, false},
        {4097, kMax, 4097, false},
    };
    for (const auto& c : cases) {
        CData block(c.from);
        EXPECT_EQ(block.SetBufferSize(c.asked), c.ok) << c.from << " -> " << c.asked;
        EXPECT_EQ(block.GetBufferSize(), c.expected) << c.from << " -> " << c.asked;
        EXPECT_EQ(block.GetBuffer() == nullptr, c.expected == 0);
    }
}

TEST(Data, ShrinkCutsTheDataAndFirstAllocationIsZeroTerminated) {
    CData block(100);
    EXPECT_EQ(block.GetBuffer()[0], 0);
    EXPECT_EQ(block.SetDataSize(101), 0u);
    EXPECT_EQ(block.SetUsableDataSize(90), 90u);
    block.SetBufferSize(60);
    EXPECT_EQ(block.GetDataSize(), 60u);
}

TEST(Data, ForeignBufferStoresWhatFitsBesideTheReserve) {
    const std::string src = "0123456789abcdefghij";
    const struct {
        std::uint32_t reserve;
        const char* expected;
    } cases[] = {{0, "0123456789abcdef"}, {21, "0123456789abcde"}, {35, "0"}, {36, ""}, {40, ""}, {kMax, ""}};
    for (const auto& c : cases) {
        char array[17] = "................";
        CData block(array, 16, 3);
        EXPECT_FALSE(block.SetBufferSize(17));
        EXPECT_TRUE(block.SetBufferSize(16));
        EXPECT_EQ(block.SetEqualTo(src.data(), 20, c.reserve), std::string(c.expected).size());
        EXPECT_EQ(content(block), c.expected) << c.reserve;
        EXPECT_EQ(array[0], c.expected[0]);
        EXPECT_EQ(array[16], 0);
    }
}

TEST(Data, ForeignBufferOutOfReachIsNeverTouched) {
    auto array = std::make_unique<char[]>(4);
    {
        CData block;
        assign(block, "owned");
        block.SetBuffer(array.get(), 4, 4);
        block.ReleaseData();
        EXPECT_EQ(reinterpret_cast<char*>(block.GetBuffer()), array.get());
        EXPECT_EQ(block.SetEqualTo("x", 1, 0), 0u);
        block.SetBuffer(array.get(), 4, 9);
        EXPECT_EQ(block.GetDataSize(), 4u);
        array.reset();  // a destructor that writes here is caught by the address sanitizer
    }
    char beyond[] = "x";
    CData(beyond, 0, 0).Clear();
    EXPECT_STREQ(beyond, "x");
    CData nothing(nullptr, 8, 8);
    nothing.Replace(0, 0, "abc", 3);
    EXPECT_EQ(nothing.GetDataSize(), 0u);
}

TEST(Data, ReleaseBufferHandsTheBytesOver) {
    CData block(20);
    assign(block, "abc");
    std::uint32_t dataSize = 0, bufferSize = 0;
    unsigned char* bytes = block.ReleaseBuffer(&dataSize, &bufferSize);
    EXPECT_EQ(std::string(reinterpret_cast<char*>(bytes), dataSize), "abc");
    EXPECT_EQ(bufferSize, 20u);
    EXPECT_EQ(block.GetBuffer(), nullptr);
    EXPECT_EQ(block.ReleaseBuffer(nullptr, nullptr), nullptr);
    std::free(bytes);
}

TEST(Data, SplicesAndCopiesCutToTheData) {
    const struct {
        std::uint32_t pos, count;
        const char *src, *expected;
    } cases[] = {
        {2, 1, "xyz", "abxyzd"}, {1, 2, nullptr, "ad"},    {9, 9, "!", "abcd!"},
        {1, kMax, "-", "a-"},    {kMax, kMax, "", "abcd"},
    };
    for (const auto& c : cases) {
        CData block;
        assign(block, "abcd");
        block.Replace(c.pos, c.count, c.src,
                      c.src == nullptr ? 0 : static_cast<std::uint32_t>(std::strlen(c.src)));
        EXPECT_EQ(content(block), c.expected);
    }
    CData block, part;
    assign(block, "abcd");
    unsigned char out[8] = {};
    EXPECT_EQ(block.Copy(out, 3), 3u);
    EXPECT_EQ(block.Copy(out, 8, 3, kMax), 1u);
    EXPECT_EQ(out[0], 'd');
    EXPECT_EQ(block.Copy(out, 8, 5, 1), 0u);
    EXPECT_EQ(block.Copy(nullptr, 8), 0u);
    block.Copy(part, 1, 2);
    EXPECT_EQ(content(part), "bc");
    EXPECT_EQ(block[3], 'd');
    EXPECT_EQ(block[4], 0);
    EXPECT_EQ(CData()[0], 0);
    block.Replace(1, 2, -7L);
    EXPECT_EQ(content(block), "a-7d");
    EXPECT_TRUE(block.Equals("a-7d", 4));
    EXPECT_FALSE(block.Equals("a-7d", 3));
    EXPECT_FALSE(block.Equals(part));
    EXPECT_TRUE(CData().Equals(CData(5)));
}

TEST(Data, SizesThatPass32BitsChangeNothing) {
    CData block;
    assign(block, "abcd");
    block.Replace(2, 0, nullptr, kMax);
    block.Replace(2, 1, nullptr, kMax - 2);
    EXPECT_EQ(content(block), "abcd");
    EXPECT_EQ(block.GetBufferSize(), 4u);
}

TEST(Data, AViewOfTheBlockMayBeAssignedToIt) {
    CData block(200);
    assign(block, std::string(100, 'x') + "tail" + std::string(96, 'y'));
    const CData view(block.GetBuffer() + 100, 4, 4);
    block = view;
    EXPECT_EQ(content(block), "tail");
    EXPECT_EQ(block.GetBufferSize(), 4u);
    CData& self = block;
    block = self;
    EXPECT_EQ(content(block), "tail");
}

// A derived class's sizing rule holds inside the operations of the base.
class Limited : public CData {
  public:
    using CData::CData;
    bool SetBufferSize(std::uint32_t n) override { return n <= 8 && CData::SetBufferSize(n); }
    void Clear() override {
        ++clears;
        CData::Clear();
    }
    int clears = 0;
};

TEST(Data, OperationsGoThroughTheVirtualSlots) {
    Limited block;
    assign(block, "12345678");
    block.Replace(8, 0, static_cast<unsigned char>('9'));
    EXPECT_EQ(content(block), "12345678");
    assign(block, "123456789");
    EXPECT_EQ(content(block), "12345678");
    block.ReleaseData();
    EXPECT_EQ(block.clears, 1);
}

// Assignments and splices, with outside sources and with the block itself as the source, against a string.
void compareWithString(CData& block, std::size_t capacity) {
    std::mt19937 random(20040517);
    const auto below = [&](std::size_t n) { return static_cast<std::uint32_t>(random() % n); };
    std::string model;
    for (int step = 0; step < 20000; ++step) {
        std::string src(below(3) == 0 ? below(90) : below(6), '\0');
        for (char& c : src)
            c = static_cast<char>(random());
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
        ASSERT_LE(block.GetDataSize(), block.GetBufferSize());
    }
}

TEST(Data, RandomSplicesMatchAString) {
    CData owned;
    compareWithString(owned, kMax);
    auto array = std::make_unique<char[]>(64);
    CData foreign(array.get(), 64, 0);
    compareWithString(foreign, 64);
}

}  // namespace
