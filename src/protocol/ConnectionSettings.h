// ConnectionSettings: how a client's section wants its servers sought and waited for.
#pragma once

#include <cstdint>

#include "Server/Common_Classes/UText.h"
#include "config/Stanza.h"

// Without a key each is what it always was.
struct ConnectionSettings {
    std::uint32_t connectTimeout = 1000;  // milliseconds for each attempt; CONNECTTIMEOUT
    std::uint32_t answerTimeout =
        0;  // milliseconds up to the answer's first byte; 0: as for any; ANSWERTIMEOUT
    bool keepsReadWriteTimeout = false;  // after a failed attempt; KEEPIOTIMEOUT
    bool choosesAtRandom = false;        // instead of by the second; SERVERCHOICE=random
    bool triesAllAddresses = false;      // of a host's name, of both families; ALLADDRESSES
    bool takesOwnCookiesOut = false;     // those of the gateway's names that browsers send; OWNCOOKIES
    std::uint32_t retryAfter = 0;        // milliseconds that a server is left out; 0: never; SERVERRETRY
    CText statePath;                     // STATEPATH; empty without retryAfter
    CText fileRoots;                     // folders below which files may be asked for; empty: any; FILEROOT
    std::uint32_t fileLimit = 0;         // bytes of the largest; 0: any; FILELIMIT
    bool namesFailures = false;          // for CLIENTLOG

    ConnectionSettings() = default;
    ConnectionSettings(Stanza& section, const CText& clientName);
};
