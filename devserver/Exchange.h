// Exchange: one request and all it takes to answer it.
#pragma once

#include <cstdint>
#include <string>

#include "Conversation.h"
#include "Options.h"
#include "Request.h"
#include "Response.h"

// The server as its clients see it: the address that the connection came in on.
struct Identity {
    std::string address;  // dotted
    std::uint16_t port = 0;
    std::string sid;  // may be empty

    std::string text() const {
        return address + ":" + std::to_string(port) + (sid.empty() ? "" : " (" + sid + ")");
    }
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
