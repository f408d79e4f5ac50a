#include "Absence.h"

#include <cstring>

#include "common/Text.h"

Absences::Absences(const ConnectionSettings& settings) {
    if (settings.retryAfter != 0) state_.open(settings.statePath.GetTextEx(), ServerState::kRead);
}

std::string Absences::of(const ServerEntry& entry) const {
    ServerState::Absence absence{};
    if (!state_.getAbsence(entry, absence)) return "";
    const char* reason =
        absence.reason == ServerState::kNoSuchHost ? "no such host" : std::strerror(absence.reason);
    return format("left out for %.1f s: %s", static_cast<double>(absence.milliseconds) / 1000, reason);
}
