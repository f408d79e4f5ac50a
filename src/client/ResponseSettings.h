// ResponseSettings: how a client's section wants responses and failures shown.
#pragma once

#include <cstdint>

#include "Server/Common_Classes/UText.h"
#include "config/Stanza.h"

enum class LogTarget { kNone, kStandardError, kSystemLogger };

// Without a key everything is off: the response as it always was.
struct ResponseSettings {
    bool cutsBrokenAnswers = false;    // BROKENANSWER=cut
    bool sendsHttpStatus = false;      // HTTPSTATUS
    std::uint32_t requestTimeout = 0;  // seconds, in place of the alarm; 0: the alarm; REQUESTTIMEOUT
    bool needsLength = false;          // NEEDLENGTH
    CText errorPage;                   // ERRORPAGE, a path
    CText fileRoots;                   // FILEROOT, folders
    LogTarget log = LogTarget::kNone;  // CLIENTLOG
    bool logsAll = false;              // every request, not failures alone
    CText ignoredKeys;  // with a log: those whose values are none that they take, joined with ","

    ResponseSettings() = default;
    explicit ResponseSettings(Stanza& section);

    // Those of the loaded section; the defaults when none is loaded.
    static ResponseSettings load();
};
