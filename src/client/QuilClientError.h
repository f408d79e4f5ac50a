// QuilClientError: the record of the last client error, and the built-in error page.
#pragma once

#include <cstdint>

#include "Server/Common_Classes/PerThread.h"
#include "Server/Common_Classes/UText.h"

// The codes that the client records or the gateway shows. Only the low eight bits of one reach a parent
// process.
enum QuilClientErrorCode : std::uint32_t {
    CLIENT_READY = 200,
    CLIENT_CLEARED = 600,
    CLIENT_ERR_ENVIRONMENT = 601,
    CLIENT_ERR_CONNECT = 602,
    CLIENT_ERR_PREPARE = 603,
    CLIENT_ERR_SEND = 604,
    CLIENT_ERR_DISPATCH = 605,
    CLIENT_ERR_HTTP_HEADER = 606,
    CLIENT_ERR_RESERVED = 607,
    CLIENT_ERR_INTERNAL = 608,
    CLIENT_ERR_ERROR_HTML = 609,
    CLIENT_ERR_CONNECTION = 610,
    CLIENT_ERR_EXCEPTION = 611,
    CLIENT_ERR_FREE_REQUEST = 612,
    CLIENT_ERR_FREE_CONNECTION = 613
};

// The page: a printf format that takes the code, its fixed text and the detail message. A host may point it
// elsewhere.
extern const char* VE_ERR_HTML_TEMPLATE;

// A code, a detail message and the texts made of them. Texts handed out stay valid until the same operation
// is called again. Threads: one at a time.
class QuilClientError {
  public:
    constexpr QuilClientError() noexcept = default;

    void ClearError();
    void SetError(std::uint32_t code, const char* message);  // null empties the message
    // printf-style; a null or empty format empties the message. The code stays.
    void SetErrorMessage(const char* fmt, ...) __attribute__((format(printf, 2, 3)));

    // Both record another code than the recorded one first, and drop its message with it.
    const char* GetStatus(std::uint32_t code);     // a one-line status text
    const char* GetErrorHtml(std::uint32_t code);  // the built-in page

    std::uint32_t code() const { return code_; }
    const char* message() const { return message_.GetTextEx(); }

  private:
    void setCode(std::uint32_t code);

    std::uint32_t code_ = CLIENT_CLEARED;
    CText message_;
    CText status_;
    CText html_;
};

// The record of the calling thread: what one thread's requests meet is no concern of another's.
extern VELARTO_PER_THREAD QuilClientError clientError;
