#include "protocol/QuilRequest.h"

#include <strings.h>

#include <cstddef>
#include <cstring>

#include "Server/Common_Classes/MemoryWatch.h"

namespace {

struct QuilReqParamDesc {
    TQUILReqParamID id;
    const char* name;
};

constexpr QuilReqParamDesc QuilReqParamDescs[] = {
    {QUIL_PARAM_QUERY_STRING, "QUERY_STRING"},       {QUIL_PARAM_PATH_INFO, "PATH_INFO"},
    {QUIL_PARAM_PATH_TRANSLATED, "PATH_TRANSLATED"}, {QUIL_PARAM_REQUEST_METHOD, "REQUEST_METHOD"},
    {QUIL_PARAM_REMOTE_HOST, "REMOTE_HOST"},         {QUIL_PARAM_REMOTE_IDENT, "REMOTE_IDENT"},
    {QUIL_PARAM_REMOTE_USER, "REMOTE_USER"},         {QUIL_PARAM_REMOTE_PASSWD, "REMOTE_PASSWD"},
    {QUIL_PARAM_REMOTE_NAME, "REMOTE_NAME"},         {QUIL_PARAM_REMOTE_PORT, "REMOTE_PORT"},
    {QUIL_PARAM_SERVER_NAME, "SERVER_NAME"},         {QUIL_PARAM_SERVER_PORT, "SERVER_PORT"},
    {QUIL_PARAM_SCRIPT_NAME, "SCRIPT_NAME"},         {QUIL_PARAM_HTTP_REFERER, "HTTP_REFERER"},
    {QUIL_PARAM_HTTP_USER_AGENT, "HTTP_USER_AGENT"}, {QUIL_PARAM_CONTENT_TYPE, "CONTENT_TYPE"},
    {QUIL_PARAM_CONTENT_LENGTH, "CONTENT_LENGTH"},   {QUIL_PARAM_PLUGIN, "PLUGIN"},
    {QUIL_PARAM_REMOTE_ADDR, "REMOTE_ADDR"},         {QUIL_PARAM_HTTP_COOKIE, "HTTP_COOKIE"},
    {QUIL_PARAM_COMMANDLINE, "COMMANDLINE"},         {QUIL_PARAM_HTTP_FROM, "HTTP_FROM"},
    {QUIL_PARAM_HTTP_ACCEPT, "HTTP_ACCEPT"},         {QUIL_PARAM_SOAPACTION, "SOAPACTION"},
    {QUIL_PARAM_FULLHEADER, "FULLHEADER"},
};

// Callers in C may pass any number as an id.
constexpr bool isParam(TQUILReqParamID id) {
    return static_cast<std::uint32_t>(id) < QUIL_PARAM_NONE;
}

constexpr bool tableIsInIdOrder() {
    for (std::size_t i = 0; i < std::size(QuilReqParamDescs); ++i) {
        if (QuilReqParamDescs[i].id != static_cast<TQUILReqParamID>(i)) return false;
    }
    return std::size(QuilReqParamDescs) == QUIL_PARAM_NONE;
}
static_assert(tableIsInIdOrder(), "ids index the table");

}  // namespace

const char* FindQuilParamName(TQUILReqParamID id) {
    return isParam(id) ? QuilReqParamDescs[id].name : nullptr;
}

TQUILReqParamID FindQuilParamID(const char* name) {
    if (name == nullptr) return QUIL_PARAM_NONE;
    for (const QuilReqParamDesc& desc : QuilReqParamDescs) {
        if (strcasecmp(desc.name, name) == 0) return desc.id;
    }
    return QUIL_PARAM_NONE;
}

TQuilRequest::TQuilRequest() {
    // Laid over the names, which nobody changes, rather than 25 copies.
    for (const QuilReqParamDesc& desc : QuilReqParamDescs) {
        const auto size = static_cast<std::uint32_t>(std::strlen(desc.name) + 1);
        params_[desc.id].key().SetBuffer(const_cast<char*>(desc.name), size, size);
    }
}

TQuilRequest::~TQuilRequest() {
    handleTag_.revoke();
}

bool TQuilRequest::SetParamAttribute(TQUILReqParamID id, const char* value) {
    const MemoryWatch memory;
    return isParam(id) && params_[id].updateValue(value) && !memory.ranOut();
}

bool TQuilRequest::SetParamAttribute(const char* name, const char* value) {
    return SetParamAttribute(FindQuilParamID(name), value);
}

const Attribute* TQuilRequest::GetParamAttribute(TQUILReqParamID id) const {
    return isParam(id) ? &params_[id] : nullptr;
}

const Attribute* TQuilRequest::GetParamAttribute(const char* name) const {
    return GetParamAttribute(FindQuilParamID(name));
}

void TQuilRequest::SetPostArgs(const unsigned char* data, std::uint32_t size) {
    if (size == 0) {
        postArgs_.Clear();
    } else {
        postArgs_.SetEqualTo(data, size, 0);
    }
}

TQuilRequest* TQuilRequest::CastHandleToQuilRequest(void* handle) {
    return HandleTag::isOn(handle) ? static_cast<TQuilRequest*>(handle) : nullptr;
}
