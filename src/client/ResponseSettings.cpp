#include "client/ResponseSettings.h"

#include "client/ClientEnvironment.h"
#include "config/ClientKeys.h"

ResponseSettings ResponseSettings::load() {
    ResponseSettings settings;
    const ReadLock lock(RWLock);
    if (!lock || configStanza == nullptr) return settings;
    settings.cutsBrokenAnswers = IsWordValue(*configStanza, key::BROKENANSWER, "cut");
    settings.sendsHttpStatus = IsTrueValue(*configStanza, key::HTTPSTATUS);
    settings.needsLength = IsTrueValue(*configStanza, key::NEEDLENGTH);
    configStanza->getValue(key::ERRORPAGE.name, settings.errorPage);
    return settings;
}
