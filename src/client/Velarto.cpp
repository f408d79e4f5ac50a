// The handle interface over the protocol client. The environment's own operations: ClientEnvironment.cpp.
#include "client/Velarto.h"

#include <cstring>

#include "Server/General/FirstInPlace.h"
#include "client/ClientEnvironment.h"
#include "client/ConfigClnt.h"
#include "client/QuilClientError.h"
#include "platform/FileContent.h"
#include "platform/memory_impl.h"
#include "protocol/SocCGIQuilClient.h"

namespace {

constexpr char kBuildVersion[] = "5.5.020";
constexpr std::uint32_t kProtocolVersion = 0xFDFFFDFF;  // the wire's constant with its bytes reversed

QuilClient* asClient(ve_hclient_t* connection) {
    return QuilClient::CastHandleToQuilClient(connection);
}

TQuilRequest* asRequest(ve_hrequest_t* request) {
    return TQuilRequest::CastHandleToQuilRequest(request);
}

ve_hclient_t* asHandle(QuilClient* client) {
    return reinterpret_cast<ve_hclient_t*>(client);
}

// A callback of the interface, on its way through the protocol client's dispatch loop.
struct DispatchWrapper {
    VeClientDispatchCallback callback;
    void* user;
};

bool ProcessQuilRequestCB(QuilClient& client, TQUILReqType type, const char* data, std::uint32_t length,
                          void* wrapper) {
    const auto* wrapped = static_cast<const DispatchWrapper*>(wrapper);
    return wrapped != nullptr && wrapped->callback(asHandle(&client), type, data, length, wrapped->user);
}

// The operator's own error page; empty when none is configured or the built-in one is to be shown all the
// same.
CText configuredErrorFile() {
    CText path;
    ReadLock lock(RWLock);
    if (lock && configStanza != nullptr && !IsTrueValue(*configStanza, key::REPORTCLIENTERROR)) {
        configStanza->getValue(key::ERROR_HTML.name, path);
    }
    return path;
}

}  // namespace

// ---- connections ----

ve_hclient_t* VeClientCreateConnection(std::uint32_t /*flags*/) {
    SocCGIQuilClient* client = FirstInPlace<SocCGIQuilClient>::create();
    if (client == nullptr) return nullptr;
    ReadLock lock(RWLock);
    if (lock) client->SetReadWriteTimeout(ClientRrWrTimeout);
    return asHandle(client);
}

bool VeClientDestroyConnection(ve_hclient_t* connection) {
    QuilClient* client = asClient(connection);
    FirstInPlace<SocCGIQuilClient>::destroy(client);
    return client != nullptr;
}

bool VeClientConnectToServer(ve_hclient_t* connection, ve_hrequest_t* request) {
    clientError.SetError(CLIENT_ERR_CONNECT, nullptr);
    QuilClient* client = asClient(connection);
    TQuilRequest* record = asRequest(request);
    if (client == nullptr || record == nullptr) return false;

    ReadLock lock(RWLock);
    if (lock && client->ConnectToQuilServer(record, configStanza, ClientName.GetTextEx(), OneShotClient))
        return true;
    clientError.SetErrorMessage("Tried connecting to Velarto Server for client %s on %s",
                                ClientName.GetTextEx(), client->serverEntry().GetTextEx());
    return false;
}

bool VeClientSendRequest(ve_hclient_t* connection, ve_hrequest_t* request) {
    clientError.SetError(CLIENT_ERR_SEND, nullptr);
    QuilClient* client = asClient(connection);
    TQuilRequest* record = asRequest(request);
    if (client == nullptr || record == nullptr) return false;

    if (client->SendQuilRequest(record)) return true;
    if (*client->serverPort() == 0) {
        clientError.SetErrorMessage("The request was sent to the Velarto Server on %s", client->serverIP());
    } else {
        clientError.SetErrorMessage("The request was sent to the Velarto Server on IP %s Port %s",
                                    client->serverIP(), client->serverPort());
    }
    return false;
}

bool VeClientDispatchRequests(ve_hclient_t* connection, VeClientDispatchCallback callback, void* user) {
    QuilClient* client = asClient(connection);
    if (client == nullptr || callback == nullptr) return false;
    DispatchWrapper wrapper{callback, user};
    return client->DispatchQuilRequests(ProcessQuilRequestCB, &wrapper, ParseFilePaths());
}

// ---- requests ----

ve_hrequest_t* VeClientAllocRequest(ve_hclient_t* connection) {
    QuilClient* client = asClient(connection);
    return client != nullptr ? reinterpret_cast<ve_hrequest_t*>(client->AllocQuilRequest()) : nullptr;
}

bool VeClientFreeRequest(ve_hclient_t* connection, ve_hrequest_t* request) {
    QuilClient* client = asClient(connection);
    TQuilRequest* record = asRequest(request);
    if (client == nullptr || record == nullptr) return false;
    client->FreeQuilRequest(record);
    return true;
}

bool VeRequestSetAtrtibute(ve_hrequest_t* request, TQUILReqParamID id, const char* value) {
    if (value == nullptr) return true;
    TQuilRequest* record = asRequest(request);
    return record != nullptr && record->SetParamAttribute(id, value);
}

const char* VeRequestGetAtrtibute(ve_hrequest_t* request, TQUILReqParamID id) {
    const TQuilRequest* record = asRequest(request);
    const Attribute* parameter = record != nullptr ? record->GetParamAttribute(id) : nullptr;
    return parameter != nullptr ? parameter->value().GetTextEx() : nullptr;
}

unsigned char* VeRequestGetPostArgBuffer(ve_hrequest_t* request, std::uint32_t size) {
    TQuilRequest* record = asRequest(request);
    if (record == nullptr || !record->postArgs().SetBufferSize(size)) return nullptr;
    AdviseHugePages(record->postArgs().GetBuffer(), size);
    return record->postArgs().GetBuffer();
}

bool VeRequestSetPostArgDataSize(ve_hrequest_t* request, std::uint32_t size) {
    TQuilRequest* record = asRequest(request);
    return record != nullptr && record->postArgs().SetUsableDataSize(size) == size;
}

bool VeRequestSetPostArgData(ve_hrequest_t* request, const void* data, std::uint32_t size) {
    unsigned char* buffer = VeRequestGetPostArgBuffer(request, size);
    if (buffer == nullptr) return false;
    std::memcpy(buffer, data, size);
    return VeRequestSetPostArgDataSize(request, size);
}

const unsigned char* VeRequestGetPostArgData(ve_hrequest_t* request, std::uint32_t* size) {
    const TQuilRequest* record = asRequest(request);
    if (record == nullptr) return nullptr;
    if (size != nullptr) *size = record->postArgs().GetUsableDataSize();
    return record->postArgs().GetBuffer();
}

// ---- scratch buffer ----

unsigned char* VeClientGetScratchBuffer(ve_hclient_t* connection, std::uint32_t size,
                                        std::uint32_t* bufferSize) {
    QuilClient* client = asClient(connection);
    if (client == nullptr) return nullptr;
    CData& scratch = client->GetScratchBuffer(size);
    if (bufferSize != nullptr) *bufferSize = scratch.GetBufferSize();
    return scratch.GetBufferSize() >= size ? scratch.GetBuffer() : nullptr;
}

std::uint32_t VeClientGetScratchDataSize(ve_hclient_t* connection) {
    QuilClient* client = asClient(connection);
    return client != nullptr ? client->GetScratchBuffer(0).GetUsableDataSize() : 0;
}

std::uint32_t VeClientSetScratchDataSize(ve_hclient_t* connection, std::uint32_t size) {
    QuilClient* client = asClient(connection);
    return client != nullptr ? client->GetScratchBuffer(0).SetUsableDataSize(size) : 0;
}

// ---- errors and versions ----

const char* VeClientGetErrorHtml(ve_hclient_t* connection, std::uint32_t code) {
    QuilClient* client = asClient(connection);
    if (code == CLIENT_ERR_ENVIRONMENT || client == nullptr) return clientError.GetErrorHtml(code);
    const CText path = configuredErrorFile();
    if (path.IsEmpty()) return clientError.GetErrorHtml(code);

    CData content;
    std::uint32_t size = 0;
    if (!ReadFileContent(path.GetTextEx(), content, size) || content.GetDataSize() != size ||
        size == 0xFFFFFFFFu) {
        return clientError.GetErrorHtml(CLIENT_ERR_ERROR_HTML);
    }
    CData& page = client->GetScratchBuffer(size + 1);
    if (page.GetBufferSize() <= size) return clientError.GetErrorHtml(CLIENT_ERR_ERROR_HTML);
    content.Copy(page.GetBuffer(), size);
    page.GetBuffer()[size] = 0;
    page.SetUsableDataSize(size + 1);
    return reinterpret_cast<const char*>(page.GetBuffer());
}

const char* VeClientGetErrorStatus(std::uint32_t code) {
    return clientError.GetStatus(code);
}

const char* VeClientGetBuildVersion() {
    return kBuildVersion;
}

std::uint32_t VeClientGetProtocolVersion() {
    return kProtocolVersion;
}
