#include "cgi/Exchange.h"

#include <cerrno>

#include "protocol/QuilClient.h"

namespace {

// A request record, freed with its owner or before.
class Record {
  public:
    Record(ve_hclient_t* connection, ve_hrequest_t* request) : connection_(connection), request_(request) {}
    Record(const Record&) = delete;
    Record& operator=(const Record&) = delete;
    ~Record() { free(); }

    ve_hrequest_t* get() const { return request_; }
    void free() {
        VeClientFreeRequest(connection_, request_);
        request_ = nullptr;
    }

  private:
    ve_hclient_t* const connection_;
    ve_hrequest_t* request_;
};

}  // namespace

RequestEnd Exchange::serve(ve_hclient_t* connection) {
    QuilClient* client = QuilClient::CastHandleToQuilClient(connection);
    if (client == nullptr) return fail(client, CLIENT_ERR_CONNECTION, kInternalServerError);
    if (settings_.needsLength && lacksLength()) return fail(client, CLIENT_ERR_PREPARE, kLengthRequired);
    HttpStatus refusal = kInternalServerError;
    Record request(connection, MakeRequestRecord(connection, parts_, refusal));
    if (request.get() == nullptr) return fail(client, CLIENT_ERR_PREPARE, refusal);
    VeRequestGetPostArgData(request.get(), &bodySize_);
    log_.enter(RequestLog::kConnection);
    if (!connect(connection, request.get())) return fail(client, CLIENT_ERR_CONNECT, kServiceUnavailable);
    log_.enter(RequestLog::kSending);
    if (!send(connection, request.get())) return failInTalk(client, CLIENT_ERR_SEND);
    log_.enter(RequestLog::kAnswer);
    request.free();
    if (!dispatch(connection)) return failInTalk(client, CLIENT_ERR_DISPATCH);
    return end(client, 0, {200, "OK"});
}

// Whether the request has a body whose length the web server does not tell.
bool Exchange::lacksLength() const {
    return parts_.variables.get("HTTP_TRANSFER_ENCODING") != nullptr &&
           parts_.variables.get("CONTENT_LENGTH") == nullptr;
}

RequestEnd Exchange::end(QuilClient* client, int code, HttpStatus status) {
    const RequestEnd end{
        code, status, client, bodySize_, response_.bytesWritten(), response_.lacksErrorPage()};
    log_.write(end);
    return end;
}

RequestEnd Exchange::fail(QuilClient* client, QuilClientErrorCode code, HttpStatus status) {
    response_.writeErrorPage(code, status);
    return end(client, static_cast<int>(code), status);
}

// A wait that took too long has another status.
RequestEnd Exchange::failInTalk(QuilClient* client, QuilClientErrorCode code) {
    return fail(client, code, client->transportError() == ETIMEDOUT ? kGatewayTimeout : kBadGateway);
}
