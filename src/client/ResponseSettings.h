// ResponseSettings: how a client's section wants responses and failures shown.
#pragma once

#include "Server/Common_Classes/UText.h"

// Without a key everything is off: the response as it always was.
struct ResponseSettings {
    bool cutsBrokenAnswers = false;  // BROKENANSWER=cut
    bool sendsHttpStatus = false;    // HTTPSTATUS
    bool needsLength = false;        // NEEDLENGTH
    CText errorPage;                 // ERRORPAGE, a path

    // Those of the loaded section; the defaults when none is loaded.
    static ResponseSettings load();
};
