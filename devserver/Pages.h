// The pages of the server.
#pragma once

#include <vector>

#include "Exchange.h"

struct Page {
    const char* path;       // PATH_INFO
    const char* arguments;  // those of the query string, for people
    const char* purpose;
    const char* sample;  // arguments for a link that shows the page
    void (*show)(Exchange&);
};

const std::vector<Page>& pages();

// Answers the request, whatever it asks for. Throws what the conversation throws.
void answer(Exchange& exchange);
