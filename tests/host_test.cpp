// A long-lived host: several threads with connections and requests of their own, while the configuration file
// is rewritten again and again and the library's own thread reloads it.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "client/Velarto.h"
#include "platform/systimer_impl.h"
#include "support/Concurrent.h"
#include "support/ScriptedPeer.h"
#include "support/TempDir.h"

namespace {

namespace wire = support::wire;
using support::Runner;

bool collect(ve_hclient_t*, TQUILReqType type, const char* data, std::uint32_t length, void* body) {
    if (type == QUIL_BODY_DATA) static_cast<std::string*>(body)->append(data, length);
    return true;
}

// One request from connection to end; what the server echoes.
std::string echo(const std::string& text) {
    ve_hclient_t* connection = VeClientCreateConnection(0);
    ve_hrequest_t* request = VeClientAllocRequest(connection);
    std::string body;
    VeRequestSetAtrtibute(request, QUIL_PARAM_REQUEST_METHOD, "POST");
    VeRequestSetAtrtibute(request, QUIL_PARAM_PATH_INFO, "/echo");
    VeRequestSetPostArgData(request, text.data(), static_cast<std::uint32_t>(text.size()));
    const bool done = VeClientConnectToServer(connection, request) &&
                      VeClientSendRequest(connection, request) && VeClientFreeRequest(connection, request) &&
                      VeClientDispatchRequests(connection, collect, &body);
    VeClientDestroyConnection(connection);
    return done ? body : VeClientGetErrorHtml(nullptr, 602);
}

// A request to nobody leaves its trace in the record of the thread that made it.
std::string messageOfAFailure() {
    VeClientConnectToServer(nullptr, nullptr);
    return VeClientGetErrorHtml(nullptr, 602);
}

// So that sockets get numbers that select() could not wait for.
void occupyDescriptors(std::vector<int>& descriptors, std::size_t count) {
    rlimit limit{};
    getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limit);
    while (descriptors.size() < count)
        descriptors.push_back(open("/dev/null", O_RDONLY | O_CLOEXEC));
}

TEST(Host, ServesManyThreadsWhileItsConfigurationChanges) {
    support::ScriptedPeer server([](support::Connection& connection) {
        connection.receiveRequest();
        connection.serve({wire::body(connection.request().post), wire::end()});
    });

    const support::TempDir folder;
    const auto configure = [&](const std::string& settings) {
        const std::string file = folder / "configuration/clients.ini";
        support::writeFile(file + ".new",
                           "[Velarto Client Definitions]\nhost=\n\n[host]\nVELARTO_SERVER=localhost," +
                               std::to_string(server.port()) + "\n" + settings);
        return rename((file + ".new").c_str(), file.c_str()) == 0;
    };
    std::filesystem::create_directory(folder / "configuration");
    ASSERT_TRUE(configure("DOCUMENTPATH=/0\n"));
    setenv("VELARTO_PATH", folder.path().c_str(), 1);
    ASSERT_TRUE(VeClientInitEnvironment(false, nullptr, "host"));

    std::vector<int> descriptors;
    occupyDescriptors(descriptors, 1100);
    ASSERT_GE(descriptors.back(), 1024);
    std::atomic<bool> over{false};
    std::atomic<int> served{0};
    std::vector<std::unique_ptr<Runner>> threads;
    for (int thread = 0; thread < 8; ++thread) {
        threads.push_back(std::make_unique<Runner>([&, thread] {
            const std::string mine = "thread " + std::to_string(thread);
            for (int i = 0; !over; ++i, ++served) {
                const std::string text = mine + ", request " + std::to_string(i) + std::string(5000, 'x');
                EXPECT_EQ(echo(text), text);
                EXPECT_EQ(messageOfAFailure().find("Tried"), std::string::npos);
                EXPECT_TRUE(IsVelartoExtns("a.zml") && GetDocumentPath()[0] == '/' && !ParseFilePaths());
            }
        }));
    }
    // Until the library's thread, which looks every five seconds, has seen a change.
    int changes = 0;
    while (!IsFullHeaderSupport() && changes < 60) {
        EXPECT_TRUE(configure("DOCUMENTPATH=/" + std::to_string(++changes) + "\nSENDFULLHEADER=yes\n"));
        MilliSleep(500);
    }
    over = true;
    threads.clear();
    EXPECT_TRUE(IsFullHeaderSupport());
    EXPECT_GT(served, 8);
    for (const int descriptor : descriptors)
        close(descriptor);
    EXPECT_TRUE(VeClientCleanUp());
    unsetenv("VELARTO_PATH");
}

}  // namespace
