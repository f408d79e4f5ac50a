// Exchange: one request and all it takes to answer it.
#pragma once

#include <cstdint>
#include <string>

#include "Conversation.h"
#include "Options.h"
#include "Request.h"
#include "Response.h"

// The server as its clients see it.
struct Identity {
    std::string endpoint;  // that the connection came in on: ADDRESS:PORT or unix:PATH
    std::string sid;       // may be empty

    std::string text() const { return endpoint + (sid.empty() ? "" : " (" + sid + ")"); }
};

struct Exchange {
    Exchange(const Options& theOptions, const Identity& theServer, const Request& theRequest,
             Conversation& theConversation)
        : options(theOptions),
          server(theServer),
          request(theRequest),
          query(theRequest[QUIL_PARAM_QUERY_STRING]),
          conversation(theConversation),
          response(theConversation, theRequest.isHead(), theOptions.pieceSize, theServer.text()) {}

    // The address of one of the server's pages, as the browser must ask for it.
    std::string link(const std::string& path) const { return request[QUIL_PARAM_SCRIPT_NAME] + path; }

    const Options& options;
    const Identity& server;
    const Request& request;
    const Arguments query;
    Conversation& conversation;
    Response response;
};
