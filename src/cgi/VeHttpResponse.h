/* Checks and takes apart an HTTP response header as an application server produces it.

   Conventions:
   1. A response is an opaque pointer from VeHttpParseResponse; VeHttpReleaseResponse frees it. A pointer that
   is null or no live response is refused: the operation yields null, 0, false, or 500 for the status code.
   2. The header text is not copied. The first-header position and the fields point into it: it stays
   unchanged and alive as long as the response is used.
   3. Texts handed out belong to the response and are NUL-terminated; lengths are in characters, without the
   NUL. A length pointer may be null; it is not written for a refused pointer.
   4. A response is used by one thread at a time.

   Usable from C as from C++. */
#ifndef VELARTO_VE_HTTP_RESPONSE_H
#define VELARTO_VE_HTTP_RESPONSE_H

#include <stdbool.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Accepts a status line, "HTTP/" version " " three digits " " reason CR LF, and, when parseFields is set,
   header fields up to an empty line or the end of the text (RFC 7230, with folded lines). Null when the text
   is null, empty or anything else, or when there is no memory. */
void* VeHttpParseResponse(const char* text, bool parseFields);

bool IsValidResponsePtr(const void* response);

/* The position right after the status line's CR LF, in the caller's text. */
const char* VeHttpFirstResponseHeader(void* response);

int32_t VeHttpGetStatusCode(void* response);

/* An empty reason phrase is a null text of length 0. */
const char* VeHttpGetReasonPhrase(void* response, uint32_t* length);

/* 0 when the fields were not parsed. */
uint32_t VeHttpGetFieldCount(void* response);

/* Selects a field (from 0) for the two operations below; false, and nothing selected, when there is none, or
   no memory for it. */
bool VeHttpGetFieldInfo(void* response, uint32_t index);

/* The selected field; empty when none is. The value is everything after the colon, leading blanks and folded
   lines included. Valid until the next selection. */
const char* VeHttpGetFieldName(void* response, uint32_t* length);
const char* VeHttpGetFieldValue(void* response, uint32_t* length);

void VeHttpReleaseResponse(void* response);

#ifdef __cplusplus
}
#endif

#endif
