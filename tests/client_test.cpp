// The client interface: environment and settings on a configuration folder of the test's own, handles, the
// error record and its pages.
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
#include "support/ScriptedPeer.h"
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

const std::string kConnectText =
    "Unable to connect to the application server.  Check the application server process is running.";
const std::string kFileText =
    "The client error HTML file (ERROR_HTML) can not be found or is not accessible.";

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

    static std::string section(const std::string& lines) {
        return "[Velarto Client Definitions]\nshop=\n\n[shop]\n" + lines + "\n";
    }
    bool setUp(const std::string& lines, bool oneShot = true) {
        support::writeFile(file_, section("VELARTO_SERVER=127.0.0.1,1\n" + lines));
        return VeClientInitEnvironment(oneShot, nullptr, "shop");
    }

    const support::TempDir folder_;
    const std::string file_ = folder_ / "configuration/clients.ini";
};

// ---- environment ------------------------------------------------------------------------------------------

TEST_F(Client, ReadsItsSectionOrAddsWhatIsMissing) {
    const std::string other = "[Velarto Client Definitions]\nother=\n",
                      added = "VELARTO_SERVER=127.0.0.1,18155\n";
    const struct {
        std::string before;
        std::string after;
        std::string servers;  // "": refused
    } cases[] = {
        {"", "", ""},
        {"what is this", "what is this", ""},
        {section("VELARTO_HOST=h\n"), section("VELARTO_HOST=h\n"), ""},
        {section("VELARTO_SERVER=a,1:b,2\n"), section("VELARTO_SERVER=a,1:b,2\n"), "a,1:b,2"},
        {other + "\n[other]\na=b\n\n", other + "shop=\n\n[other]\na=b\n\n[shop]\n" + added + "\n",
         "127.0.0.1,18155"},
        {section("VELARTO_HOST=h\nVELARTO_PORT=1:2\n"),
         section("VELARTO_HOST=h\nVELARTO_PORT=1:2\nVELARTO_SERVER=h,1:h,2\n"), "h,1:h,2"},
        {section("VELARTO_SERVER=a:1,b:22\n"), section("VELARTO_SERVER=a:1,b:22\n"), "a,1:b,22"},
        {section("VELARTO_SERVER=a:1,b:x\n"), section("VELARTO_SERVER=a:1,b:x\n"), "a:1,b:x"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.before);
        const bool usable = !c.servers.empty();
        support::writeFile(file_, c.before);
        EXPECT_EQ(VeClientInitEnvironment(true, "", "shop"), usable);
        CText servers;
        EXPECT_TRUE(!usable || configStanza->getValue("VELARTO_SERVER", servers));
        EXPECT_EQ(servers.GetTextEx(), c.servers);
        EXPECT_EQ(support::readFile(file_), c.after);
        EXPECT_EQ(clientError.code(), usable ? 200u : 601u);
        const std::string message = "An error occurred while parsing the config file " + file_ +
                                    " for client shop. Check the file format is correct and the owner of the "
                                    "http process has file permissions to read the file.";
        EXPECT_EQ(clientError.message(), usable ? "" : message);
        EXPECT_EQ(VeClientCleanUp(), usable);  // a set-up that fails has cleaned up
        EXPECT_EQ(configStanza, nullptr);
    }
}

TEST_F(Client, NeedsANameAndAFolder) {
    EXPECT_FALSE(VeClientInitEnvironment(true, nullptr, nullptr));
    EXPECT_FALSE(VeClientInitEnvironment(true, nullptr, ""));
    EXPECT_STREQ(clientError.message(), "No client name defined");
    setenv("VELARTO_PATH", std::string(8000, 'x').c_str(), 1);
    EXPECT_FALSE(VeClientInitEnvironment(true, "my.ini", "shop"));
    EXPECT_STREQ(clientError.message(),
                 "Unable to get the file path for the config file: my.ini. Check that the velarto configure "
                 "path has been set properly.");
}

TEST_F(Client, TakesTruthFromTheFirstCharacter) {
    EXPECT_FALSE(IsFullHeaderSupport());  // no section
    for (const std::string& value : {"Y"s, "yes"s, "Table"s, "t"s, "1"s, ""s, "No"s, "0"s, "on"s}) {
        const bool truth = value.find_first_of("YyTt1") == 0;
        ASSERT_TRUE(setUp((truth ? "SENDFULLHEADER=" : "PARSEFILEPATHS=Y\nSENDFULLHEADER=") + value + "\n"));
        EXPECT_EQ(IsFullHeaderSupport(), truth) << value;
        EXPECT_EQ(ParseFilePaths(), !truth) << value;
        VeClientCleanUp();
    }
}

TEST_F(Client, KeepsSettingsThatTheSectionDoesNotHave) {
    const struct {
        const char* lines;
        std::uint32_t timeout;
        const char* documents;
        const char* served;
        const char* notServed;
    } steps[] = {
        {"CLIENTIOTIMEOUT=30\nDOCUMENTPATH=/docs\nREGISTER_EXTNS=zaf;htm,,a:b\n", 30000, "/docs", "/x.y.HTM",
         "x.zhtml"},
        {"", 30000, "/docs", "B.A", "x.ht"},
        {"CLIENTIOTIMEOUT=soon\nDOCUMENTPATH=\nREGISTER_EXTNS=\n", 300000, "", "/a.b/c.ZHTML", "x.htm"},
        {"CLIENTIOTIMEOUT=9999999\n", 4294967000, "", ".zml", "zcf"},
        {"CLIENTIOTIMEOUT=0\n", 300000, "", "zcf.zcf", "x.zml/y"},
    };
    for (const auto& step : steps) {
        ASSERT_TRUE(setUp(step.lines));
        ve_hclient_t* connection = VeClientCreateConnection(0);
        EXPECT_EQ(QuilClient::CastHandleToQuilClient(connection)->SetReadWriteTimeout(0), step.timeout);
        EXPECT_TRUE(VeClientDestroyConnection(connection));
        EXPECT_STREQ(GetDocumentPath() != nullptr ? GetDocumentPath() : "", step.documents);
        EXPECT_TRUE(IsVelartoExtns(step.served) && !IsVelartoExtns(step.notServed)) << step.lines;
        VeClientCleanUp();
    }
}

TEST_F(Client, ReloadsAChangedFileAndEndsTheThreadWithABrokenOne) {
    const auto change = [this](const std::string& content, time_t seconds) {
        support::writeFile(file_, content);
        const timespec times[] = {{seconds, 0}, {seconds, 0}};
        utimensat(AT_FDCWD, file_.c_str(), times, 0);
    };
    ASSERT_TRUE(setUp(""));
    const time_t parsed = configFile->GetParseTimestamp();
    change(section("VELARTO_SERVER=a,1\nSENDFULLHEADER=y\n"), parsed);
    EXPECT_TRUE(!ClientThreadProc(nullptr) && !IsFullHeaderSupport());
    change(section("VELARTO_SERVER=a,1\nSENDFULLHEADER=y\n"), parsed + 1);
    EXPECT_TRUE(!ClientThreadProc(nullptr) && IsFullHeaderSupport());
    change(section("SENDFULLHEADER=y\n"), parsed + 2);  // no server
    EXPECT_TRUE(ClientThreadProc(nullptr) && !IsFullHeaderSupport() && ClientName.IsEmpty());
    EXPECT_STREQ(clientError.message(), "");
    EXPECT_TRUE(VeClientCleanUp() && !VeClientCleanUp());
    for (int i = 0; i < 2; ++i)
        EXPECT_TRUE(setUp("", false) && VeClientCleanUp());  // with a thread of its own
}

// ---- handles ----------------------------------------------------------------------------------------------

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

TEST_F(Client, FillsARequest) {
    const Handles handles;
    ve_hrequest_t* request = handles.request;
    EXPECT_TRUE(VeRequestSetAtrtibute(request, QUIL_PARAM_PATH_INFO, "/a"));
    EXPECT_TRUE(VeRequestSetAtrtibute(request, QUIL_PARAM_PATH_INFO, nullptr));
    EXPECT_STREQ(VeRequestGetAtrtibute(request, QUIL_PARAM_PATH_INFO), "/a");
    EXPECT_STREQ(VeRequestGetAtrtibute(request, QUIL_PARAM_FULLHEADER), "");
    EXPECT_FALSE(VeRequestSetAtrtibute(request, QUIL_PARAM_NONE, "x"));
    EXPECT_EQ(VeRequestGetAtrtibute(request, static_cast<TQUILReqParamID>(77)), nullptr);

    std::uint32_t size = 9;
    const auto body = [&] {
        const unsigned char* data = VeRequestGetPostArgData(request, &size);
        return data != nullptr ? std::string(data, data + size) : "none";
    };
    EXPECT_FALSE(VeRequestSetPostArgDataSize(request, 1));
    VeRequestGetPostArgBuffer(request, 10)[0] = 'x';
    EXPECT_TRUE(VeRequestSetPostArgDataSize(request, 1));
    EXPECT_FALSE(VeRequestSetPostArgDataSize(request, 11));
    EXPECT_EQ(body(), "x");
    EXPECT_TRUE(VeRequestSetPostArgData(request, "a\0b", 3));
    EXPECT_EQ(body(), "a\0b"s);
    EXPECT_FALSE(VeRequestSetPostArgData(request, "a", 0));
    EXPECT_EQ(body(), "none");
    EXPECT_EQ(size, 0u);
    EXPECT_EQ(VeRequestGetPostArgBuffer(request, 0), nullptr);
}

TEST_F(Client, LendsItsScratchBuffer) {
    const Handles handles;
    std::uint32_t size = 0;
    ASSERT_NE(VeClientGetScratchBuffer(handles.connection, 100, &size), nullptr);
    EXPECT_EQ(size, 5120u);
    EXPECT_EQ(VeClientSetScratchDataSize(handles.connection, 5120), 5120u);
    EXPECT_EQ(VeClientSetScratchDataSize(handles.connection, 5121), 5120u);
    EXPECT_EQ(VeClientGetScratchDataSize(handles.connection), 5120u);
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
        EXPECT_FALSE(VeClientDestroyConnection(connection));
        EXPECT_FALSE(VeClientConnectToServer(connection, live.request));
        EXPECT_FALSE(VeClientSendRequest(connection, live.request));
        EXPECT_FALSE(VeClientDispatchRequests(connection, see, nullptr));
        EXPECT_EQ(VeClientAllocRequest(connection), nullptr);
        EXPECT_FALSE(VeClientFreeRequest(connection, live.request));
        EXPECT_EQ(VeClientGetScratchBuffer(connection, 1, &size), nullptr);
        EXPECT_EQ(VeClientGetScratchDataSize(connection) + VeClientSetScratchDataSize(connection, 1), 0u);

        EXPECT_FALSE(VeClientConnectToServer(live.connection, request));
        EXPECT_EQ(clientError.code(), 602u);
        EXPECT_FALSE(VeClientSendRequest(live.connection, request));
        EXPECT_EQ(clientError.code(), 604u);
        EXPECT_STREQ(clientError.message(), "");
        EXPECT_FALSE(VeClientFreeRequest(live.connection, request));
        EXPECT_TRUE(VeRequestSetAtrtibute(request, QUIL_PARAM_PLUGIN, nullptr));
        EXPECT_FALSE(VeRequestSetAtrtibute(request, QUIL_PARAM_PLUGIN, ""));
        EXPECT_EQ(VeRequestGetAtrtibute(request, QUIL_PARAM_PLUGIN), nullptr);
        EXPECT_EQ(VeRequestGetPostArgBuffer(request, 1), nullptr);
        EXPECT_FALSE(VeRequestSetPostArgDataSize(request, 0) || VeRequestSetPostArgData(request, "a", 1));
        EXPECT_EQ(VeRequestGetPostArgData(request, &size), nullptr);
        EXPECT_EQ(size, 7u);
    }
}

TEST_F(Client, TellsWhereItCouldNotConnectOrSend) {
    const support::DeadPort dead;
    const std::string server = "s001,127.0.0.1," + std::to_string(dead.port());
    ASSERT_TRUE(setUp("FORCE_SERVER_ARG_NAME=srv\n"));
    configStanza->changeValue("VELARTO_SERVER", (server + ":s002,127.0.0.1,1").c_str());
    const Handles handles;
    VeRequestSetAtrtibute(handles.request, QUIL_PARAM_QUERY_STRING, "srv=s001");
    EXPECT_FALSE(VeClientConnectToServer(handles.connection, handles.request));
    EXPECT_EQ(VeClientGetErrorHtml(nullptr, 602),
              page(602, kConnectText, "Tried connecting to Velarto Server for client shop on " + server));
    EXPECT_FALSE(VeClientSendRequest(handles.connection, handles.request));
    EXPECT_STREQ(clientError.message(), "The request was sent to the Velarto Server on IP  Port ");
}

TEST_F(Client, HoldsAConversation) {
    support::ScriptedPeer peer(support::answering({support::wire::body("hello"), support::wire::end()}));
    ASSERT_TRUE(setUp(""));
    configStanza->changeValue("VELARTO_SERVER", ("127.0.0.1," + std::to_string(peer.port())).c_str());
    const Handles handles;
    EXPECT_TRUE(VeClientConnectToServer(handles.connection, handles.request));
    EXPECT_TRUE(VeClientSendRequest(handles.connection, handles.request));
    EXPECT_STREQ(VeRequestGetAtrtibute(handles.request, QUIL_PARAM_HTTP_COOKIE), "VelartoClient=shop");
    std::pair<ve_hclient_t*, std::string> seen(handles.connection, "");
    const auto see = [](ve_hclient_t* connection, TQUILReqType type, const char* data, std::uint32_t length,
                        void* user) {
        auto& [expected, text] = *static_cast<std::pair<ve_hclient_t*, std::string>*>(user);
        EXPECT_EQ(connection, expected);
        text += std::to_string(type) + std::string(data, length);
        return true;
    };
    EXPECT_TRUE(VeClientDispatchRequests(handles.connection, see, &seen));
    EXPECT_EQ(seen.second, "4hello7");
}

TEST_F(Client, ServesCPrograms) {
    const Handles handles;
    char first = 0;
    EXPECT_EQ(statusFromC("HTTP/1.0 404 No\r\n"), 404);
    EXPECT_TRUE(parameterFromC(handles.request, "query", &first));
    EXPECT_EQ(first, 'q');
    EXPECT_STREQ(VeClientGetBuildVersion(), "5.5.020");
    EXPECT_EQ(VeClientGetProtocolVersion(), 0xFDFFFDFFu);
}

// ---- errors -----------------------------------------------------------------------------------------------

TEST(ClientError, HasATextForEveryCode) {
    const std::pair<std::uint32_t, std::string> cases[] = {
        {600, "The specified error code is unknown or invalid."},
        {601, "Unable to initialize the client's environment."},
        {602, kConnectText},
        {603, "Unable to prepare an application server request."},
        {604,
         "Unable to send a request to the application server.  Check the application server process is "
         "running."},
        {605,
         "The client encountered problems in communicating with the application server. Please check "
         "velartoevents.log for further information."},
        {606, "The HTTP header received from the application server is invalid."},
        {607, "Reserved"},
        {608, "An internal client error has occured."},
        {609, kFileText},
        {610, "Unable to allocate application server's client."},
        {611, "Unhandled exception caught in the client."},
        {612, "Unable to destroy request."},
        {613, "Unable to destroy connectiion"},
        {614, "The specified error code is unknown or invalid."},
    };
    QuilClientError error;
    for (const auto& [code, text] : cases) {
        error.SetError(code, "why");
        EXPECT_EQ(error.GetErrorHtml(code), page(code, text, "why"));
    }
}

TEST(ClientError, KeepsAMessageForItsCodeOnly) {
    QuilClientError error;
    EXPECT_EQ(error.code(), 600u);
    error.SetError(602, nullptr);
    error.SetErrorMessage("%s on %d", "here", 7);
    EXPECT_STREQ(error.GetStatus(602), "602 Application Server Error");
    EXPECT_STREQ(error.message(), "here on 7");
    EXPECT_STREQ(error.GetStatus(605), "605 Application Server Error");
    EXPECT_EQ(error.code(), 605u);
    EXPECT_STREQ(error.message(), "");
    error.SetErrorMessage("%s", "again");
    EXPECT_EQ(error.GetErrorHtml(603), page(603, "Unable to prepare an application server request.", ""));
    error.SetErrorMessage("%s", "again");
    error.SetErrorMessage(nullptr);
    EXPECT_STREQ(error.message(), "");
    EXPECT_STREQ(VeClientGetErrorStatus(601), "601 Application Server Error");
    EXPECT_EQ(clientError.code(), 601u);
}

TEST_F(Client, SendsTheOperatorsErrorPage) {
    const std::string big(100000, 'e'), builtIn = page(602, kConnectText, "why");
    support::writeFile(folder_ / "page", "<p>%s %d</p>\n");
    support::writeFile(folder_ / "big", big);
    support::writeFile(folder_ / "empty", "");
    const struct {
        std::string file;
        const char* more;
        std::uint32_t code;
        std::string sent;
    } cases[] = {
        {folder_ / "page", "", 602, "<p>%s %d</p>\n"},
        {folder_ / "page", "REPORTCLIENTERROR=No\n", 602, "<p>%s %d</p>\n"},
        {folder_ / "page", "REPORTCLIENTERROR=yes\n", 602, builtIn},
        {folder_ / "page", "", 601, page(601, "Unable to initialize the client's environment.", "")},
        {folder_ / "big", "", 602, big},
        {folder_ / "empty", "", 602, ""},
        {folder_ / "missing", "", 602, page(609, kFileText, "")},
        {folder_.path(), "", 602, page(609, kFileText, "")},
        {"", "", 602, builtIn},
    };
    const Handles handles;
    for (const auto& c : cases) {
        ASSERT_TRUE(setUp("ERROR_HTML=" + c.file + "\n" + c.more));
        clientError.SetError(602, "why");
        EXPECT_EQ(VeClientGetErrorHtml(handles.connection, c.code), c.sent);
        clientError.SetError(602, "why");
        EXPECT_EQ(VeClientGetErrorHtml(nullptr, 602), builtIn);
        VeClientCleanUp();
    }
    EXPECT_EQ(VeClientGetErrorHtml(handles.connection, 602), builtIn);  // no section
}

}  // namespace
