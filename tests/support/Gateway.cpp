// The headers compile on their own; the library needs a source to carry the precompiled ones.
#include "support/Gateway.h"
