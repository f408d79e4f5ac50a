// How a connection is ended so that its peer sees a reset.
#pragma once

// The descriptor stays open, and its owner's.
void resetConnection(int descriptor);
