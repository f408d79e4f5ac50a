// Exchange: one request's way to an application server, and its answer's way back.
#pragma once

#include "cgi/RequestLog.h"
#include "cgi/RequestRecord.h"
#include "cgi/ResponseWriter.h"
#include "client/QuilClientError.h"

// Serves one request over a connection: the record, the server, the answer or the page of the step that failed, and
// the line in the log. How a step is taken over the connection is left to the program. What it is made of outlives it.
// Threads: one at a time.
class Exchange {
  public:
    Exchange(const RequestParts& parts, const ResponseSettings& settings, ResponseWriter& response,
             RequestLog& log)
        : parts_(parts), settings_(settings), response_(response), log_(log) {}
    Exchange(const Exchange&) = delete;
    Exchange& operator=(const Exchange&) = delete;

    // How it ended; the code is 0 for a whole answer. A null connection gives the page of that. The connection stays
    // the caller's.
    RequestEnd serve(ve_hclient_t* connection);

  protected:
    ~Exchange() = default;

    // Each tells whether it was done.
    virtual bool connect(ve_hclient_t* connection, ve_hrequest_t* request) = 0;
    virtual bool send(ve_hclient_t* connection, ve_hrequest_t* request) = 0;
    virtual bool dispatch(ve_hclient_t* connection) = 0;  // hands each message to the response

  private:
    bool lacksLength() const;
    RequestEnd end(QuilClient* client, int code, HttpStatus status);
    RequestEnd fail(QuilClient* client, QuilClientErrorCode code, HttpStatus status);
    RequestEnd failInTalk(QuilClient* client, QuilClientErrorCode code);

    const RequestParts& parts_;
    const ResponseSettings& settings_;
    ResponseWriter& response_;
    RequestLog& log_;
    std::uint32_t bodySize_ = 0;
};
