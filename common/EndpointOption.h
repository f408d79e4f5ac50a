// An option that says where a program listens.
#pragma once

#include <CLI/CLI.hpp>
#include <stdexcept>
#include <string>

#include "common/Endpoint.h"

// The target is an Endpoint, or a std::optional one.
template <class Target>
CLI::Option* addEndpoint(CLI::App& app, const char* name, Target& target, const char* purpose) {
    const auto take = [&target](const std::string& text) {
        try {
            target = Endpoint::parse(text);
        } catch (const std::invalid_argument& error) {
            throw CLI::ValidationError(error.what());
        }
    };
    return app.add_option_function<std::string>(name, take, purpose)->type_name("ADDRESS");
}
