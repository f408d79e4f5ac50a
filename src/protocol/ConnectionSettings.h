// ConnectionSettings: how a client's section wants its servers sought and waited for.
#pragma once

#include <cstdint>

#include "config/Stanza.h"

// Without a key each is what it always was.
struct ConnectionSettings {
    std::uint32_t connectTimeout = 1000;  // milliseconds for each attempt; CONNECTTIMEOUT
    std::uint32_t answerTimeout =
        0;  // milliseconds up to the answer's first byte; 0: as for any; ANSWERTIMEOUT
    bool keepsReadWriteTimeout = false;  // after a failed attempt; KEEPIOTIMEOUT
    bool choosesAtRandom = false;        // instead of by the second; SERVERCHOICE=random
    bool takesOwnCookiesOut = false;     // those of the gateway's names that browsers send; OWNCOOKIES
    bool namesFailures = false;          // for CLIENTLOG

    ConnectionSettings() = default;
    explicit ConnectionSettings(Stanza& section);
};
