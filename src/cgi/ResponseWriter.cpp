#include "cgi/ResponseWriter.h"

#include <strings.h>

#include <cstdio>
#include <cstring>

#include "Server/Common_Classes/MemoryWatch.h"
#include "cgi/ErrorPage.h"
#include "cgi/NphLines.h"
#include "cgi/VeHttpResponse.h"
#include "client/QuilClientError.h"
#include "platform/osfile_impl.h"

namespace {

// Whether a field of that name stands among the header's.
bool hasField(const char* fields, const char* name) {
    const std::size_t length = std::strlen(name);
    for (const char* line = fields; line != nullptr && *line != '\0' && *line != '\r';) {
        if (strncasecmp(line, name, length) == 0 && line[length] == ':') return true;
        line = std::strchr(line, '\n');
        if (line != nullptr) ++line;
    }
    return false;
}

// The "Status:" field that tells the web server what the application server's status line says (RFC 3875, 6.3.3).
// None beside a field of that name, nor where a Location with the status 200 asks the web server for a redirect of
// its own making.
CText& makeStatusField(void* response, const char* fields, CText& out) {
    out.Clear();
    const std::int32_t code = VeHttpGetStatusCode(response);
    if (hasField(fields, "Status") || (code == 200 && hasField(fields, "Location"))) return out;
    const char* reason = VeHttpGetReasonPhrase(response, nullptr);
    out.Format("Status: %d %s\r\n", static_cast<int>(code), reason != nullptr ? reason : "");
    return out;
}

bool isHeadRequest(const CgiVariables& variables) {
    const char* method = variables.get("REQUEST_METHOD");
    return method != nullptr && std::strcmp(method, "HEAD") == 0;
}

}  // namespace

// A failure's page with what stands before it, in pieces that leave in one write: the C library's stream would lose
// what an interrupted or blocked write had.
class ResponseWriter::Failure {
  public:
    static constexpr int kParts = NphLines::kParts + 4;

    // isFirst: nothing has gone out before it.
    Failure(const ResponseWriter& writer, std::uint32_t code, HttpStatus status, bool isFirst)
        : page_(code, status, writer.settings_.errorPage, nameOf(writer)),
          nph_(writer.settings_.sendsHttpStatus ? status : kInternalServerError, writer.variables_) {
        const bool isNph = writer.isNph_;
        const bool tellsStatus = writer.settings_.sendsHttpStatus && isFirst;
        const char* text = page_.text();
        if (*text == '\0') {  // there was no memory to put it together
            std::snprintf(shortPage_, sizeof shortPage_, VE_ERR_HTML_TEMPLATE, static_cast<int>(code),
                          "There is not enough memory.", "");
            text = shortPage_;
        }
        if (tellsStatus && !isNph)
            std::snprintf(statusField_, sizeof statusField_, "Status: %d %s\r\n", status.code, status.reason);
        const bool comesBack = tellsStatus && status.code == kServiceUnavailable.code;
        if (isNph) std::memcpy(parts, nph_.parts(), NphLines::kParts * sizeof *parts);
        iovec* next = parts + NphLines::kParts;
        *next++ = TextPart(statusField_);
        *next++ = TextPart(comesBack ? "Retry-After: 10\r\n" : "");
        *next++ = TextPart("Content-type: text/html\r\n\r\n");
        *next = TextPart(isNph && isHeadRequest(writer.variables_)
                             ? ""
                             : text);  // the web server takes it from any other program
        lacksErrorPage_ = page_.isBuiltIn() && !writer.settings_.errorPage.IsEmpty();
    }
    Failure(const Failure&) = delete;
    Failure& operator=(const Failure&) = delete;

    bool lacksErrorPage() const { return lacksErrorPage_; }

    iovec parts[kParts] = {};

  private:
    // Only a page of the operator's own shows it.
    static const char* nameOf(const ResponseWriter& writer) {
        return writer.settings_.errorPage.IsEmpty() ? "" : writer.requestId_.text();
    }

    const ErrorPage page_;
    const NphLines nph_;
    bool lacksErrorPage_;
    char statusField_[64] = "";
    char shortPage_[512];
};

bool ResponseWriter::writeHeader(const char* header, std::uint32_t length) {
    void* response = VeHttpParseResponse(header, false);
    if (response == nullptr) return false;
    CText statusField;
    if (!isNph_) {  // the web server makes its own status line
        header = VeHttpFirstResponseHeader(response);
        length = static_cast<std::uint32_t>(std::strlen(header));
        if (settings_.sendsHttpStatus) makeStatusField(response, header, statusField);
    }
    VeHttpReleaseResponse(response);
    return finish() && hold(statusField, header, length);
}

// What there is no memory to hold leaves at once.
bool ResponseWriter::hold(const CText& statusField, const char* bytes, std::uint32_t length) {
    const std::uint32_t statusLength = statusField.Length();
    const std::uint32_t total = statusLength + length;
    if (held_.SetEqualTo(statusField.GetTextEx(), statusLength, total) == statusLength)
        held_.Replace(statusLength, 0, bytes, length);
    if (held_.GetDataSize() == total) return true;
    held_.Clear();
    iovec parts[] = {TextPart(statusField.GetTextEx()), {const_cast<char*>(bytes), length}};
    return write(parts, 2);
}

bool ResponseWriter::writeBody(const char* bytes, std::uint32_t length) {
    iovec parts[] = {{held_.GetBuffer(), held_.GetDataSize()}, {const_cast<char*>(bytes), length}};
    const bool isWritten = write(parts, 2);
    held_.Clear();
    return isWritten;
}

bool ResponseWriter::finish() {
    return writeBody(nullptr, 0);
}

bool ResponseWriter::take(TQUILReqType type, const char* data, std::uint32_t length) {
    switch (type) {
        case QUIL_HTTP_HEADER:
            return writeHeader(data, length);
        case QUIL_BODY_DATA:
            return writeBody(data, length);
        case QUIL_END:
            return finish();
        default:
            return true;
    }
}

bool ResponseWriter::write(iovec* parts, int count) {
    for (int i = 0; i < count; ++i)
        bytesWritten_ += parts[i].iov_len;
    return sink_.write(parts, count) || !settings_.cutsBrokenAnswers;
}

void ResponseWriter::writeErrorPage(std::uint32_t code, HttpStatus status) {
    isCut_ = settings_.cutsBrokenAnswers && hasBegun();
    if (isCut_) return;
    if (settings_.cutsBrokenAnswers || settings_.sendsHttpStatus) held_.Clear();
    finish();
    Failure failure(*this, code, status, !hasBegun());
    lacksErrorPage_ = failure.lacksErrorPage();
    write(failure.parts, Failure::kParts);
}

bool ResponseWriter::prepareErrorPage(std::uint32_t code, HttpStatus status) {
    const MemoryWatch memory;
    const Failure failure(*this, code, status, true);
    for (const iovec& part : failure.parts)
        prepared_ += CText(static_cast<const char*>(part.iov_base), static_cast<std::uint32_t>(part.iov_len));
    return !memory.ranOut();
}

void ResponseWriter::writePreparedPage() const {
    if (hasBegun()) return;
    iovec part = {const_cast<char*>(prepared_.GetTextEx()), prepared_.Length()};
    sink_.write(&part, 1);
}
