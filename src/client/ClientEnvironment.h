// The process-wide state that the handle interface works in: the client's name, its loaded configuration and
// the settings taken from it.
#pragma once

#include <cstdint>
#include <memory>

#include "Server/Common_Classes/UText.h"
#include "config/ConfigFile.h"
#include "platform/rwlockobj.h"

extern CText ClientName;  // also the name of the client's section
extern CText IniFileName;
extern bool OneShotClient;  // no reload thread

// Guards the three below. Writers: loading, reloading, clean-up.
extern TReadWriteLock RWLock;
extern std::unique_ptr<ConfigFile> configFile;
extern Stanza* configStanza;             // inside configFile; null whenever that is
extern std::uint32_t ClientRrWrTimeout;  // of new connections, milliseconds; 0: the socket's default

// (Re)loads the configuration; report: failures are recorded as client error messages. A failure after the
// file was named leaves the environment empty.
bool ReadClientConfig(bool report);

// Drops the loaded configuration and both names; always true. The caller holds RWLock for writing.
bool ResetClientEnvironment();

// The reload thread's procedure: true ends the thread.
bool ClientThreadProc(void*);
