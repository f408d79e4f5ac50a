#include "client/QuilClientError.h"

#include <cstdarg>

const char* VE_ERR_HTML_TEMPLATE =
    "<html><head><title>Client Error</title></head><body><h3>Client/Plug-in Error</h3>"
    "Error Code: %d<br /><p>%s</p><p>%s</p></body></html>";

VELARTO_PER_THREAD QuilClientError clientError;

namespace {

const char* codeText(std::uint32_t code) {
    switch (code) {
        case CLIENT_ERR_ENVIRONMENT:
            return "Unable to initialize the client's environment.";
        case CLIENT_ERR_CONNECT:
            return "Unable to connect to the application server.  Check the application server process is "
                   "running.";
        case CLIENT_ERR_PREPARE:
            return "Unable to prepare an application server request.";
        case CLIENT_ERR_SEND:
            return "Unable to send a request to the application server.  Check the application server "
                   "process is running.";
        case CLIENT_ERR_DISPATCH:
            return "The client encountered problems in communicating with the application server. Please "
                   "check velartoevents.log for further information.";
        case CLIENT_ERR_HTTP_HEADER:
            return "The HTTP header received from the application server is invalid.";
        case CLIENT_ERR_RESERVED:
            return "Reserved";
        case CLIENT_ERR_INTERNAL:
            return "An internal client error has occured.";
        case CLIENT_ERR_ERROR_HTML:
            return "The client error HTML file (ERROR_HTML) can not be found or is not accessible.";
        case CLIENT_ERR_CONNECTION:
            return "Unable to allocate application server's client.";
        case CLIENT_ERR_EXCEPTION:
            return "Unhandled exception caught in the client.";
        case CLIENT_ERR_FREE_REQUEST:
            return "Unable to destroy request.";
        case CLIENT_ERR_FREE_CONNECTION:
            return "Unable to destroy connectiion";
        default:
            return "The specified error code is unknown or invalid.";
    }
}

}  // namespace

void QuilClientError::ClearError() {
    SetError(CLIENT_CLEARED, nullptr);
    status_.Clear();
    html_.Clear();
}

void QuilClientError::SetError(std::uint32_t code, const char* message) {
    code_ = code;
    message_ = message;
}

void QuilClientError::SetErrorMessage(const char* fmt, ...) {
    std::va_list args;
    va_start(args, fmt);
    message_.VArgFormat(fmt, &args);
    va_end(args);
}

const char* QuilClientError::GetStatus(std::uint32_t code) {
    setCode(code);
    status_.Format("%d Application Server Error", static_cast<int>(code_));
    return status_.GetTextEx();
}

const char* QuilClientError::GetErrorHtml(std::uint32_t code) {
    setCode(code);
    html_.Format(VE_ERR_HTML_TEMPLATE, static_cast<int>(code_), codeText(code_), message_.GetTextEx());
    return html_.GetTextEx();
}

// A message belongs to its code: it is shown with no other.
void QuilClientError::setCode(std::uint32_t code) {
    if (code != code_) SetError(code, nullptr);
}
