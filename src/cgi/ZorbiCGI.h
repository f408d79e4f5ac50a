// The CGI gateway: one request of a web server (RFC 3875) to an application server and its response back.
#pragma once

#include <cstdint>
#include <cstdio>

#include "cgi/HttpStatus.h"
#include "client/Velarto.h"

// In "nph-" mode, that is when the name begins with "nph-", writes a failure's status line and the "Server:"
// line.
void write_nph(std::FILE* out, const char* name);

// A request filled from the CGI variables and, for CONTENT_LENGTH bytes, from standard input; the caller
// frees it. Null when it cannot be had, the body is short or unreadable, or CONTENT_LENGTH is negative or
// beyond what a body can be; refusal, unless null, is then the status that tells the browser why.
ve_hrequest_t* PrepareVelartoRequest(ve_hclient_t* connection, const char* commandLine,
                                     HttpStatus* refusal = nullptr);

// Copies the response header and body to standard output. False for an invalid header.
bool VeClientDispatchCB(ve_hclient_t* connection, TQUILReqType type, const char* data, std::uint32_t length,
                        void* user);
