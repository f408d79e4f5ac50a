// What a web server sends over a FastCGI connection: requests are taken from it as long as it has any, and each gets an
// answer in whole records.
//
// Input: the bytes of the connection.
#include <sys/socket.h>

#include "Fuzz.h"
#include "cgi/RequestRecord.h"
#include "cgi/ResponseWriter.h"
#include "fcgi/FcgiRequest.h"

namespace {

constexpr std::uint32_t kMostOfBody = 1000;

// Answers one request; whether the connection is open still.
bool serve(int connection) {
    static ve_hclient_t* const client = VeClientCreateConnection(0);
    FcgiRequest request(connection, kMostOfBody);
    if (!request.begin()) return request.release();
    for (const char c : request.headerFields())
        assert(c != '\0');
    RequestId id(request);
    ResponseWriter response(request, request, id);
    HttpStatus refusal{};
    ve_hrequest_t* record = MakeRequestRecord(client, {request, request, "fuzz", ""}, refusal);
    if (record != nullptr) {
        std::uint32_t size = 0;
        VeRequestGetPostArgData(record, &size);
        assert(size <= kMostOfBody);
        VeClientFreeRequest(client, record);
        response.writeHeader("HTTP/1.0 200 OK\r\n\r\n", 19);
        response.finish();
    } else {
        response.writeErrorPage(603, refusal);
    }
    request.finish(true);
    return request.release();
}

// Version 1 in each record, and no record cut.
void checkRecords(const std::string& bytes) {
    std::size_t at = 0;
    while (at < bytes.size()) {
        const auto byte = [&](std::size_t i) {
            return std::size_t{static_cast<unsigned char>(bytes.at(at + i))};
        };
        assert(byte(0) == 1);
        at += 8 + (byte(4) << 8 | byte(5)) + byte(6);
    }
    assert(at == bytes.size());
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const int initialised = FCGX_Init();
    constexpr std::size_t kMost = 65536;  // fits into the socket
    if (initialised != 0 || size > kMost) return 0;
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0) return 0;
    assert(send(ends[0], data, size, 0) == static_cast<ssize_t>(size));
    shutdown(ends[0], SHUT_WR);
    int served = 0;
    while (serve(ends[1]) && ++served < 8)
        ;
    if (served == 8) close(ends[1]);
    std::string answer;
    char block[4096];
    for (ssize_t count; (count = recv(ends[0], block, sizeof block, 0)) > 0;)
        answer.append(block, static_cast<std::size_t>(count));
    close(ends[0]);
    checkRecords(answer);
    return 0;
}
