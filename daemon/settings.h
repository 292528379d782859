// The daemon's options: from the command line and a configuration file.

#pragma once

#include <map>
#include <stdexcept>
#include <string>

#include "daemon/engine/engine.h"
#include "daemon/rpc/server.h"

namespace reservationd {

// An option or the configuration file cannot be used. The message names it and says why.
class SettingsError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// One option as it was given, or as it is by default.
struct OptionValue {
    std::string text;
    bool can_change = false;    // while the daemon runs

    bool operator==(const OptionValue&) const = default;
};

struct Settings {
    EngineSettings engine;
    ServerSettings server;
    std::string log = "stderr";    // see OpenLog
    bool check_store = false;    // instead of serving
    std::map<std::string, OptionValue> options;    // all of the above, by the option's name
};

// Reads the settings. Prints what --help and --version ask for, and exits. Throws SettingsError.
Settings ReadSettings(int argc, char** argv);

}    // namespace reservationd
