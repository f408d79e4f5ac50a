// DripClient: the client side of the marshalling layer.
#pragma once

#include "wire/Drip.h"

// Adds nothing to Drip; it is the place where client and server sides would part.
class DripClient : public Drip {};
