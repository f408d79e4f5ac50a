#include "protocol/ConnectionSettings.h"

#include "config/ClientKeys.h"

ConnectionSettings::ConnectionSettings(Stanza& section)
    : answerTimeout(NumberValue(section, key::ANSWERTIMEOUT) * 1000),
      keepsReadWriteTimeout(IsTrueValue(section, key::KEEPIOTIMEOUT)),
      choosesAtRandom(IsWordValue(section, key::SERVERCHOICE, "random")),
      takesOwnCookiesOut(IsTrueValue(section, key::OWNCOOKIES)) {
    const std::uint32_t milliseconds = NumberValue(section, key::CONNECTTIMEOUT);
    if (milliseconds != 0) connectTimeout = milliseconds;
    CText log;
    section.getValue(key::CLIENTLOG.name, log);
    namesFailures = !log.IsEmpty() && !(log == "off");
}
