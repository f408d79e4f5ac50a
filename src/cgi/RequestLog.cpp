#include "cgi/RequestLog.h"

#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>

#include "Server/Common_Classes/MemoryWatch.h"
#include "eventlog/eventlog_impl.h"

namespace {

constexpr const char* kStepNames[] = {"body", "connection", "sending", "answer", "rest"};
static_assert(sizeof kStepNames / sizeof *kStepNames == RequestLog::kSteps, "a name for each step");

constexpr std::size_t kLongestLine = 4000;   // bytes: a pipe takes them whole or not at all
constexpr std::size_t kLongestValue = 1000;  // characters; more of a visitor's text tells nothing

timespec now() {
    timespec time{};
    clock_gettime(CLOCK_MONOTONIC, &time);
    return time;
}

double millisecondsBetween(const timespec& from, const timespec& to) {
    return static_cast<double>(to.tv_sec - from.tv_sec) * 1e3 +
           static_cast<double>(to.tv_nsec - from.tv_nsec) / 1e6;
}

// A value in quotes. What could end it, or the line, is written in other characters: nobody outside can forge a field.
void appendValue(CText& line, const char* name, const char* value) {
    line.AppendFormat(" %s=\"", name);
    for (std::size_t i = 0; value[i] != '\0' && i < kLongestValue; ++i) {
        const auto c = static_cast<unsigned char>(value[i]);
        if (c < 0x20 || c == 0x7F) {
            line.AppendFormat("\\x%02X", static_cast<unsigned>(c));
        } else {
            if (c == '"' || c == '\\') line += '\\';
            line += value[i];
        }
    }
    line += '"';
}

const char* choiceText(ServerChoice choice) {
    switch (choice) {
        case ServerChoice::kOnly:
            return "only";
        case ServerChoice::kForced:
            return "forced";
        case ServerChoice::kUsers:
            return "user";
        case ServerChoice::kRandom:
            return "random";
        case ServerChoice::kNone:
            break;
    }
    return "none";
}

CText timeText() {
    timespec time{};
    clock_gettime(CLOCK_REALTIME, &time);
    std::tm utc{};
    gmtime_r(&time.tv_sec, &utc);
    CText text;
    text.Format("%04d-%02d-%02dT%02d:%02d:%02d.%03ldZ", utc.tm_year + 1900, utc.tm_mon + 1, utc.tm_mday,
                utc.tm_hour, utc.tm_min, utc.tm_sec, time.tv_nsec / 1000000);
    return text;
}

// Only where there is room at once: a web server that does not read its log must not hold the request.
void writeAtOnce(int fd, const CText& line) {
    pollfd entry{fd, POLLOUT, 0};
    if (poll(&entry, 1, 0) != 1 || (entry.revents & POLLOUT) == 0) return;
    std::signal(SIGPIPE, SIG_IGN);
    [[maybe_unused]] const ssize_t written = ::write(fd, line.GetTextEx(), line.Length());
}

}  // namespace

void RequestLog::open(const ResponseSettings& settings, const char* client, int standardError) {
    settings_ = &settings;
    client_ = client;
    standardError_ = standardError;
    enter(kBody);
}

void RequestLog::enter(Step step) {
    if (!isOn() || entered_[step].tv_sec != 0) return;
    step_ = step;
    entered_[step] = now();
}

void RequestLog::write(const RequestEnd& end) {
    if (!isOn()) return;
    const bool hasRefused = end.client != nullptr && !end.client->refusedFile().IsEmpty();
    if (!settings_->logsAll && end.code == 0 && !hasRefused && settings_->ignoredKeys.IsEmpty()) return;
    const CText line = lineOf(end);
    if (settings_->log == LogTarget::kSystemLogger) {
        OpenSystemEventLogEx(client_);
        ReportSystemEventEx(end.code != 0 ? SYS_EVENT_ERROR : SYS_EVENT_INFO, SYS_EVENT_RUNTIME,
                            line.GetTextEx(), nullptr);
    } else if (standardError_ != -1) {
        writeAtOnce(standardError_, line);
    }
}

void RequestLog::prepare(const RequestEnd& end) {
    if (!isOn() || settings_->log != LogTarget::kStandardError) return;
    prepared_ = lineOf(end);
}

void RequestLog::writePrepared() const {
    if (!prepared_.IsEmpty() && standardError_ != -1) writeAtOnce(standardError_, prepared_);
}

double RequestLog::milliseconds(Step from, Step to) const {
    const bool wereBoth = entered_[from].tv_sec != 0 && entered_[to].tv_sec != 0;
    return wereBoth ? millisecondsBetween(entered_[from], entered_[to]) : -1;
}

double RequestLog::milliseconds(Step from) const {
    return entered_[from].tv_sec != 0 ? millisecondsBetween(entered_[from], now()) : -1;
}

void RequestLog::appendTime(CText& line, const char* name, Step from, Step to) const {
    const double time = milliseconds(from, to);
    if (time >= 0) line.AppendFormat(" %s=%.1f", name, time);
}

const char* RequestLog::variable(const char* name) const {
    const char* value = variables_.get(name);
    return value != nullptr ? value : "";
}

// What can be told of the request, or, when there is no memory for that, of its end.
CText RequestLog::lineOf(const RequestEnd& end) const {
    const MemoryWatch memory;
    const char* lineFeed = settings_->log == LogTarget::kStandardError ? "\n" : "";
    CText line = fieldsOf(end);
    if (line.Length() > kLongestLine) line.SetUsableDataSize(kLongestLine + 1);
    line += lineFeed;
    if (memory.ranOut())
        line.Format("code=%d status=%d error=\"%s\"%s", end.code, end.status.code, std::strerror(ENOMEM),
                    lineFeed);
    return line;
}

CText RequestLog::fieldsOf(const RequestEnd& end) const {
    CText line;
    line.Format("time=%s", timeText().GetTextEx());
    appendValue(line, "client", client_);
    appendValue(line, "request", requestId_.text());
    appendValue(line, "method", variable("REQUEST_METHOD"));
    appendValue(line, "path", variable("PATH_INFO"));
    if (end.client != nullptr && end.client->choice() != ServerChoice::kNone) {
        appendValue(line, "server", end.client->serverEntry().GetTextEx());
        line.AppendFormat(" choice=%s", choiceText(end.client->choice()));
        if (!end.client->failedAttempts().IsEmpty())
            appendValue(line, "failed", end.client->failedAttempts().GetTextEx());
    }
    appendTime(line, "connect_ms", kConnection, kSending);
    appendTime(line, "first_byte_ms", kAnswer, kRest);
    line.AppendFormat(" total_ms=%.1f", milliseconds(kBody));
    line.AppendFormat(" bytes_in=%llu bytes_out=%llu", static_cast<unsigned long long>(end.bytesIn),
                      static_cast<unsigned long long>(end.bytesOut));
    line.AppendFormat(" code=%d", end.code);
    if (end.code != 0) line.AppendFormat(" status=%d waiting_for=%s", end.status.code, kStepNames[step_]);
    if (end.client != nullptr && end.code != 0 && end.client->transportError() != 0)
        appendValue(line, "error", std::strerror(end.client->transportError()));
    if (end.client != nullptr && !end.client->refusedFile().IsEmpty())
        appendValue(line, "no_file", end.client->refusedFile().GetTextEx());
    if (end.lacksErrorPage) appendValue(line, "unreadable", settings_->errorPage.GetTextEx());
    if (!settings_->ignoredKeys.IsEmpty()) appendValue(line, "ignored", settings_->ignoredKeys.GetTextEx());
    return line;
}
