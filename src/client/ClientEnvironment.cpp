#include "client/ClientEnvironment.h"

#include <strings.h>

#include <cstring>
#include <new>

#include "client/ConfigClnt.h"
#include "client/QuilClientError.h"
#include "client/Velarto.h"
#include "platform/UThread.h"

CText ClientName;
CText IniFileName;
bool OneShotClient = true;
TReadWriteLock RWLock;
std::unique_ptr<ConfigFile> configFile;
Stanza* configStanza = nullptr;
std::uint32_t ClientRrWrTimeout = 0;

namespace {

constexpr std::uint32_t kReloadInterval = 5000;     // milliseconds
constexpr std::uint32_t kThreadEndTimeout = 10000;  // milliseconds

// Guarded by RWLock as well. They outlive the loaded configuration: without the lock, which then does not
// exist, nobody changes them.
CText DocumentPath VELARTO_GUARDED_BY(RWLock);
CText RegisteredExtensions VELARTO_GUARDED_BY(RWLock);

TPeriodicThread ClientThread;

constexpr const char* VelartoDefaultExtensions = key::REGISTER_EXTNS.byDefault;

// Whether the extension is one of the pieces of a list separated by ",", ";" or ":".
bool isInExtensionList(const char* extension, const char* list) {
    constexpr char kSeparators[] = ",;:";
    const std::size_t length = std::strlen(extension);
    for (const char* piece = list; *piece != 0;) {
        const std::size_t pieceLength = std::strcspn(piece, kSeparators);
        if (pieceLength != 0 && pieceLength == length && strncasecmp(piece, extension, length) == 0)
            return true;
        piece += pieceLength;
        piece += std::strspn(piece, kSeparators);
    }
    return false;
}

bool clientSetting(const ClientKey& key) {
    ReadLock lock(RWLock);
    return lock && configStanza != nullptr && IsTrueValue(*configStanza, key);
}

bool isConfigCurrent() {
    ReadLock lock(RWLock);
    return lock && configFile != nullptr &&
           configFile->getModificationDate() <= configFile->GetParseTimestamp();
}

// What VeClientInitEnvironment does once the lock exists.
bool setUpEnvironment(bool oneShot, const char* iniFileName, const char* clientName) {
    if (clientName == nullptr || *clientName == 0) {
        clientError.SetErrorMessage("No client name defined");
        return false;
    }
    ClientName = clientName;
    IniFileName = iniFileName != nullptr && *iniFileName != 0 ? iniFileName : kDefaultIniFile;
    OneShotClient = oneShot;
    if (!ReadClientConfig(true)) return false;
    if (oneShot) return true;
    ClientThread.DestroyThread();  // one that outlived an earlier clean-up must not hand its stop request on
    ClientThread.SetCallback(kReloadInterval, ClientThreadProc, nullptr);
    return ClientThread.StartNewThread(nullptr, nullptr) == 0;
}

}  // namespace

bool VeClientInitEnvironment(bool oneShot, const char* iniFileName, const char* clientName) {
    clientError.SetError(CLIENT_ERR_ENVIRONMENT, nullptr);
    if (!RWLock.CreateRWLock()) return false;
    if (!setUpEnvironment(oneShot, iniFileName, clientName)) {
        VeClientCleanUp();
        return false;
    }
    clientError.SetError(CLIENT_READY, nullptr);
    return true;
}

bool VeClientCleanUp() {
    ClientThread.RequestStop();
    // A thread that still runs uses the configuration: it keeps it, and the lock.
    if (ClientThread.WaitForThread(kThreadEndTimeout) != TEvent::kSignalled) return false;
    ClientThread.DestroyThread();
    {
        WriteLock lock(RWLock);
        if (!lock) return false;
        ResetClientEnvironment();
    }
    RWLock.DestroyRWLock();
    return true;
}

bool ResetClientEnvironment() {
    configStanza = nullptr;
    configFile.reset();
    ClientName.Clear();
    IniFileName.Clear();
    return true;
}

bool ReadClientConfig(bool report) {
    if (ClientName.IsEmpty() || IniFileName.IsEmpty()) return false;
    CText path;
    if (!ConfigFile::buildConfigPath(IniFileName.GetTextEx(), path)) {
        if (report) {
            clientError.SetErrorMessage(
                "Unable to get the file path for the config file: %s. Check that the velarto configure path "
                "has been set properly.",
                IniFileName.GetTextEx());
        }
        return false;
    }

    WriteLock lock(RWLock);
    if (!lock) return false;
    configStanza = nullptr;
    configFile.reset(new (std::nothrow) ConfigFile(path.GetTextEx(), kDirectoryStanza));
    if (ProcessClientConfig(configFile.get(), ClientName, configStanza) != CLIENT_CONFIG_OK) {
        if (report) {
            clientError.SetErrorMessage(
                "An error occurred while parsing the config file %s for client %s. Check the file format is "
                "correct and the owner of the http process has file permissions to read the file.",
                path.GetTextEx(), ClientName.GetTextEx());
        }
        ResetClientEnvironment();
        return false;
    }

    CText value;
    if (configStanza->findValue(key::CLIENTIOTIMEOUT.name))
        ClientRrWrTimeout = ReadWriteTimeoutOf(*configStanza);
    if (configStanza->getValue(key::DOCUMENTPATH.name, value)) DocumentPath = value;
    if (configStanza->getValue(key::REGISTER_EXTNS.name, value)) RegisteredExtensions = value;
    return true;
}

bool ClientThreadProc(void*) {
    return !isConfigCurrent() && !ReadClientConfig(false);
}

bool IsVelartoExtns(const char* path) {
    const char* dot = path != nullptr ? std::strrchr(path, '.') : nullptr;
    if (dot == nullptr) return false;
    const char* extension = dot + 1;
    const ReadLock lock(RWLock);
    return isInExtensionList(extension, RegisteredExtensions.IsEmpty() ? VelartoDefaultExtensions
                                                                       : RegisteredExtensions.GetTextEx());
}

bool IsFullHeaderSupport() {
    return clientSetting(key::SENDFULLHEADER);
}

bool ParseFilePaths() {
    return clientSetting(key::PARSEFILEPATHS);
}

const char* GetDocumentPath() {
    static VELARTO_PER_THREAD CText copy;
    const ReadLock lock(RWLock);
    copy = DocumentPath;
    return DocumentPath.GetText() != nullptr ? copy.GetTextEx() : nullptr;
}
