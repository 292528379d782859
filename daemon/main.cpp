// reservationd: reads its settings, takes up its state, serves, and follows signals.

#include <malloc.h>
#include <systemd/sd-daemon.h>

#include <csignal>
#include <cstdio>
#include <exception>
#include <string>
#include <vector>

#include "daemon/engine/engine.h"
#include "daemon/log_sink.h"
#include "daemon/rpc/server.h"
#include "daemon/settings.h"

namespace {

using namespace reservationd;

// Signals are taken one by one, by Serve; the threads that start later inherit the mask.
sigset_t TakeOverSignals() {
    // A file at its size limit is a full disk like any other.
    std::signal(SIGXFSZ, SIG_IGN);
    std::signal(SIGPIPE, SIG_IGN);
    sigset_t signals;
    sigemptyset(&signals);
    for (const int signal : {SIGHUP, SIGINT, SIGTERM}) sigaddset(&signals, signal);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    return signals;
}

void LogChanges(const Settings& old_settings, const Settings& settings) {
    for (const auto& [name, value] : settings.options) {
        const std::string& old_text = old_settings.options.at(name).text;
        if (value.text == old_text) continue;
        WriteLog(kLogInfo, "Option " + name + ": '" + old_text + "' becomes '" + value.text + "'" +
                               (value.can_change ? "" : " at the next start"));
    }
}

// Returns the settings in force: the old ones when the new ones cannot be used.
Settings Reload(const Settings& old_settings, int argc, char** argv, Engine& engine, Server& server) try {
    Settings settings = ReadSettings(argc, argv);
    server.Reconfigure(settings.server);
    OpenLog(settings.log, settings.engine.log_level);
    LogChanges(old_settings, settings);
    engine.Reconfigure(settings.engine);
    return settings;
} catch (const std::exception& error) {
    WriteLog(kLogError, std::string("The options stay as they are: ") + error.what());
    return old_settings;
}

void Serve(Settings settings, const sigset_t& signals, int argc, char** argv) try {
    Engine engine(settings.engine);
    Server server(settings.server, engine);
    WriteLog(kLogInfo, "reservationd " RESERVATIOND_VERSION " serves " + settings.engine.options.persistent_dir);
    sd_notify(0, "READY=1");
    for (int signal = 0; sigwait(&signals, &signal) == 0 && signal == SIGHUP;) {
        sd_notify(0, "RELOADING=1");
        settings = Reload(settings, argc, argv, engine, server);
        sd_notify(0, "READY=1");
    }
    WriteLog(kLogInfo, "Stopping");
    sd_notify(0, "STOPPING=1");
    engine.Stop();
} catch (const std::exception& error) {
    if (settings.log != "stderr") WriteLog(kLogError, error.what());
    throw;
}

// Returns the exit status.
int CheckStore(const std::string& dir) {
    const std::vector<std::string> faults = FindFaultsOfStore(dir);
    for (const std::string& fault : faults) std::printf("%s\n", fault.c_str());
    if (faults.empty()) std::printf("The store in %s is good.\n", dir.c_str());
    return faults.empty() ? 0 : 1;
}

}    // namespace

int main(int argc, char** argv) try {
    // Large blocks, such as replies, go back to the system when they are freed. By default the bound grows with use.
    mallopt(M_MMAP_THRESHOLD, 256 * 1024);
    const Settings settings = ReadSettings(argc, argv);
    if (settings.check_store) return CheckStore(settings.engine.options.persistent_dir);
    const sigset_t signals = TakeOverSignals();    // before the log, which starts a thread
    OpenLog(settings.log, settings.engine.log_level);
    Serve(settings, signals, argc, argv);
    return 0;
} catch (const SettingsError& error) {
    std::fprintf(stderr, "reservationd: %s\n", error.what());
    return 2;
} catch (const std::exception& error) {
    std::fprintf(stderr, "reservationd: %s\n", error.what());
    return 1;
}
