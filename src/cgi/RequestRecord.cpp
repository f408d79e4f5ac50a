#include "cgi/RequestRecord.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>

#include "Server/Common_Classes/MemoryWatch.h"
#include "platform/memory_impl.h"

namespace {

// The CGI variable of each parameter that has one, in id order.
struct ParamVariable {
    TQUILReqParamID id;
    const char* variable;
};

constexpr ParamVariable kParamVariables[] = {
    {QUIL_PARAM_QUERY_STRING, "QUERY_STRING"},
    {QUIL_PARAM_PATH_INFO, "PATH_INFO"},
    {QUIL_PARAM_PATH_TRANSLATED, "PATH_TRANSLATED"},
    {QUIL_PARAM_REQUEST_METHOD, "REQUEST_METHOD"},
    {QUIL_PARAM_REMOTE_HOST, "REMOTE_HOST"},
    {QUIL_PARAM_REMOTE_IDENT, "REMOTE_IDENT"},
    {QUIL_PARAM_REMOTE_USER, "REMOTE_USER"},
    {QUIL_PARAM_REMOTE_NAME, "REMOTE_NAME"},
    {QUIL_PARAM_REMOTE_PORT, "REMOTE_PORT"},
    {QUIL_PARAM_SERVER_NAME, "SERVER_NAME"},
    {QUIL_PARAM_SERVER_PORT, "SERVER_PORT"},
    {QUIL_PARAM_SCRIPT_NAME, "SCRIPT_NAME"},
    {QUIL_PARAM_HTTP_REFERER, "HTTP_REFERER"},
    {QUIL_PARAM_HTTP_USER_AGENT, "HTTP_USER_AGENT"},
    {QUIL_PARAM_CONTENT_TYPE, "CONTENT_TYPE"},
    {QUIL_PARAM_CONTENT_LENGTH, "CONTENT_LENGTH"},
    {QUIL_PARAM_PLUGIN, "PLUGIN"},
    {QUIL_PARAM_REMOTE_ADDR, "REMOTE_ADDR"},
    {QUIL_PARAM_HTTP_COOKIE, "HTTP_COOKIE"},
    {QUIL_PARAM_HTTP_FROM, "HTTP_FROM"},
    {QUIL_PARAM_HTTP_ACCEPT, "HTTP_ACCEPT"},
    {QUIL_PARAM_SOAPACTION, "SOAPACTION"},
};

// A body of the length that the web server tells. False with the status that tells the browser why.
bool readWholeBody(ve_hrequest_t* request, BodySource& body, const char* contentLength, HttpStatus& refusal) {
    // 64 bits wide in every build: a length beyond 32 bits must not turn into a small one.
    const long long length = std::strtoll(contentLength, nullptr, 10);
    if (length == 0) return true;
    const bool isTooLong = length > static_cast<long long>(body.most());
    refusal = isTooLong ? kContentTooLarge : kBadRequest;
    if (length < 0 || isTooLong) return false;
    const auto size = static_cast<std::uint32_t>(length);
    ForbidCoreDumps();  // a body may be a password
    unsigned char* buffer = VeRequestGetPostArgBuffer(request, size);
    if (buffer == nullptr) {
        refusal = kServiceUnavailable;
        return false;
    }
    return body.read(buffer, size) == length && VeRequestSetPostArgDataSize(request, size);
}

// A body of unknown length, up to its end. False with the status that tells the browser why.
bool readBodyToItsEnd(ve_hrequest_t* request, BodySource& body, std::uint32_t& size, HttpStatus& refusal) {
    constexpr std::uint32_t kFirstRoom = 16384;  // bytes
    const std::uint32_t most = body.mostWithoutLength();
    ForbidCoreDumps();
    for (std::uint32_t room = std::min(kFirstRoom, most);;) {
        unsigned char* buffer = VeRequestGetPostArgBuffer(request, room);
        const std::int64_t count = buffer != nullptr ? body.read(buffer + size, room - size) : -1;
        refusal = buffer != nullptr ? kBadRequest : kServiceUnavailable;
        if (count < 0) return false;
        size += static_cast<std::uint32_t>(count);
        if (size < room) return VeRequestSetPostArgDataSize(request, size);
        if (room == most) break;
        room = room > most / 2 ? most : room * 2;
    }
    unsigned char oneMore;
    refusal = kContentTooLarge;
    return body.read(&oneMore, 1) == 0 && VeRequestSetPostArgDataSize(request, size);
}

// The body, and the parameter that tells its length.
bool takeBody(ve_hrequest_t* request, const RequestParts& parts, HttpStatus& refusal) {
    const char* contentLength = parts.variables.get("CONTENT_LENGTH");
    if (contentLength != nullptr) return readWholeBody(request, parts.body, contentLength, refusal);
    std::uint32_t size = 0;
    if (parts.body.mostWithoutLength() != 0 && !readBodyToItsEnd(request, parts.body, size, refusal))
        return false;
    char text[16];
    std::snprintf(text, sizeof text, "%u", size);
    VeRequestSetAtrtibute(request, QUIL_PARAM_CONTENT_LENGTH, text);
    return true;
}

}  // namespace

ve_hrequest_t* MakeRequestRecord(ve_hclient_t* connection, const RequestParts& parts, HttpStatus& refusal) {
    refusal = kServiceUnavailable;
    ve_hrequest_t* request = VeClientAllocRequest(connection);
    if (request == nullptr) return nullptr;
    const MemoryWatch memory;
    if (!takeBody(request, parts, refusal)) {
        VeClientFreeRequest(connection, request);
        return nullptr;
    }
    for (const ParamVariable& param : kParamVariables)
        VeRequestSetAtrtibute(request, param.id, parts.variables.get(param.variable));
    VeRequestSetAtrtibute(request, QUIL_PARAM_COMMANDLINE, parts.commandLine);
    VeRequestSetAtrtibute(request, QUIL_PARAM_FULLHEADER, parts.fullHeader);
    if (memory.ranOut()) {
        VeClientFreeRequest(connection, request);
        refusal = kServiceUnavailable;
        return nullptr;
    }
    return request;
}
