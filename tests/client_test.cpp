// The client interface as a host uses it: settings from a folder of the test's own, buffers, handles, pages.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <new>
#include <string>

#include "client/ClientEnvironment.h"
#include "client/QuilClientError.h"
#include "client/Velarto.h"
#include "protocol/SocCGIQuilClient.h"
#include "support/Contains.h"
#include "support/TempDir.h"

namespace {

const std::string kServer = "VELARTO_SERVER=a,1\n";

class Client : public ::testing::Test {
  protected:
    Client() {
        mkdir((folder_ / "configuration").c_str(), 0700);
        setenv("VELARTO_PATH", folder_.path().c_str(), 1);
    }
    ~Client() override {
        EXPECT_TRUE(VeClientFreeRequest(connection_, request_) && VeClientDestroyConnection(connection_));
    }

    bool setUp(const std::string& lines, bool oneShot = true) const {
        support::writeFile(file_, "[Velarto Client Definitions]\nshop=\n\n[shop]\n" + lines);
        return VeClientInitEnvironment(oneShot, nullptr, "shop");
    }

    const support::TempDir folder_;
    const std::string file_ = folder_ / "configuration/clients.ini";
    ve_hclient_t* const connection_ = VeClientCreateConnection(0);
    ve_hrequest_t* const request_ = VeClientAllocRequest(connection_);
};

TEST_F(Client, TakesItsSettingsAndThoseOfAChangedFile) {
    EXPECT_TRUE(setUp(kServer) && IsVelartoExtns("x.ZML") && VeClientCleanUp()) << "the default";
    ASSERT_TRUE(setUp(kServer + "DOCUMENTPATH=/docs\nREGISTER_EXTNS=zaf;htm,,a:b\nSENDFULLHEADER=Table\n"
                                "CLIENTIOTIMEOUT=4294968\n"));
    EXPECT_EQ(ClientRrWrTimeout, 4294967000u) << "the longest";
    EXPECT_TRUE(IsFullHeaderSupport() && IsVelartoExtns("/x.y.HTM") && IsVelartoExtns("B.A"));
    EXPECT_FALSE(IsVelartoExtns("x.zhtml") || IsVelartoExtns("x.ht") || IsVelartoExtns("htm"));

    // A file changed so long after it was read, and whether the thread ends with it.
    const auto change = [&](const std::string& lines, time_t seconds) {
        setUp(lines);  // writes the file only: a second set-up is refused
        const timespec time = {configFile->GetParseTimestamp() + seconds, 0}, times[] = {time, time};
        utimensat(AT_FDCWD, file_.c_str(), times, 0);
        return ClientThreadProc(nullptr);
    };
    EXPECT_TRUE(!change(kServer, 0) && IsFullHeaderSupport());
    EXPECT_TRUE(!change(kServer, 1) && !IsFullHeaderSupport() && IsVelartoExtns("x.htm"));
    EXPECT_STREQ(GetDocumentPath(), "/docs");
    EXPECT_TRUE(change("SENDFULLHEADER=y\n", 2) && !IsFullHeaderSupport()) << "no server";
    EXPECT_TRUE(VeClientCleanUp() && !VeClientCleanUp());
    for (int i = 0; i < 2; ++i)
        EXPECT_TRUE(setUp(kServer, false) && VeClientCleanUp()) << "with a thread of its own";
}

TEST_F(Client, FillsItsBuffers) {
    std::uint32_t size = 0;
    EXPECT_TRUE(VeRequestGetPostArgBuffer(request_, 10) && VeRequestSetPostArgDataSize(request_, 10));
    EXPECT_FALSE(VeRequestSetPostArgDataSize(request_, 11) || VeRequestSetPostArgData(request_, "a", 0));
    EXPECT_TRUE(VeRequestSetPostArgData(request_, "a\0b", 3));
    const unsigned char* body = VeRequestGetPostArgData(request_, &size);
    EXPECT_EQ(std::string(body, body + size), std::string("a\0b", 3));
    EXPECT_FALSE(VeRequestSetAtrtibute(request_, QUIL_PARAM_NONE, "x"));
    EXPECT_FALSE(VeRequestGetAtrtibute(request_, QUIL_PARAM_NONE));

    EXPECT_TRUE(VeClientGetScratchBuffer(connection_, 100000, &size) && size >= 100000);
    EXPECT_TRUE(VeClientGetScratchBuffer(connection_, 0, &size) && size >= 5120 && size < 100000);
    EXPECT_EQ(VeClientSetScratchDataSize(connection_, 5), 5u);
}

TEST_F(Client, RefusesHandlesOfNothingThatLives) {
    alignas(SocCGIQuilClient) static unsigned char oldConnection[sizeof(SocCGIQuilClient)];
    alignas(TQuilRequest) static unsigned char oldRequest[sizeof(TQuilRequest)];
    static_cast<QuilClient*>(new (oldConnection) SocCGIQuilClient)->~QuilClient();
    (new (oldRequest) TQuilRequest)->~TQuilRequest();
    void* const nowhere = reinterpret_cast<void*>(16);
    const std::pair<void*, void*> dead[] = {
        {nullptr, nullptr}, {oldConnection, oldRequest}, {nowhere, nowhere}, {request_, connection_}};
    const auto see = [](ve_hclient_t*, TQUILReqType, const char*, std::uint32_t, void*) { return true; };
    for (const auto& [noConnection, noRequest] : dead) {
        auto* client = static_cast<ve_hclient_t*>(noConnection);
        auto* request = static_cast<ve_hrequest_t*>(noRequest);
        EXPECT_FALSE(VeClientDestroyConnection(client) || VeClientFreeRequest(client, request_) ||
                     VeClientConnectToServer(client, request_) || VeClientSendRequest(client, request_) ||
                     VeClientDispatchRequests(client, see, nullptr) || VeClientAllocRequest(client) ||
                     VeClientGetScratchBuffer(client, 1, nullptr) || VeClientSetScratchDataSize(client, 1));
        EXPECT_FALSE(VeClientFreeRequest(connection_, request) || VeClientSendRequest(connection_, request) ||
                     VeClientConnectToServer(connection_, request) ||
                     VeRequestSetAtrtibute(request, QUIL_PARAM_PLUGIN, "") ||
                     VeRequestGetAtrtibute(request, QUIL_PARAM_PLUGIN) ||
                     VeRequestSetPostArgData(request, "a", 1) || VeRequestGetPostArgData(request, nullptr));
    }
}

TEST_F(Client, SendsTheOperatorsErrorPage) {
    const std::string file = "ERROR_HTML=" + folder_.path(), page = "%s %d" + std::string(70000, 'p');
    support::writeFile(folder_ / "page", page);
    const std::pair<std::string, std::string> cases[] = {
        {file + "/page\n", page},
        {file + "/page\nREPORTCLIENTERROR=1\n", "<p>why</p>"},
        {file + "/missing\n", "Error Code: 609"},
        {"ERROR_HTML=/sys/devices/system/cpu/possible\n", "Error Code: 609"},  // shorter than its size
        {"ERROR_HTML=\n", "<p>why</p>"},
    };
    for (const auto& [lines, sent] : cases) {
        ASSERT_TRUE(setUp(kServer + lines));
        clientError.SetError(603, "why");
        EXPECT_TRUE(support::contains(VeClientGetErrorHtml(connection_, 603), sent));
        EXPECT_FALSE(support::contains(VeClientGetErrorHtml(nullptr, 604), "why"))
            << "it belongs to its code";
        VeClientCleanUp();
    }
}

}  // namespace
