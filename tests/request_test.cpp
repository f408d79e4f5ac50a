// The request record and its parameter table.
#include <gtest/gtest.h>

#include <new>
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
        EXPECT_TRUE(request.GetParamAttribute(name.c_str())->value().IsEmpty());
    }
    EXPECT_EQ(FindQuilParamID("http_Cookie"), 19u);
    for (const char* unknown : {static_cast<const char*>(nullptr), "", "COOKIE", "HTTP_COOKIE "})
        EXPECT_EQ(FindQuilParamID(unknown), 25u);
}

TEST(QuilRequest, SetsOnlyParametersThatThereAre) {
    TQuilRequest request;
    EXPECT_TRUE(request.SetParamAttribute("fullheader", "full"));
    EXPECT_STREQ(request.GetParamAttribute(QUIL_PARAM_FULLHEADER)->value().GetTextEx(), "full");
    EXPECT_STREQ(request.GetParamAttribute(QUIL_PARAM_FULLHEADER)->key().GetTextEx(), "FULLHEADER");
    EXPECT_TRUE(request.SetParamAttribute(QUIL_PARAM_FULLHEADER, nullptr));
    EXPECT_TRUE(request.GetParamAttribute("FullHeader")->value().IsEmpty());
    for (const std::uint32_t unknown : {25u, 26u, 0xFFFFFFFFu}) {
        const auto id = static_cast<TQUILReqParamID>(unknown);
        EXPECT_FALSE(request.SetParamAttribute(id, "x"));
        EXPECT_EQ(request.GetParamAttribute(id), nullptr);
        EXPECT_EQ(FindQuilParamName(id), nullptr);
    }
    EXPECT_FALSE(request.SetParamAttribute("PATH", "x"));
    EXPECT_EQ(request.GetParamAttribute("PATH"), nullptr);
}

TEST(QuilRequest, KeepsTheBodyAsItIs) {
    const unsigned char body[] = {'a', 0, 0xFF, 'b'};
    TQuilRequest request;
    EXPECT_EQ(request.postArgs().GetDataSize(), 0u);
    request.SetPostArgs(body, sizeof body);
    EXPECT_TRUE(
        request.postArgs().Equals("a\0\xFF"
                                  "b",
                                  4));
    request.SetPostArgs(body, 0);
    EXPECT_EQ(request.postArgs().GetDataSize(), 0u);
}

TEST(QuilRequest, HandleHoldsWhileTheRecordLives) {
    alignas(TQuilRequest) unsigned char memory[sizeof(TQuilRequest)] = {};
    EXPECT_EQ(TQuilRequest::CastHandleToQuilRequest(nullptr), nullptr);
    EXPECT_EQ(TQuilRequest::CastHandleToQuilRequest(memory), nullptr);
    auto* request = new (memory) TQuilRequest;
    EXPECT_EQ(TQuilRequest::CastHandleToQuilRequest(memory), request);
    request->~TQuilRequest();
    EXPECT_EQ(TQuilRequest::CastHandleToQuilRequest(memory), nullptr);
}

}  // namespace
