// A long-lived host: several threads with connections and requests of their own, while the configuration file
// is rewritten again and again and the library's own thread reloads it.
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <atomic>
#include <deque>
#include <filesystem>

#include "client/Velarto.h"
#include "support/Concurrent.h"
#include "support/Contains.h"
#include "support/Gateway.h"

namespace {

using namespace support;

bool collect(ve_hclient_t*, TQUILReqType type, const char* data, std::uint32_t length, void* body) {
    if (type == QUIL_BODY_DATA) static_cast<std::string*>(body)->append(data, length);
    return true;
}

// One request from connection to end; what the server echoes.
std::string echo(const std::string& text) {
    ve_hclient_t* connection = VeClientCreateConnection(0);
    ve_hrequest_t* request = VeClientAllocRequest(connection);
    std::string body;
    VeRequestSetPostArgData(request, text.data(), static_cast<std::uint32_t>(text.size()));
    const bool done = VeClientConnectToServer(connection, request) &&
                      VeClientSendRequest(connection, request) && VeClientFreeRequest(connection, request) &&
                      VeClientDispatchRequests(connection, collect, &body);
    VeClientDestroyConnection(connection);
    return done ? body : VeClientGetErrorHtml(nullptr, 602);
}

using Host = GatewayTest;

TEST_F(Host, ServesManyThreadsWhileItsConfigurationChanges) {
    const ScriptedPeer& server = serve([](Connection& connection) {
        connection.receiveRequest();
        connection.serve({wire::body(connection.request().post), wire::end()});
    });
    const auto configure = [&](const std::string& settings) {
        const std::string file = clientsFile() + ".new";
        writeFile(file, "[Velarto Client Definitions]\nhost=\n\n[host]\n" + settings +
                            "VELARTO_SERVER=localhost," + std::to_string(server.port()));
        std::filesystem::rename(file, clientsFile());
    };
    configure("DOCUMENTPATH=/0\n");
    setenv("VELARTO_PATH", folder_.path().c_str(), 1);
    ASSERT_TRUE(VeClientInitEnvironment(false, nullptr, "host"));

    // So that sockets get numbers that select() could not wait for.
    const rlimit limit = {2048, 2048};
    setrlimit(RLIMIT_NOFILE, &limit);
    for (int last = 0; last < 1024;)
        ASSERT_GE(last = dup(STDERR_FILENO), 0);

    std::atomic<bool> over{false};
    std::deque<Runner> threads;
    for (std::uint32_t code = 601; code <= 608; ++code) {
        threads.emplace_back([&, code] {
            for (std::uint32_t i = 0; i == 0 || !over; ++i) {
                const std::string text = std::string(5000, 'x') + std::to_string(code * 100000 + i);
                if (i % 100 == 0) {
                    EXPECT_EQ(echo(text), text);
                }
                // More often than a server answers, so that threads meet here.
                EXPECT_TRUE(contains(VeClientGetErrorHtml(nullptr, code), "Code: " + std::to_string(code)));
                EXPECT_TRUE(IsVelartoExtns("a.zml") && GetDocumentPath()[0] == '/' && !ParseFilePaths());
            }
        });
    }
    // Until the library's thread, which looks every five seconds, has seen a change.
    for (int changes = 1; !IsFullHeaderSupport() && changes < 60; ++changes) {
        configure("DOCUMENTPATH=/" + std::to_string(changes) + "\nSENDFULLHEADER=yes\n");
        usleep(500000);
    }
    over = true;
    threads.clear();
    EXPECT_TRUE(IsFullHeaderSupport());
    EXPECT_TRUE(VeClientCleanUp());
}

}  // namespace
