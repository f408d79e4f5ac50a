// RequestLog: one line in logfmt about a request, on the web server's error log or in the system logger.
#pragma once

#include <cstdint>
#include <ctime>

#include "Server/Common_Classes/UText.h"
#include "cgi/CgiVariables.h"
#include "cgi/HttpStatus.h"
#include "cgi/RequestId.h"
#include "client/ResponseSettings.h"
#include "protocol/QuilClient.h"

// What the line tells of how a request ended.
struct RequestEnd {
    int code;                  // the client error code, 0 for a whole answer
    HttpStatus status;         // of a failure
    const QuilClient* client;  // null when there was none
    std::uint64_t bytesIn;     // of the request's body
    std::uint64_t bytesOut;    // to the web server
    bool lacksErrorPage;       // ERRORPAGE could not be read
};

// Follows a request from step to step, and writes its line at the end when the client's section wants one. Without a
// log nothing is done and no clock is read. A line that cannot be written is lost: a log never changes a response, and
// never waits.
class RequestLog {
  public:
    // What is being waited for.
    enum Step { kBody, kConnection, kSending, kAnswer, kRest, kSteps };

    RequestLog(const CgiVariables& variables, RequestId& requestId)
        : variables_(variables), requestId_(requestId) {}
    RequestLog(const RequestLog&) = delete;
    RequestLog& operator=(const RequestLog&) = delete;

    // standardError: the descriptor that stood there at the start; -1: there was none. The settings outlive the log.
    void open(const ResponseSettings& settings, const char* client, int standardError);
    void enter(Step step);
    void write(const RequestEnd& end);

    Step step() const { return step_; }
    // Between two steps, or from one to now; below 0 when one was never come to, or there is no log.
    double milliseconds(Step from, Step to) const;
    double milliseconds(Step from) const;

    // The line of a request that takes too long, made beforehand for a signal handler; without the times that are not
    // known yet. Only for standard error: the system logger is out of a handler's reach.
    void prepare(const RequestEnd& end);
    void writePrepared() const;  // async-signal-safe

  private:
    bool isOn() const { return settings_ != nullptr && settings_->log != LogTarget::kNone; }
    const char* variable(const char* name) const;
    CText lineOf(const RequestEnd& end) const;
    CText fieldsOf(const RequestEnd& end) const;
    void appendTime(CText& line, const char* name, Step from, Step to) const;

    const CgiVariables& variables_;
    RequestId& requestId_;
    const ResponseSettings* settings_ = nullptr;
    const char* client_ = "";
    int standardError_ = -1;
    Step step_ = kBody;
    CText prepared_;
    timespec entered_[kSteps] = {};  // zero: that step was never come to
};
