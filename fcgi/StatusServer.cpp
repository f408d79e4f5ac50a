#include "StatusServer.h"

#include <microhttpd.h>

#include <cstring>
#include <stdexcept>
#include <string_view>

namespace {

MHD_Result respond(MHD_Connection* connection, unsigned status, const StatusServer::Page& page) {
    MHD_Response* response = MHD_create_response_from_buffer(
        page.text.size(), const_cast<char*>(page.text.data()), MHD_RESPMEM_MUST_COPY);
    if (response == nullptr) return MHD_NO;
    MHD_add_response_header(response, MHD_HTTP_HEADER_CONTENT_TYPE, page.contentType);
    MHD_add_response_header(response, MHD_HTTP_HEADER_CACHE_CONTROL, "no-store");
    const MHD_Result result = MHD_queue_response(connection, status, response);
    MHD_destroy_response(response);
    return result;
}

// libmicrohttpd's handler of one request; what it throws must not get there.
MHD_Result handle(void* server, MHD_Connection* connection, const char* path, const char* method, const char*,
                  const char*, std::size_t*, void**) try {
    const std::string_view asked = method;
    if (asked != MHD_HTTP_METHOD_GET && asked != MHD_HTTP_METHOD_HEAD)
        return respond(connection, MHD_HTTP_METHOD_NOT_ALLOWED, {"text/plain", "GET or HEAD\n"});
    const StatusServer::Page page = static_cast<StatusServer*>(server)->page(path);
    if (page.text.empty())
        return respond(connection, MHD_HTTP_NOT_FOUND, {"text/plain", "/, /metrics or /status.json\n"});
    return respond(connection, MHD_HTTP_OK, page);
} catch (const std::exception&) {
    return MHD_NO;
}

}  // namespace

StatusServer::StatusServer(int listener, Pages pages)
    : pages_(std::move(pages)),
      daemon_(MHD_start_daemon(MHD_USE_INTERNAL_POLLING_THREAD | MHD_USE_POLL, 0, nullptr, nullptr, handle,
                               this, MHD_OPTION_LISTEN_SOCKET, listener, MHD_OPTION_CONNECTION_LIMIT, 16u,
                               MHD_OPTION_CONNECTION_TIMEOUT, 10u, MHD_OPTION_END)) {
    if (daemon_ == nullptr) throw std::runtime_error("cannot serve the status");
}

StatusServer::~StatusServer() {
    MHD_stop_daemon(daemon_);
}
