// The request record of a CGI request.
#pragma once

#include "cgi/CgiVariables.h"
#include "cgi/HttpStatus.h"
#include "cgi/WebServerStreams.h"
#include "client/Velarto.h"

// What a request record is made of.
struct RequestParts {
    const CgiVariables& variables;
    BodySource& body;
    const char* commandLine;  // the program's path
    const char* fullHeader;   // the HTTP header fields as they came; empty where nobody wants them
};

// A request record of the variables and the body, for CONTENT_LENGTH bytes; without that variable the body goes to its
// end where its source allows it, and the record tells the length that was found. The caller frees the record. Null,
// with the status that tells the browser why, when there is no memory, the body is short or unreadable, or
// CONTENT_LENGTH is negative or beyond what the source allows.
ve_hrequest_t* MakeRequestRecord(ve_hclient_t* connection, const RequestParts& parts, HttpStatus& refusal);
