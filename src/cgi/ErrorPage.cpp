#include "cgi/ErrorPage.h"

#include "Server/Common_Classes/MemoryWatch.h"
#include "client/Velarto.h"
#include "platform/FileContent.h"

ErrorPage::ErrorPage(std::uint32_t code, HttpStatus status, const CText& file, const char* requestId)
    : isBuiltIn_(file.IsEmpty() || !fillIn(file, code, status, requestId)) {
    if (isBuiltIn_) text_ = VeClientGetErrorHtml(nullptr, code);
}

bool ErrorPage::fillIn(const CText& file, std::uint32_t code, HttpStatus status, const char* requestId) {
    constexpr std::uint32_t kLongest = 1048576;  // bytes of the file
    CData content;
    std::uint32_t size = 0;
    if (!ReadFileContent(file.GetTextEx(), content, size) || size > kLongest) return false;
    const MemoryWatch memory;
    CText number;
    number.Format("%u", code);
    CText reason;
    reason.Format("%d %s", status.code, status.reason);
    text_.SetEqualTo(content.GetBuffer(), content.GetDataSize(), 0);
    text_.ReplaceAll("{{CODE}}", number);
    text_.ReplaceAll("{{STATUS}}", reason);
    text_.ReplaceAll("{{REQUEST}}", requestId);
    return !memory.ranOut();
}
