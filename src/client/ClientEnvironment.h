// The process-wide state that the handle interface works in: the client's name, its loaded configuration and
// the settings taken from it.
#pragma once

#include <cstdint>
#include <memory>

#include "Server/Common_Classes/UText.h"
#include "config/ConfigFile.h"
#include "platform/rwlockobj.h"
#include "platform/thread_annotations.h"

extern CText ClientName;  // also the name of the client's section
extern CText IniFileName;
extern bool OneShotClient;  // no reload thread

// Guards the three below. Writers: loading, reloading, clean-up.
extern TReadWriteLock RWLock;
extern std::unique_ptr<ConfigFile> configFile VELARTO_GUARDED_BY(RWLock) VELARTO_PT_GUARDED_BY(RWLock);
// Inside configFile; null whenever that is.
extern Stanza* configStanza VELARTO_GUARDED_BY(RWLock) VELARTO_PT_GUARDED_BY(RWLock);
// Of new connections, milliseconds; 0: the socket's default.
extern std::uint32_t ClientRrWrTimeout VELARTO_GUARDED_BY(RWLock);

// (Re)loads the configuration; report: failures are recorded as client error messages. A failure after the
// file was named leaves the environment empty.
bool ReadClientConfig(bool report) VELARTO_EXCLUDES(RWLock);

// Drops the loaded configuration and both names; always true.
bool ResetClientEnvironment() VELARTO_REQUIRES(RWLock);

// The reload thread's procedure: true ends the thread.
bool ClientThreadProc(void*) VELARTO_EXCLUDES(RWLock);
