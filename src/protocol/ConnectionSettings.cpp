#include "protocol/ConnectionSettings.h"

#include "config/ClientKeys.h"

ConnectionSettings::ConnectionSettings(Stanza& section, const CText& clientName)
    : answerTimeout(NumberValue(section, key::ANSWERTIMEOUT) * 1000),
      keepsReadWriteTimeout(IsTrueValue(section, key::KEEPIOTIMEOUT)),
      choosesAtRandom(IsWordValue(section, key::SERVERCHOICE, "random")),
      triesAllAddresses(IsTrueValue(section, key::ALLADDRESSES)),
      takesOwnCookiesOut(IsTrueValue(section, key::OWNCOOKIES)) {
    const std::uint32_t milliseconds = NumberValue(section, key::CONNECTTIMEOUT);
    if (milliseconds != 0) connectTimeout = milliseconds;
    retryAfter = NumberValue(section, key::SERVERRETRY) * 1000;
    if (retryAfter != 0) {
        section.getValue(key::STATEPATH.name, statePath);
        if (statePath.IsEmpty()) statePath.Format("/run/velarto/%s.state", clientName.GetTextEx());
    }
    section.getValue(key::FILEROOT.name, fileRoots);
    fileLimit = NumberValue(section, key::FILELIMIT);
    CText log;
    section.getValue(key::CLIENTLOG.name, log);
    namesFailures = !log.IsEmpty() && !(log == "off");
}
