/* Messages of the protocol as bytes, for the floors. */
#ifndef VELARTO_BENCH_FRAMING_H
#define VELARTO_BENCH_FRAMING_H

#include <arpa/inet.h>
#include <stdint.h>
#include <string.h>

#include "protocol/QuilTypes.h"

enum {
    HEAD_SIZE = 12,             /* mark, version, type */
    FRAME_SIZE = HEAD_SIZE + 4, /* and the length of the bytes that follow */
    FOOTER_SIZE = 4,
};

/* The parameters in id order. */
static const char* const parameter_names[QUIL_PARAM_NONE] = {
    "QUERY_STRING", "PATH_INFO",      "PATH_TRANSLATED", "REQUEST_METHOD", "REMOTE_HOST",
    "REMOTE_IDENT", "REMOTE_USER",    "REMOTE_PASSWD",   "REMOTE_NAME",    "REMOTE_PORT",
    "SERVER_NAME",  "SERVER_PORT",    "SCRIPT_NAME",     "HTTP_REFERER",   "HTTP_USER_AGENT",
    "CONTENT_TYPE", "CONTENT_LENGTH", "PLUGIN",          "REMOTE_ADDR",    "HTTP_COOKIE",
    "COMMANDLINE",  "HTTP_FROM",      "HTTP_ACCEPT",     "SOAPACTION",     "FULLHEADER"};

/* ---- Marshalling: each function returns the place behind what it put ----------------------------------- */

static inline char* put_bytes(char* to, const char* bytes, size_t size) {
    memcpy(to, bytes, size);
    return to + size;
}

static inline char* put_number(char* to, uint32_t number) {
    const uint32_t wire = htonl(number);
    return put_bytes(to, (const char*)&wire, sizeof wire);
}

static inline char* put_text(char* to, const char* text) {
    const size_t length = strlen(text);
    return put_bytes(put_number(to, (uint32_t)length), text, length);
}

static inline char* put_head(char* to, TQUILReqType type) {
    return put_number(put_number(put_bytes(to, "QUIL", 4), QUIL_PROTOCOL_VERSION), type);
}

static inline char* put_footer(char* to) {
    return put_bytes(to, "END!", FOOTER_SIZE);
}

static inline uint32_t number_at(const char* from) {
    uint32_t wire;
    memcpy(&wire, from, sizeof wire);
    return ntohl(wire);
}

#endif
