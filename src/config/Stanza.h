// Stanza: one named section of a configuration file.
#pragma once

#include <cstdint>
#include <cstdio>

#include "Server/Common_Classes/UText.h"
#include "config/AttributeList.h"
#include "platform/mutexobj.h"
#include "platform/thread_annotations.h"

// A name and its attributes, guarded by a recursive lock of its own that every operation holds for its whole
// run, except where it says otherwise. Names and keys compare without regard to case. Operations that fill a
// text empty it first. Whoever also holds a ConfigFile's lock took that one before.
class Stanza {
  public:
    explicit Stanza(const char* name);
    Stanza(const char* name, const AttributeList& attributes);
    Stanza(const Stanza& other);  // name and attributes, read under the other's lock
    Stanza& operator=(const Stanza&) = delete;
    virtual ~Stanza();

    // How many times the key occurs / whether it occurs.
    virtual int getNumOccurrences(const char* key);
    virtual bool findValue(const char* key);
    // True when the key exists, its value empty or not.
    virtual bool getValue(const char* key, CText& out);
    // The n-th occurrence, from 1; false when there is none or its value never held a character.
    virtual bool getValue(const char* key, std::uint32_t n, CText& out);
    // By position, from 0; false when there is none or that text never held a character.
    virtual bool getAttributeValue(std::uint32_t i, CText& out);
    virtual bool getAttributeKey(std::uint32_t i, CText& out);

    // ---- identity ----
    void setStanzaName(const char* name);
    // Without the lock: others get to see a stanza only once it has its name.
    const CText& getStanzaName() const VELARTO_NO_THREAD_SAFETY_ANALYSIS { return name_; }
    bool isStanzaName(const CText& name);
    bool operator==(const Stanza& other);
    std::uint32_t getNumberOfAttributes();

    // ---- look-ups ----
    bool getAttribute(const char* key, Attribute& out);  // a copy; out is left alone when there is none
    bool getAttributeIndex(std::uint32_t i, Attribute& out);
    Lists<Attribute*>& getAllAttributes(const char* key, Lists<Attribute*>& out);

    // ---- changes ----
    bool addValue(const char* key, const char* value);     // appends even a key that is there
    bool changeValue(const char* key, const char* value);  // the first occurrence, or appends
    bool removeKey(const char* key);                       // the first occurrence; false when absent
    // Takes other's attributes over; their values win. Other is read without its lock, so that two stanzas
    // merged crosswise never wait for each other.
    bool mergeStanza(Stanza& other) VELARTO_NO_THREAD_SAFETY_ANALYSIS;
    // Takes the other's attributes in place of these. Never waits for the other's lock: false, with nothing
    // changed, when it is busy.
    bool copyAttributeList(Stanza& other);

    // ---- attribute lists ----
    // A list attribute is one whose value names other attributes of this stanza, joined by ":".

    // Fills out with copies of the named attributes, each once. Always true.
    bool getAttributeList(const char* key, AttributeList& out);
    // Takes the attributes of in over (their values win) and lists them under key; false when the key exists.
    bool addAttributeList(const char* key, AttributeList& in);
    // The named attributes go, then the list itself. Always true.
    bool removeAttributeList(const char* key);
    bool changeAttributeList(const char* key, AttributeList& in);  // false when the key does not exist

    // ---- writing ----
    // CR, LF and backslash are written as a backslash and a letter (r, n, backslash): the letter of such a
    // character and back; 0 for any other.
    static char GetBSEscKey(char c);
    static char GetBSEscValue(char key);
    static void appendBSEscString(CText& out, const char* text);  // escaped
    // Writes text escaped; returns the characters written, 0 for a null or empty argument, -1 when the stream
    // does not take all of them.
    int writeBSEscString(std::FILE* f, const char* text);
    // Appends the section in the file syntax: attributes sorted by key, an empty line after it. False without
    // memory for it.
    bool appendStanza(CText& out);
    // Writes the same to a stream; false when the stream does not take all of it.
    bool saveStanza(std::FILE* f);

  private:
    static const char bsEscValues[3];
    static const char bsEscKeys[3];

    CText name_ VELARTO_GUARDED_BY(lock_);
    AttributeList attributes_ VELARTO_GUARDED_BY(lock_);
    mutable Mutex lock_{Mutex::kPrivate};
};
