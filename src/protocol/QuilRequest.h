// TQuilRequest: everything that is forwarded to the application server about one HTTP request.
#pragma once

#include <array>
#include <cstdint>

#include "Server/Common_Classes/UData.h"
#include "config/Attribute.h"
#include "platform/ValidityTag.h"
#include "protocol/QuilTypes.h"

// The parameter's name, null for an id outside 0..24.
const char* FindQuilParamName(TQUILReqParamID id);

// The id of a name, letter case ignored; QUIL_PARAM_NONE for a null, empty or unknown name.
TQUILReqParamID FindQuilParamID(const char* name);

// 25 named text parameters (their names are those of the CGI variables, RFC 3875) and the request body. Owns
// all of it. Threads: one at a time.
class TQuilRequest {
  public:
    TQuilRequest();
    TQuilRequest(const TQuilRequest&) = delete;
    TQuilRequest& operator=(const TQuilRequest&) = delete;
    ~TQuilRequest();

    // Copy the value in (null empties the parameter). False, and nothing changed, when there is no such
    // parameter. False, and the value cut, when there is no memory for it.
    bool SetParamAttribute(TQUILReqParamID id, const char* value);
    bool SetParamAttribute(const char* name, const char* value);

    // The parameter in place; null when there is no such parameter.
    const Attribute* GetParamAttribute(TQUILReqParamID id) const;
    const Attribute* GetParamAttribute(const char* name) const;

    void SetPostArgs(const unsigned char* data, std::uint32_t size);  // copies; size 0 empties
    CData& postArgs() { return postArgs_; }
    const CData& postArgs() const { return postArgs_; }

    // The record behind an opaque handle; null when the handle is null or no live record.
    static TQuilRequest* CastHandleToQuilRequest(void* handle);

  private:
    using HandleTag = ValidityTag<1124>;
    HandleTag handleTag_{this};
    CData postArgs_;
    std::array<Attribute, QUIL_PARAM_NONE> params_;
};
