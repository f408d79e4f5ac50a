// RequestId: a name for one request, by which its page, its line in the log and the web server's own log are found.
#pragma once

// UNIQUE_ID where the web server gives one (Apache's mod_unique_id), else 16 hexadecimal digits at random. Made at the
// first call; valid as long as the process.
const char* RequestId();
