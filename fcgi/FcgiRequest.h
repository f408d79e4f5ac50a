// FcgiRequest: one request of a web server over FastCGI, by libfcgi.
#pragma once

#include <fcgiapp.h>

#include <string>

#include "RecordGuard.h"
#include "cgi/CgiVariables.h"
#include "cgi/WebServerStreams.h"

// Threads: one at a time.
class FcgiRequest : public CgiVariables, public BodySource, public ResponseSink {
  public:
    // Takes the connection over, on which a request begins to come. The most bytes of a body.
    FcgiRequest(int connection, std::uint32_t mostOfBody);
    FcgiRequest(const FcgiRequest&) = delete;
    FcgiRequest& operator=(const FcgiRequest&) = delete;
    ~FcgiRequest();

    // Receives the variables. False when what came is no whole request to a responder.
    bool begin();

    // Writes that there is no memory to make a response with. False when another one has begun.
    bool refuse();

    // Ends the response; one that is not whole so that the web server takes it for broken. Afterwards the request is of
    // no use, but for release().
    void finish(bool isWhole);
    // Whether the connection stays open, and is the caller's again.
    bool release();

    bool isGone() const { return isGone_; }  // nobody took what was written

    // ---- CgiVariables ----
    const char* get(const char* name) const override;
    // The request's HTTP header fields, made of the variables that came of them (RFC 3875, 4.1.18): a line for each.
    std::string headerFields() const;

    // ---- BodySource ----
    std::int64_t read(void* buffer, std::uint32_t size) override;
    std::uint32_t most() const override { return mostOfBody_; }
    std::uint32_t mostWithoutLength() const override { return mostOfBody_; }

    // ---- ResponseSink ----
    bool write(iovec* pieces, int count) override;
    bool flush();  // what was written leaves; false when nobody takes it

  private:
    void spoil();
    bool takeRestOfBody();

    FCGX_Request request_;
    RecordGuard guard_;
    const std::uint32_t mostOfBody_;
    bool isOpen_ = true;  // and not closed by libfcgi
    bool isKept_ = false;
    bool hasBegun_ = false;  // the response
    bool holdsOutput_ = false;
    bool isGone_ = false;
};
