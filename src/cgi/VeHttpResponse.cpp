#include "cgi/VeHttpResponse.h"

#include <cstring>
#include <memory>
#include <new>

#include "Server/Common_Classes/UData.h"
#include "Server/Common_Classes/UText.h"
#include "platform/ValidityTag.h"

namespace {

// Spans in the parsed text.
struct THTTPHeaderField {
    std::uint32_t nameLength;
    std::uint32_t valueLength;
    const char* name;
    const char* value;
};

struct THTTPResponse {
    ValidityTag<84> marker{this};
    std::int32_t statusCode = 500;
    CText reasonPhrase;
    const char* firstHeader = nullptr;
    std::unique_ptr<THTTPHeaderField[]> fields;
    std::uint32_t fieldCount = 0;
    CData fieldName;
    CData fieldValue;
};

THTTPResponse* asResponse(void* pointer) {
    return IsValidResponsePtr(pointer) ? static_cast<THTTPResponse*>(pointer) : nullptr;
}

bool isDigit(char c) {
    return c >= '0' && c <= '9';
}

const char* skipDigits(const char* p) {
    while (isDigit(*p))
        ++p;
    return p;
}

std::uint32_t span(const char* from, const char* to) {
    return static_cast<std::uint32_t>(to - from);
}

// The first CR at or after p, when LF follows it; else null.
const char* findLineEnd(const char* p) {
    const char* cr = std::strchr(p, '\r');
    return cr != nullptr && cr[1] == '\n' ? cr : nullptr;
}

// "HTTP/" version SP 3DIGIT SP reason CR LF; the version's first character is taken unseen.
bool parseStatusLine(const char* p, THTTPResponse& response) {
    constexpr char kProtocol[] = "HTTP/";
    constexpr std::size_t kProtocolLength = sizeof kProtocol - 1;
    if (std::strncmp(p, kProtocol, kProtocolLength) != 0) return false;
    p += kProtocolLength;
    if (*p++ == 0) return false;
    p = skipDigits(p);
    if (*p++ != '.') return false;
    p = skipDigits(p);
    if (*p++ != ' ') return false;

    const char* code = p;
    p = skipDigits(p);
    if (p - code != 3 || *p != ' ') return false;
    response.statusCode = (code[0] - '0') * 100 + (code[1] - '0') * 10 + (code[2] - '0');

    const char* reason = ++p;
    const char* end = findLineEnd(reason);
    if (end == nullptr) return false;
    response.reasonPhrase.SetEqualTo(reason, span(reason, end), 0);
    response.firstHeader = end + 2;
    return response.reasonPhrase.Length() == span(reason, end);
}

// Counts the fields and, unless fields is null, records them there.
bool parseFields(const char* p, THTTPHeaderField* fields, std::uint32_t& count) {
    count = 0;
    while (*p != 0) {
        if (*p == '\r') return p[1] == '\n';
        const char* colon = std::strchr(p, ':');
        if (colon == nullptr) return false;
        const char* value = colon + 1;
        const char* end = findLineEnd(value);
        while (end != nullptr && (end[2] == ' ' || end[2] == '\t'))
            end = findLineEnd(end + 2);
        if (end == nullptr) return false;
        if (fields != nullptr) fields[count] = {span(p, colon), span(value, end), p, value};
        ++count;
        p = end + 2;
    }
    return true;
}

bool takeFields(THTTPResponse& response) {
    std::uint32_t& count = response.fieldCount;
    if (!parseFields(response.firstHeader, nullptr, count)) return false;
    response.fields.reset(new (std::nothrow) THTTPHeaderField[count]);
    return response.fields != nullptr && parseFields(response.firstHeader, response.fields.get(), count);
}

// Fills one of the two field buffers: the characters, a NUL after them, the size without it.
bool SetFieldBuffer(const char* source, std::uint32_t length, CData& buffer) {
    if (buffer.GetBufferSize() <= length && !buffer.SetBufferSize(length + 1)) return false;
    std::memcpy(buffer.GetBuffer(), source, length);
    buffer.GetBuffer()[length] = 0;
    return buffer.SetUsableDataSize(length) == length;
}

const char* bufferText(const CData* buffer, std::uint32_t* length) {
    if (buffer == nullptr) return nullptr;
    if (length != nullptr) *length = buffer->GetDataSize();
    return buffer->GetBuffer() == nullptr ? "" : reinterpret_cast<const char*>(buffer->GetBuffer());
}

}  // namespace

void* VeHttpParseResponse(const char* text, bool parseHeaderFields) {
    if (text == nullptr || *text == 0) return nullptr;
    auto* response = new (std::nothrow) THTTPResponse;
    if (response == nullptr) return nullptr;
    if (parseStatusLine(text, *response) && (!parseHeaderFields || takeFields(*response))) return response;
    delete response;
    return nullptr;
}

bool IsValidResponsePtr(const void* response) {
    return ValidityTag<84>::isOn(response);
}

const char* VeHttpFirstResponseHeader(void* pointer) {
    const THTTPResponse* response = asResponse(pointer);
    return response != nullptr ? response->firstHeader : nullptr;
}

std::int32_t VeHttpGetStatusCode(void* pointer) {
    const THTTPResponse* response = asResponse(pointer);
    return response != nullptr ? response->statusCode : 500;
}

const char* VeHttpGetReasonPhrase(void* pointer, std::uint32_t* length) {
    const THTTPResponse* response = asResponse(pointer);
    if (response == nullptr) return nullptr;
    if (length != nullptr) *length = response->reasonPhrase.Length();
    return response->reasonPhrase.GetText();
}

std::uint32_t VeHttpGetFieldCount(void* pointer) {
    const THTTPResponse* response = asResponse(pointer);
    return response != nullptr ? response->fieldCount : 0;
}

bool VeHttpGetFieldInfo(void* pointer, std::uint32_t index) {
    THTTPResponse* response = asResponse(pointer);
    if (response == nullptr) return false;
    response->fieldName.Clear();
    response->fieldValue.Clear();
    if (index >= response->fieldCount) return false;
    const THTTPHeaderField& field = response->fields[index];
    if (SetFieldBuffer(field.name, field.nameLength, response->fieldName) &&
        SetFieldBuffer(field.value, field.valueLength, response->fieldValue)) {
        return true;
    }
    response->fieldName.Clear();
    return false;
}

const char* VeHttpGetFieldName(void* pointer, std::uint32_t* length) {
    const THTTPResponse* response = asResponse(pointer);
    return bufferText(response != nullptr ? &response->fieldName : nullptr, length);
}

const char* VeHttpGetFieldValue(void* pointer, std::uint32_t* length) {
    const THTTPResponse* response = asResponse(pointer);
    return bufferText(response != nullptr ? &response->fieldValue : nullptr, length);
}

void VeHttpReleaseResponse(void* pointer) {
    delete asResponse(pointer);
}
