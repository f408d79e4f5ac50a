/* The headers for host programs, seen from C. */
#include "cgi/VeHttpResponse.h"
#include "client/Velarto.h"

/* The status code of a response and the value of a parameter, asked for by a C program. */
int32_t statusFromC(const char* text) {
    void* response = VeHttpParseResponse(text, false);
    const int32_t status = VeHttpGetStatusCode(response);
    VeHttpReleaseResponse(response);
    return status;
}

bool parameterFromC(ve_hrequest_t* request, const char* value, char* first) {
    if (!VeRequestSetAtrtibute(request, QUIL_PARAM_QUERY_STRING, value)) return false;
    *first = VeRequestGetAtrtibute(request, QUIL_PARAM_QUERY_STRING)[0];
    return sizeof(TQUILReqType) == sizeof(uint32_t);
}
