#include "client/ResponseSettings.h"

#include "client/ClientEnvironment.h"
#include "config/ClientKeys.h"

namespace {

void readLog(Stanza& section, ResponseSettings& settings) {
    const auto is = [&section](const char* word) { return IsWordValue(section, key::CLIENTLOG, word); };
    settings.logsAll = is("stderr,all") || is("syslog,all");
    if (is("stderr") || is("stderr,all")) settings.log = LogTarget::kStandardError;
    if (is("syslog") || is("syslog,all")) settings.log = LogTarget::kSystemLogger;
    if (settings.log != LogTarget::kNone) ListIgnoredKeys(section, settings.ignoredKeys);
}

}  // namespace

ResponseSettings ResponseSettings::load() {
    ResponseSettings settings;
    const ReadLock lock(RWLock);
    if (!lock || configStanza == nullptr) return settings;
    settings.cutsBrokenAnswers = IsWordValue(*configStanza, key::BROKENANSWER, "cut");
    settings.sendsHttpStatus = IsTrueValue(*configStanza, key::HTTPSTATUS);
    settings.needsLength = IsTrueValue(*configStanza, key::NEEDLENGTH);
    settings.requestTimeout = NumberValue(*configStanza, key::REQUESTTIMEOUT);
    configStanza->getValue(key::ERRORPAGE.name, settings.errorPage);
    configStanza->getValue(key::FILEROOT.name, settings.fileRoots);
    readLog(*configStanza, settings);
    return settings;
}
