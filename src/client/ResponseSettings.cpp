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

ResponseSettings::ResponseSettings(Stanza& section)
    : cutsBrokenAnswers(IsWordValue(section, key::BROKENANSWER, "cut")),
      sendsHttpStatus(IsTrueValue(section, key::HTTPSTATUS)),
      requestTimeout(NumberValue(section, key::REQUESTTIMEOUT)),
      needsLength(IsTrueValue(section, key::NEEDLENGTH)) {
    section.getValue(key::ERRORPAGE.name, errorPage);
    section.getValue(key::FILEROOT.name, fileRoots);
    readLog(section, *this);
}

ResponseSettings ResponseSettings::load() {
    const ReadLock lock(RWLock);
    return lock && configStanza != nullptr ? ResponseSettings(*configStanza) : ResponseSettings();
}
