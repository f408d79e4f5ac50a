// ResponseWriter: the way of a response to the web server, up to its end or to an error page.
#pragma once

#include <sys/uio.h>

#include <cstdint>

#include "Server/Common_Classes/UData.h"
#include "Server/Common_Classes/UText.h"
#include "cgi/CgiVariables.h"
#include "cgi/HttpStatus.h"
#include "cgi/RequestId.h"
#include "cgi/WebServerStreams.h"
#include "client/ResponseSettings.h"
#include "protocol/QuilTypes.h"

// Writes a CGI response (RFC 3875, 6), or as an "nph-" program a whole HTTP response, to a sink. A header waits until
// something follows it, so that a small page leaves in one write.
//
// Whether somebody still reads is not examined, unless broken answers are cut: then a failed write fails the operation.
// Threads: one at a time.
class ResponseWriter {
  public:
    ResponseWriter(ResponseSink& sink, const CgiVariables& variables, RequestId& requestId)
        : sink_(sink), variables_(variables), requestId_(requestId) {}
    ResponseWriter(const ResponseWriter&) = delete;
    ResponseWriter& operator=(const ResponseWriter&) = delete;

    void setNph(bool isNph) { isNph_ = isNph; }
    void setSettings(const ResponseSettings& settings) { settings_ = settings; }

    // A header of the application server, status line and fields, NUL-terminated. False when it is none.
    bool writeHeader(const char* header, std::uint32_t length);
    bool writeBody(const char* bytes, std::uint32_t length);
    bool finish();  // what is held leaves

    // What a message of the application server asks for: one of the three above, or nothing.
    bool take(TQUILReqType type, const char* data, std::uint32_t length);

    // The page of a client error code. It stands behind what was written already; a header that is still held comes
    // before it. Where answers are cut, or statuses sent, that header is dropped instead; where they are cut, nothing
    // is written once something has gone out.
    void writeErrorPage(std::uint32_t code, HttpStatus status);

    // The same page made beforehand, for a signal handler, which then writes it unless something has gone out. False
    // without memory for it.
    bool prepareErrorPage(std::uint32_t code, HttpStatus status);
    void writePreparedPage() const;  // async-signal-safe if the sink is

    std::uint64_t bytesWritten() const { return bytesWritten_; }  // or given up in a failed write
    bool isCut() const { return isCut_; }                         // it broke off, and nothing was appended
    bool lacksErrorPage() const { return lacksErrorPage_; }       // ERRORPAGE could not be read

  private:
    class Failure;

    bool hasBegun() const { return bytesWritten_ != 0; }
    bool write(iovec* parts, int count);
    bool hold(const CText& statusField, const char* bytes, std::uint32_t length);

    ResponseSink& sink_;
    const CgiVariables& variables_;
    RequestId& requestId_;
    bool isNph_ = false;
    bool lacksErrorPage_ = false;
    bool isCut_ = false;
    std::uint64_t bytesWritten_ = 0;
    ResponseSettings settings_;
    CData held_;
    CText prepared_;
};
