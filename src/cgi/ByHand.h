// What the gateway tells a person who runs it in a shell.
#pragma once

// True when no web server has started the program and somebody asks for --help or --version, or runs it without
// arguments at a terminal: then the answer was printed. A web server gives GATEWAY_INTERFACE or REQUEST_METHOD, and may
// put words of the query string on the command line (RFC 3875, 4.4), which ask for nothing.
bool AnswerByHand(int argc, char** argv);
