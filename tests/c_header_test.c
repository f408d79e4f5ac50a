/* The headers for host programs compile as C, with numbers of the same size. */
#include "cgi/VeHttpResponse.h"
#include "client/Velarto.h"

_Static_assert(sizeof(TQUILReqType) == sizeof(uint32_t), "as in C++");
_Static_assert(sizeof(TQUILReqParamID) == sizeof(uint32_t), "as in C++");
