// The request record and its parameter table.
#include <gtest/gtest.h>

#include "protocol/QuilRequest.h"

namespace {

TEST(QuilRequest, SetsOnlyParametersThatThereAre) {
    TQuilRequest request;
    EXPECT_TRUE(request.SetParamAttribute("fullheader", "full"));
    EXPECT_STREQ(request.GetParamAttribute(QUIL_PARAM_FULLHEADER)->value().GetTextEx(), "full");
    EXPECT_TRUE(request.SetParamAttribute(QUIL_PARAM_FULLHEADER, nullptr));
    EXPECT_TRUE(request.GetParamAttribute("FullHeader")->value().IsEmpty());
    EXPECT_EQ(FindQuilParamID("http_Cookie"), 19u);
    for (const char* unknown : {static_cast<const char*>(nullptr), "", "COOKIE", "HTTP_COOKIE "})
        EXPECT_FALSE(request.SetParamAttribute(unknown, "x"));
    for (const std::uint32_t unknown : {25u, 0xFFFFFFFFu}) {
        const auto id = static_cast<TQUILReqParamID>(unknown);
        EXPECT_FALSE(request.SetParamAttribute(id, "x") || request.GetParamAttribute(id));
        EXPECT_EQ(FindQuilParamName(id), nullptr);
    }
}

}  // namespace
