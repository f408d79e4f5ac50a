// The request record and its parameter table.
#include <gtest/gtest.h>

#include <string>

#include "protocol/QuilRequest.h"
#include "support/Wire.h"

namespace {

TEST(QuilRequest, NamesItsParametersInIdOrder) {
    TQuilRequest request;
    for (std::uint32_t i = 0; i < 25; ++i) {
        const auto id = static_cast<TQUILReqParamID>(i);
        const std::string name = support::wire::kParameters[i];
        EXPECT_EQ(FindQuilParamName(id), name);
        EXPECT_EQ(FindQuilParamID(name.c_str()), id);
        EXPECT_EQ(request.GetParamAttribute(id)->key().GetTextEx(), name);
    }
    EXPECT_EQ(FindQuilParamID("http_Cookie"), 19u);
    for (const char* unknown : {static_cast<const char*>(nullptr), "", "COOKIE", "HTTP_COOKIE "})
        EXPECT_EQ(FindQuilParamID(unknown), 25u);
}

TEST(QuilRequest, SetsOnlyParametersThatThereAre) {
    TQuilRequest request;
    EXPECT_TRUE(request.SetParamAttribute("fullheader", "full"));
    EXPECT_STREQ(request.GetParamAttribute(QUIL_PARAM_FULLHEADER)->value().GetTextEx(), "full");
    EXPECT_TRUE(request.SetParamAttribute(QUIL_PARAM_FULLHEADER, nullptr));
    EXPECT_TRUE(request.GetParamAttribute("FullHeader")->value().IsEmpty());
    EXPECT_FALSE(request.SetParamAttribute("PATH", "x"));
    for (const std::uint32_t unknown : {25u, 0xFFFFFFFFu}) {
        const auto id = static_cast<TQUILReqParamID>(unknown);
        EXPECT_FALSE(request.SetParamAttribute(id, "x") || request.GetParamAttribute(id));
        EXPECT_EQ(FindQuilParamName(id), nullptr);
    }
}

}  // namespace
