// Drip: how values and messages look on the wire.
#pragma once

#include <cstdint>

#include "Server/Common_Classes/UText.h"
#include "config/AttributeList.h"
#include "wire/NetBase.h"

// Marshalling over the buffered stream. Numbers are unsigned, 32 bits, big-endian; nothing is aligned or
// padded.
//
//     ULONG          4 bytes
//     RETCODE        ULONG, 1 true, 0 false; any non-zero value reads as true
//     Text, Data     ULONG n, then n bytes; no terminator
//     Attribute      Text key, Text value
//     AttributeList  ULONG count, then count Attributes
//
//     Header         "QUIL"  version ULONG  type ULONG
//     Footer         "END!", then the buffered message leaves for the peer
//
// Every operation is true when done and stops at the first failing step of the stream. Lengths that cannot be
// had fail the read. A wrong frame mark or footer also clears the stream-good flag. What was read before a
// failure stays in the receiving object.
class Drip : public NetBase {
  public:
    virtual bool marshallHeader(std::uint32_t type, std::uint32_t version);
    virtual bool marshallFooter();
    virtual bool unmarshallHeader(std::uint32_t& type, std::uint32_t& version);
    virtual bool unmarshallFooter();

    bool marshallULONG(std::uint32_t value);
    bool unmarshallULONG(std::uint32_t& value);
    bool marshallRETCODE(bool ok);
    bool unmarshallRETCODE(bool& ok);
    bool marshallText(const CText& text);
    bool unmarshallText(CText& text);
    bool marshallData(const CData& data);
    bool unmarshallData(CData& data);
    bool marshallAttribute(const Attribute& attribute);
    bool unmarshallAttribute(Attribute& attribute);
    bool marshallAttributeList(const AttributeList& list);
    // Allocates the list before anything is read; the caller owns it whatever the result. A key that is
    // already there is dropped.
    bool unmarshallAttributeList(AttributeList*& list);

  private:
    bool readMark(const char* mark);
    bool readBlock(CData& block, std::uint32_t size, std::uint32_t reserve);
};
