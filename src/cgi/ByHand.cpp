#include "cgi/ByHand.h"

#include <unistd.h>

#include <cstdlib>
#include <cstring>

#include "client/Velarto.h"
#include "platform/osfile_impl.h"

namespace {

constexpr char kHelp[] =
    "Usage: velarto-cgi [--help | --version]\n"
    "\n"
    "A CGI program: the web server starts it for each request, and it passes the request on to an "
    "application\n"
    "server. It is not run by hand. Link it into the web server's CGI folder under the name of a client, "
    "and\n"
    "name that client's application servers in clients.ini:\n"
    "\n"
    "    ln -s /usr/lib/velarto/velarto-cgi /usr/local/VelartoServer/5.5/htdocs/cgi-bin/shop\n"
    "    velarto-config add shop 127.0.0.1,18155\n"
    "\n"
    "'velarto-config try shop' sends a request as the gateway would; velarto-cgi(8) says the rest.\n";

void print(const char* text) {
    iovec part = TextPart(text);
    WriteOSFile(STDOUT_FILENO, &part, 1);
}

void printVersion() {
    print("velarto-cgi (Velarto) ");
    print(VeClientGetBuildVersion());
    print("\n");
}

}  // namespace

bool AnswerByHand(int argc, char** argv) {
    if (std::getenv("GATEWAY_INTERFACE") != nullptr || std::getenv("REQUEST_METHOD") != nullptr) return false;
    const char* option = argc == 2 ? argv[1] : "";
    if (std::strcmp(option, "--version") == 0) {
        printVersion();
    } else if (std::strcmp(option, "--help") == 0 || (argc == 1 && isatty(STDOUT_FILENO) == 1)) {
        print(kHelp);
    } else {
        return false;
    }
    return true;
}
