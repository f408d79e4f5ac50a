// ConfigFile: the in-memory image of one configuration file: reading, looking up, merging, writing it back.
#pragma once

#include <cstdint>
#include <ctime>

#include "Server/Common_Classes/MemoryWatch.h"
#include "Server/Common_Classes/UText.h"
#include "Server/General/ZorbiLists.h"
#include "config/ParseError.h"
#include "config/Stanza.h"
#include "platform/mutexobj.h"
#include "platform/thread_annotations.h"

class LockedFile;

// The rule by which the configuration directory was found.
enum class ConfigPathRule { kVariable, kProfile, kDefault };

// Holds the stanzas of a file in file order and owns them. One of them, the directory stanza, lists stanzas
// by name: its keys; counting and walking run over it. Names compare without regard to case, look-ups find
// the first.
//
// Locks: every operation holds the file object's recursive lock for its whole run and takes a stanza's lock
// only inside it. Forms whose name begins with p are for callers that hold the lock. Between processes,
// readers hold a shared and writers an exclusive fcntl() lock on the whole file; both wait for it.
//
// Errors: operations return false or null; input and output failures are also reported to the event log (type
// ERROR, category CONFIG).
class ConfigFile {
  public:
    static constexpr std::uint32_t kMaxFileSize = 131072;  // bytes

    ConfigFile(const char* path, const char* directoryName);  // null path: both names stay empty
    ConfigFile(const ConfigFile&) = delete;
    ConfigFile& operator=(const ConfigFile&) = delete;
    virtual ~ConfigFile();

    // Replaces the stanzas by those of the file (1 to kMaxFileSize bytes). A failure before the content is read
    // leaves the stanzas as they were; a syntax error, or a lack of memory, leaves those completed before it.
    // Pointers to stanzas taken before are invalid.
    bool parseConfigFile();
    // As parseConfigFile(), but keeps only what is named so: the rest of the file is checked, not built. For
    // a reader who needs one stanza of a large file. What lists or writes stanzas sees that one alone.
    bool parseStanza(const CText& name);
    ParseError lastParseError() const;        // why the last parse failed
    std::time_t getModificationDate() const;  // of the file on disk, seconds; 0 on failure
    std::time_t GetParseTimestamp();          // the modification date at the last successful parse; 0 before

    // ---- look-ups; stanzas stay owned by the file ----
    Stanza* getStanza(const CText& name);
    bool findStanza(const CText& name);
    bool getValue(const CText& stanza, const CText& key, CText& out);

    // ---- the walk over the directory ----
    std::uint32_t getNumberOfStanzas();
    bool getStanzaInformationIndex(std::uint32_t i, CText& out);  // the i-th name; else out is untouched
    Stanza* getStanzaAtIndex(std::uint32_t i);
    bool getFirstStanza(CText& out);
    bool getNextStanza(CText& out);

    // ---- changes in memory ----
    bool changeValue(const CText& stanza, const CText& key, const CText& value);
    bool addStanza(Stanza* stanza, bool addToDirectory);  // takes ownership; true unless it is null
    bool removeStanza(const CText& name);                 // returns whether the directory held it too
    bool removeAllStanzas();                              // always true
    bool createDirectoryStanza();                         // when missing; false when there is no memory

    // ---- merging and writing ----
    // Takes over the stanzas that other lists in its directory: present ones are merged, new ones copied. The
    // caller holds other's lock. False, with nothing changed, when either directory stanza is missing; also
    // when memory runs out, and then something may be missing here.
    bool mergeConfigFiles(ConfigFile& other) VELARTO_REQUIRES(other.lock_);

    // The next four hold one exclusive lock on the file from before it is read until it is written, and the
    // file keeps its old content, whole, unless the new content could be written whole (see LockedFile).
    // A file that is missing, cannot be opened for writing or does not parse fails them, with nothing
    // changed; so does an image that would not parse back to the same sections, such as
    // one with a name that the syntax cannot carry, and one for which memory ran out.

    // Writes this image, merged into what the file holds when merge is set; else the file may be missing, and
    // its content does not matter.
    bool writeFile(bool merge);
    // Writes as writeFile(true), but without that stanza. It then leaves this object too, written or not.
    bool removeStanzaWithWrite(const char* name);
    // Writes this object's stanza into the file; the other stanzas stay as they are on disk.
    bool changeStanzaWithWrite(const char* name);
    // Gives the file's stanza what it lacks: complete is shown the stanza as it is on disk now, or a new and empty
    // one where there is none, adds what is missing and tells whether it did. Only then the file is written, with
    // a new stanza listed in the directory. Afterwards this object holds what complete saw and changed.
    bool completeStanzaWithWrite(const CText& name, bool (*complete)(Stanza& stanza, bool isNew));

    bool dump();  // every stanza to standard error; always true

    // ---- where the file lies ----
    // The configuration directory, ending in "/": from VELARTO_PATH, else the velarto user's shell profile,
    // else the default; rule, unless null, tells which. False when it does not fit into size bytes or into
    // memory.
    static bool getPlatformConfigPath(char* buffer, int size, ConfigPathRule* rule = nullptr);
    static bool buildConfigPath(const char* fileName, CText& path, ConfigPathRule* rule = nullptr);

  private:
    Stanza* pGetStanza(const CText& name) VELARTO_REQUIRES(lock_);
    Stanza* pGetDirectory() VELARTO_REQUIRES(lock_) { return pGetStanza(directoryName_); }
    Stanza* pGetStanzaAtIndex(std::uint32_t i) VELARTO_REQUIRES(lock_);
    bool pAddStanza(Stanza* stanza, bool addToDirectory) VELARTO_REQUIRES(lock_);
    bool pRemoveStanza(const CText& name) VELARTO_REQUIRES(lock_);

    bool parse(const CText* only);
    bool pIsValidSize(long long size) VELARTO_REQUIRES(lock_);
    bool pLoad(const LockedFile& file, const CText* only) VELARTO_REQUIRES(lock_);
    bool pReadsBack(const char* bytes, std::uint32_t size) VELARTO_REQUIRES(lock_);
    bool pStore(LockedFile& file, const MemoryWatch& memory) VELARTO_REQUIRES(lock_);

    std::uint32_t cursor_ VELARTO_GUARDED_BY(lock_) = 0;
    CText path_ VELARTO_GUARDED_BY(lock_);
    CText directoryName_ VELARTO_GUARDED_BY(lock_);
    std::time_t parseTimestamp_ VELARTO_GUARDED_BY(lock_) = 0;
    Lists<Stanza*> stanzas_ VELARTO_GUARDED_BY(lock_);
    ParseError parseError_ VELARTO_GUARDED_BY(lock_);
    mutable Mutex lock_{Mutex::kPrivate};
};
