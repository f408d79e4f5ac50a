#include "Request.h"

#include "protocol/QuilRequest.h"

Frame Request::frame() const {
    Frame frame{QUIL_REQUEST, number(fileTime) + counted(body)};
    for (std::uint32_t id = 0; id < QUIL_PARAM_NONE; ++id)
        frame.fields += counted(FindQuilParamName(static_cast<TQUILReqParamID>(id))) + counted(values[id]);
    return frame;
}
