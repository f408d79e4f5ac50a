// The client interface: settings from a folder of the test's own, handles, the error record and its pages.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <new>
#include <string>
#include <utility>

#include "client/ClientEnvironment.h"
#include "client/QuilClientError.h"
#include "client/Velarto.h"
#include "protocol/SocCGIQuilClient.h"
#include "support/TempDir.h"

extern "C" {
std::int32_t statusFromC(const char* text);
bool parameterFromC(ve_hrequest_t* request, const char* value, char* first);
}

namespace {

using namespace std::string_literals;

std::string page(std::uint32_t code, const std::string& text, const std::string& message) {
    return "<html><head><title>Client Error</title></head><body><h3>Client/Plug-in Error</h3>Error Code: " +
           std::to_string(code) + "<br /><p>" + text + "</p><p>" + message + "</p></body></html>";
}

class Client : public ::testing::Test {
  protected:
    Client() {
        mkdir((folder_ / "configuration").c_str(), 0700);
        setenv("VELARTO_PATH", folder_.path().c_str(), 1);
    }
    ~Client() override {
        VeClientCleanUp();
        unsetenv("VELARTO_PATH");
    }

    void writeSection(const std::string& lines) const {
        support::writeFile(file_, "[Velarto Client Definitions]\nshop=\n\n[shop]\n" + lines);
    }
    bool setUp(const std::string& lines, bool oneShot = true) const {
        writeSection("VELARTO_SERVER=127.0.0.1,1\n" + lines);
        return VeClientInitEnvironment(oneShot, nullptr, "shop");
    }

    const support::TempDir folder_;
    const std::string file_ = folder_ / "configuration/clients.ini";
};

// ---- settings ----

TEST_F(Client, KeepsSettingsThatTheSectionDoesNotHave) {
    EXPECT_FALSE(IsFullHeaderSupport());  // no section
    const struct {
        std::string lines;
        std::uint32_t timeout;
        const char* documents;
        const char* served;
        const char* notServed;
        bool fullHeader;  // the first character of a truth value decides; not kept
    } steps[] = {
        {"CLIENTIOTIMEOUT=30\nDOCUMENTPATH=/docs\nREGISTER_EXTNS=zaf;htm,,a:b\nSENDFULLHEADER=Table\n", 30000,
         "/docs", "/x.y.HTM", "x.zhtml", true},
        {"", 30000, "/docs", "B.A", "x.ht", false},
        {"CLIENTIOTIMEOUT=soon\nDOCUMENTPATH=\nREGISTER_EXTNS=\nSENDFULLHEADER=yes\n", 300000, "",
         "/a.b/c.ZHTML", "x.htm", true},
        {"CLIENTIOTIMEOUT=9999999\nSENDFULLHEADER=on\n", 4294967000, "", ".zml", "zcf", false},
        {"CLIENTIOTIMEOUT=0\nSENDFULLHEADER=1\n", 300000, "", "zcf.zcf", "x.zml/y", true},
    };
    for (const auto& step : steps) {
        ASSERT_TRUE(setUp(step.lines));
        ve_hclient_t* connection = VeClientCreateConnection(0);
        EXPECT_EQ(QuilClient::CastHandleToQuilClient(connection)->SetReadWriteTimeout(0), step.timeout);
        EXPECT_TRUE(VeClientDestroyConnection(connection));
        EXPECT_STREQ(GetDocumentPath() != nullptr ? GetDocumentPath() : "", step.documents);
        EXPECT_TRUE(IsVelartoExtns(step.served) && !IsVelartoExtns(step.notServed)) << step.lines;
        EXPECT_EQ(IsFullHeaderSupport(), step.fullHeader) << step.lines;
        VeClientCleanUp();
    }
}

TEST_F(Client, ReloadsAChangedFileAndEndsTheThreadWithABrokenOne) {
    const auto change = [this](const std::string& lines, time_t seconds) {
        writeSection(lines);
        const timespec times[] = {{seconds, 0}, {seconds, 0}};
        utimensat(AT_FDCWD, file_.c_str(), times, 0);
    };
    ASSERT_TRUE(setUp(""));
    const time_t parsed = configFile->GetParseTimestamp();
    change("VELARTO_SERVER=a,1\nSENDFULLHEADER=y\n", parsed);
    EXPECT_TRUE(!ClientThreadProc(nullptr) && !IsFullHeaderSupport());
    change("VELARTO_SERVER=a,1\nSENDFULLHEADER=y\n", parsed + 1);
    EXPECT_TRUE(!ClientThreadProc(nullptr) && IsFullHeaderSupport());
    change("SENDFULLHEADER=y\n", parsed + 2);  // no server
    EXPECT_TRUE(ClientThreadProc(nullptr) && !IsFullHeaderSupport() && ClientName.IsEmpty());
    EXPECT_TRUE(VeClientCleanUp() && !VeClientCleanUp());
    for (int i = 0; i < 2; ++i)
        EXPECT_TRUE(setUp("", false) && VeClientCleanUp());  // with a thread of its own
}

// ---- handles ----

// A request on a connection of its own.
struct Handles {
    Handles() : connection(VeClientCreateConnection(0)), request(VeClientAllocRequest(connection)) {}
    Handles(const Handles&) = delete;
    Handles& operator=(const Handles&) = delete;
    ~Handles() {
        EXPECT_TRUE(VeClientFreeRequest(connection, request) && VeClientDestroyConnection(connection));
    }

    ve_hclient_t* const connection;
    ve_hrequest_t* const request;
};

TEST_F(Client, FillsItsBuffers) {
    const Handles handles;
    std::uint32_t size = 9;
    const auto body = [&] {
        const unsigned char* data = VeRequestGetPostArgData(handles.request, &size);
        return data != nullptr ? std::string(data, data + size) : "none";
    };
    EXPECT_FALSE(VeRequestSetPostArgDataSize(handles.request, 1));
    VeRequestGetPostArgBuffer(handles.request, 10)[0] = 'x';
    EXPECT_TRUE(VeRequestSetPostArgDataSize(handles.request, 1));
    EXPECT_FALSE(VeRequestSetPostArgDataSize(handles.request, 11));
    EXPECT_EQ(body(), "x");
    EXPECT_TRUE(VeRequestSetPostArgData(handles.request, "a\0b", 3));
    EXPECT_EQ(body(), "a\0b"s);
    EXPECT_FALSE(VeRequestSetPostArgData(handles.request, "a", 0));
    EXPECT_EQ(body(), "none");

    EXPECT_TRUE(VeClientGetScratchBuffer(handles.connection, 100, &size) != nullptr && size == 5120);
    EXPECT_EQ(VeClientSetScratchDataSize(handles.connection, 5120), 5120u);
    EXPECT_EQ(VeClientSetScratchDataSize(handles.connection, 5121), 5120u);
}

TEST_F(Client, ServesCPrograms) {
    const Handles handles;
    char first = 0;
    EXPECT_TRUE(parameterFromC(handles.request, "query", &first) && first == 'q');
    EXPECT_EQ(statusFromC("HTTP/1.0 404 No\r\n"), 404);
}

TEST_F(Client, RefusesHandlesOfNothingThatLives) {
    const Handles live;
    alignas(SocCGIQuilClient) static unsigned char oldConnection[sizeof(SocCGIQuilClient)];
    alignas(TQuilRequest) static unsigned char oldRequest[sizeof(TQuilRequest)];
    static_cast<QuilClient*>(new (oldConnection) SocCGIQuilClient)->~QuilClient();
    (new (oldRequest) TQuilRequest)->~TQuilRequest();
    const auto see = [](ve_hclient_t*, TQUILReqType, const char*, std::uint32_t, void*) { return true; };
    for (const bool destroyed : {false, true}) {
        auto* connection = reinterpret_cast<ve_hclient_t*>(destroyed ? oldConnection : nullptr);
        auto* request = reinterpret_cast<ve_hrequest_t*>(destroyed ? oldRequest : nullptr);
        std::uint32_t size = 7;
        EXPECT_FALSE(VeClientDestroyConnection(connection) || VeClientFreeRequest(connection, live.request));
        EXPECT_FALSE(VeClientConnectToServer(connection, live.request) ||
                     VeClientSendRequest(connection, live.request));
        EXPECT_FALSE(VeClientDispatchRequests(connection, see, nullptr));
        EXPECT_FALSE(VeClientAllocRequest(connection) || VeClientGetScratchBuffer(connection, 1, &size));
        EXPECT_EQ(VeClientGetScratchDataSize(connection) + VeClientSetScratchDataSize(connection, 1), 0u);

        EXPECT_FALSE(VeClientConnectToServer(live.connection, request) ||
                     VeClientSendRequest(live.connection, request));
        EXPECT_FALSE(VeClientFreeRequest(live.connection, request));
        EXPECT_FALSE(VeRequestSetAtrtibute(request, QUIL_PARAM_PLUGIN, ""));
        EXPECT_FALSE(VeRequestGetAtrtibute(request, QUIL_PARAM_PLUGIN));
        EXPECT_FALSE(VeRequestSetPostArgDataSize(request, 0) || VeRequestSetPostArgData(request, "a", 1));
        EXPECT_FALSE(VeRequestGetPostArgBuffer(request, 1) || VeRequestGetPostArgData(request, &size));
        EXPECT_EQ(size, 7u);
    }
}

// ---- errors ----

TEST(ClientError, KeepsAMessageForItsCodeOnly) {
    QuilClientError error;
    error.SetError(614, nullptr);
    error.SetErrorMessage("%s on %d", "here", 7);
    EXPECT_EQ(error.GetErrorHtml(614),
              page(614, "The specified error code is unknown or invalid.", "here on 7"));
    EXPECT_EQ(error.GetErrorHtml(607), page(607, "Reserved", ""));
}

TEST_F(Client, SendsTheOperatorsErrorPage) {
    const std::string text = "Unable to prepare an application server request.";
    const std::string builtIn = page(603, text, "why"), configured = "ERROR_HTML=" + folder_.path();
    const std::string noFile =
        page(609, "The client error HTML file (ERROR_HTML) can not be found or is not accessible.", "");
    support::writeFile(folder_ / "page", "<p>%s %d</p>\n");
    support::writeFile(folder_ / "empty", "");
    const std::pair<std::string, std::string> cases[] = {
        {configured + "/page\n", "<p>%s %d</p>\n"},
        {configured + "/page\nREPORTCLIENTERROR=yes\n", builtIn},
        {configured + "/empty\n", ""},
        {configured + "/missing\n", noFile},
        {configured + "\n", noFile},
        {"ERROR_HTML=\n", builtIn},
    };
    const Handles handles;
    for (const auto& [lines, sent] : cases) {
        ASSERT_TRUE(setUp(lines));
        clientError.SetError(603, "why");
        EXPECT_EQ(VeClientGetErrorHtml(handles.connection, 603), sent);
        clientError.SetError(603, "why");
        EXPECT_EQ(VeClientGetErrorHtml(nullptr, 603), builtIn);
        VeClientCleanUp();
    }
}

}  // namespace
