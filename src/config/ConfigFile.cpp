// ConfigFile: the image of a configuration file; look-ups, changes, merging, and how it meets the disk.
#include "config/ConfigFile.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <new>

#include "config/ConfigParser.h"
#include "config/LockedFile.h"
#include "eventlog/eventlog.h"
#include "platform/ErrnoKeeper.h"

namespace {

// Always false; errno stays.
bool report(FileFault fault, const CText& path) {
    const ErrnoKeeper keeper;
    ReportSystemEvent(SYS_EVENT_ERROR, SYS_EVENT_CONFIG, "[%s] %s %s", std::strerror(keeper.value()),
                      fileFaultText(fault), path.GetTextEx());
    return false;
}

bool doneOrReported(FileFault fault, const CText& path) {
    return fault == FileFault::kNone || report(fault, path);
}

}  // namespace

ConfigFile::ConfigFile(const char* path, const char* directoryName) {
    if (path == nullptr) return;
    path_ = path;
    directoryName_ = directoryName;
}

ConfigFile::~ConfigFile() {
    removeAllStanzas();
    lock_.DestroyMutex();
}

// ---- reading ----

bool ConfigFile::parseConfigFile() {
    return parse(nullptr);
}

bool ConfigFile::parseStanza(const CText& name) {
    return parse(&name);
}

bool ConfigFile::parse(const CText* only) {
    MutexLock lock(lock_);
    LockedFile file(path_);
    const FileFault fault = file.open(LockedFile::kRead);
    if (doneOrReported(fault, path_)) return pLoad(file, only);
    const bool isOther = fault == FileFault::kNotRegular;
    parseError_ = {isOther ? fileFaultText(fault) : "the file cannot be opened and locked", 0, 0, errno};
    return false;
}

bool ConfigFile::pIsValidSize(long long size) {
    if (size > 0 && size <= kMaxFileSize) return true;
    ReportSystemEvent(SYS_EVENT_ERROR, SYS_EVENT_CONFIG, "Invalid size (%lld) of the file %s", size,
                      path_.GetTextEx());
    parseError_ = {"the file is empty or too large", 0, 0, 0};
    return false;
}

// only: the name of the stanzas to keep; null for all.
bool ConfigFile::pLoad(const LockedFile& file, const CText* only) {
    if (!pIsValidSize(file.status().st_size)) return false;

    CData content;
    if (!doneOrReported(file.read(content, kMaxFileSize + 1), path_)) {
        parseError_ = {"the file cannot be read", 0, 0, errno};
        return false;
    }
    // Programs that do not heed the lock may have changed the size meanwhile.
    if (!pIsValidSize(content.GetDataSize())) return false;
    if (content.GetDataSize() != file.status().st_size) {
        parseError_ = {"the file changed while it was read", 0, 0, 0};
        return false;
    }

    removeAllStanzas();
    ConfigParser parser(reinterpret_cast<const char*>(content.GetBuffer()), content.GetDataSize());
    const auto next = [&] { return only != nullptr ? parser.findStanza(*only) : parser.nextStanza(); };
    while (std::unique_ptr<Stanza> stanza = next())
        pAddStanza(stanza.release(), false);
    parseError_ = parser.error();
    if (*parseError_.reason != '\0') return false;
    // As it was before the content was read, so that a change in between counts as a later one.
    parseTimestamp_ = file.status().st_mtime;
    return true;
}

ParseError ConfigFile::lastParseError() const {
    MutexLock lock(lock_);
    return parseError_;
}

std::time_t ConfigFile::getModificationDate() const {
    MutexLock lock(lock_);
    LockedFile file(path_);
    const FileFault fault = file.open(LockedFile::kRead);
    if (fault == FileFault::kOpen) report(fault, path_);
    return fault == FileFault::kNone ? file.status().st_mtime : 0;
}

std::time_t ConfigFile::GetParseTimestamp() {
    MutexLock lock(lock_);
    return parseTimestamp_;
}

// ---- look-ups ----

Stanza* ConfigFile::pGetStanza(const CText& name) {
    for (ListIterators<Stanza*> i(stanzas_); !i.isDone(); i.next()) {
        if (i.currentItem()->isStanzaName(name)) return i.currentItem();
    }
    return nullptr;
}

Stanza* ConfigFile::getStanza(const CText& name) {
    MutexLock lock(lock_);
    return pGetStanza(name);
}

bool ConfigFile::findStanza(const CText& name) {
    MutexLock lock(lock_);
    return pGetStanza(name) != nullptr;
}

bool ConfigFile::getValue(const CText& stanza, const CText& key, CText& out) {
    MutexLock lock(lock_);
    out.Clear();
    Stanza* found = pGetStanza(stanza);
    return found != nullptr && found->getValue(key.GetTextEx(), out);
}

// ---- the walk over the directory ----

std::uint32_t ConfigFile::getNumberOfStanzas() {
    MutexLock lock(lock_);
    Stanza* directory = pGetDirectory();
    return directory != nullptr ? directory->getNumberOfAttributes() : 0;
}

bool ConfigFile::getStanzaInformationIndex(std::uint32_t i, CText& out) {
    MutexLock lock(lock_);
    return i < getNumberOfStanzas() && pGetDirectory()->getAttributeKey(i, out);
}

Stanza* ConfigFile::pGetStanzaAtIndex(std::uint32_t i) {
    CText name;
    return getStanzaInformationIndex(i, name) ? pGetStanza(name) : nullptr;
}

Stanza* ConfigFile::getStanzaAtIndex(std::uint32_t i) {
    MutexLock lock(lock_);
    return pGetStanzaAtIndex(i);
}

bool ConfigFile::getFirstStanza(CText& out) {
    MutexLock lock(lock_);
    out.Clear();
    cursor_ = 0;
    return getStanzaInformationIndex(cursor_, out);
}

bool ConfigFile::getNextStanza(CText& out) {
    MutexLock lock(lock_);
    out.Clear();
    if (++cursor_ >= getNumberOfStanzas()) {
        cursor_ = 0;
        return false;
    }
    return getStanzaInformationIndex(cursor_, out);
}

// ---- changes in memory ----

bool ConfigFile::changeValue(const CText& stanza, const CText& key, const CText& value) {
    MutexLock lock(lock_);
    Stanza* found = pGetStanza(stanza);
    return found != nullptr && found->changeValue(key.GetTextEx(), value.GetTextEx());
}

// False for null, as it comes from a new without memory.
bool ConfigFile::pAddStanza(Stanza* stanza, bool addToDirectory) {
    if (stanza == nullptr) return false;
    stanzas_.append(stanza);
    if (!addToDirectory) return true;
    Stanza* directory = pGetDirectory();
    const char* name = stanza->getStanzaName().GetTextEx();
    if (directory != nullptr && !directory->findValue(name)) directory->addValue(name, nullptr);
    return true;
}

bool ConfigFile::addStanza(Stanza* stanza, bool addToDirectory) {
    MutexLock lock(lock_);
    return pAddStanza(stanza, addToDirectory);
}

bool ConfigFile::pRemoveStanza(const CText& name) {
    Stanza* stanza = pGetStanza(name);
    if (stanza == nullptr) return false;
    stanzas_.remove(stanza);
    Stanza* directory = pGetDirectory();
    const bool wasListed = directory != nullptr && directory->removeKey(name.GetTextEx());
    delete stanza;  // last, because name may be its own
    return wasListed;
}

bool ConfigFile::removeStanza(const CText& name) {
    MutexLock lock(lock_);
    return pRemoveStanza(name);
}

bool ConfigFile::removeAllStanzas() {
    MutexLock lock(lock_);
    for (ListIterators<Stanza*> i(stanzas_); !i.isDone(); i.next())
        delete i.currentItem();
    stanzas_.clear();
    return true;
}

bool ConfigFile::createDirectoryStanza() {
    MutexLock lock(lock_);
    if (pGetDirectory() != nullptr) return true;
    return pAddStanza(new (std::nothrow) Stanza(directoryName_.GetTextEx()), false);
}

// ---- merging and writing ----

bool ConfigFile::mergeConfigFiles(ConfigFile& other) {
    MutexLock lock(lock_);
    const MemoryWatch memory;
    Stanza* directory = pGetDirectory();
    Stanza* otherDirectory = other.pGetStanza(directoryName_);
    if (directory == nullptr || otherDirectory == nullptr) return false;
    directory->mergeStanza(*otherDirectory);
    const std::uint32_t count = other.getNumberOfStanzas();
    for (std::uint32_t i = 0; i < count; ++i) {
        Stanza* taken = other.pGetStanzaAtIndex(i);
        if (taken == nullptr) continue;
        Stanza* present = pGetStanza(taken->getStanzaName());
        if (present != nullptr) {
            present->mergeStanza(*taken);
        } else if (!pAddStanza(new (std::nothrow) Stanza(*taken), false)) {
            return false;
        }
    }
    return !memory.ranOut();
}

// A name or key that the syntax cannot carry must not make the file unreadable for everybody.
bool ConfigFile::pReadsBack(const char* bytes, std::uint32_t size) {
    ConfigParser parser(bytes, size);
    for (ListIterators<Stanza*> i(stanzas_); !i.isDone(); i.next()) {
        const std::unique_ptr<Stanza> stanza = parser.nextStanza();
        if (stanza == nullptr || !stanza->isStanzaName(i.currentItem()->getStanzaName())) return false;
    }
    return parser.nextStanza() == nullptr && *parser.error().reason == '\0' && size <= kMaxFileSize;
}

// memory has watched since before the image was put together: one that lacks something is not written.
bool ConfigFile::pStore(LockedFile& file, const MemoryWatch& memory) {
    CText content;
    bool isWhole = true;
    for (ListIterators<Stanza*> i(stanzas_); isWhole && !i.isDone(); i.next())
        isWhole = i.currentItem()->appendStanza(content);
    const std::uint32_t size = content.Length();
    if (!isWhole || !pReadsBack(content.GetTextEx(), size) || memory.ranOut()) {
        errno = !isWhole || memory.ranOut() ? ENOMEM : size > kMaxFileSize ? EFBIG : EINVAL;
        return report(FileFault::kWrite, path_);
    }
    return doneOrReported(file.replace(content.GetTextEx(), size), path_);
}

bool ConfigFile::writeFile(bool merge) {
    MutexLock lock(lock_);
    const MemoryWatch memory;
    LockedFile file(path_);
    if (!doneOrReported(file.open(merge ? LockedFile::kChange : LockedFile::kCreate), path_)) return false;
    if (!merge) return pStore(file, memory);
    ConfigFile image(path_.GetText(), directoryName_.GetText());
    MutexLock imageLock(image.lock_);
    return image.pLoad(file, nullptr) && image.mergeConfigFiles(*this) && image.pStore(file, memory);
}

bool ConfigFile::removeStanzaWithWrite(const char* name) {
    MutexLock lock(lock_);
    const MemoryWatch memory;
    const CText removed(name);
    LockedFile file(path_);
    if (!doneOrReported(file.open(LockedFile::kChange), path_)) return false;
    ConfigFile image(path_.GetText(), directoryName_.GetText());
    MutexLock imageLock(image.lock_);
    if (!image.pLoad(file, nullptr) || !image.mergeConfigFiles(*this)) return false;
    image.pRemoveStanza(removed);
    const bool written = image.pStore(file, memory);
    pRemoveStanza(removed);
    return written;
}

bool ConfigFile::changeStanzaWithWrite(const char* name) {
    MutexLock lock(lock_);
    const MemoryWatch memory;
    LockedFile file(path_);
    if (!doneOrReported(file.open(LockedFile::kChange), path_)) return false;
    ConfigFile image(path_.GetText(), directoryName_.GetText());
    MutexLock imageLock(image.lock_);
    if (!image.pLoad(file, nullptr)) return false;

    Stanza* onDisk = image.pGetStanza(name);
    Stanza* inMemory = pGetStanza(name);
    if (onDisk != nullptr && inMemory != nullptr) {
        onDisk->copyAttributeList(*inMemory);
    } else if (inMemory != nullptr) {
        Stanza* directory = pGetDirectory();
        Stanza* directoryOnDisk = image.pGetDirectory();
        if (directory == nullptr || directoryOnDisk == nullptr) return false;
        directoryOnDisk->mergeStanza(*directory);
        if (!image.pAddStanza(new (std::nothrow) Stanza(*inMemory), false)) return false;
    }
    return image.pStore(file, memory);
}

bool ConfigFile::completeStanzaWithWrite(const CText& name, bool (*complete)(Stanza&, bool isNew)) {
    MutexLock lock(lock_);
    const MemoryWatch memory;
    LockedFile file(path_);
    if (!doneOrReported(file.open(LockedFile::kChange), path_)) return false;
    ConfigFile image(path_.GetText(), directoryName_.GetText());
    MutexLock imageLock(image.lock_);
    if (!image.pLoad(file, nullptr)) return false;

    const bool isNew = image.pGetStanza(name) == nullptr;
    if (isNew && (image.pGetDirectory() == nullptr ||
                  !image.pAddStanza(new (std::nothrow) Stanza(name.GetTextEx()), true))) {
        return false;
    }
    const bool isChanged = complete(*image.pGetStanza(name), isNew);
    if (isChanged ? !image.pStore(file, memory) : memory.ranOut()) return false;
    removeAllStanzas();
    for (ListIterators<Stanza*> i(image.stanzas_); !i.isDone(); i.next())
        stanzas_.append(i.currentItem());
    image.stanzas_.clear();  // they have a new owner
    return true;
}

bool ConfigFile::dump() {
    MutexLock lock(lock_);
    for (ListIterators<Stanza*> i(stanzas_); !i.isDone(); i.next())
        i.currentItem()->saveStanza(stderr);
    return true;
}
