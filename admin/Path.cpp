// velarto-config path: which file, and by which rule it was found.
#include <iostream>

#include "Command.h"
#include "Configuration.h"

void addPath(CLI::App& app, Request& request) {
    CLI::App* command =
        app.add_subcommand("path", "Tell which configuration file the gateway reads, and why");
    command->callback([&request] {
        request.command = [&request]() -> int {
            const Location location = locate(request);
            if (request.json) {
                print(Json{{"path", location.path}, {"rule", location.rule}});
            } else {
                std::cout << shown(location.path) << "\nfound by " << location.rule << '\n';
            }
            [[maybe_unused]] const Snapshot file(location);  // or tell why the gateway cannot have it
            return kFine;
        };
    });
}
