#include "integrations/slurm/command_line.h"

#include <absl/strings/str_split.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "integrations/slurm/config.h"
#include "integrations/slurm/hooks.h"
#include "integrations/slurm/job.h"
#include "integrations/slurm/log.h"
#include "integrations/slurm/service.h"

namespace reservation_slurm {
namespace {

constexpr int kFailed = 1;
constexpr int kWrongUsage = 2;

constexpr char kUsage[] =
    "reservation-slurm COMMAND [--config FILE]: keeps Slurm's jobs in the reservations of reservationd\n\n"
    "  prolog   admit a job; for PrologSlurmctld\n"
    "  epilog   end a job; for EpilogSlurmctld\n"
    "  service  keep the daemon's jobs and Slurm's the same\n"
    "  check    tell what is wrong with the configuration file\n\n"
    "FILE is by default /etc/reservation-slurm.conf; see reservation-slurm(8).\n";

int Fail(const absl::Status& status, int exit_status) {
    for (const absl::string_view line : absl::StrSplit(status.message(), '\n')) Log(LOG_ERR, std::string(line));
    return exit_status;
}

int RunHook(const Config& config, int (*hook)(const Config& config, const SlurmJob& job)) {
    const absl::StatusOr<SlurmJob> job = ReadJob(&std::getenv);
    if (!job.ok()) return Fail(job.status(), kFailed);
    return hook(config, *job);
}

}    // namespace

int RunCommandLine(int argc, const char* const* argv) {
    const std::vector<std::string> arguments(argv + 1, argv + argc);
    const std::string command = arguments.empty() ? "" : arguments.front();
    if (command == "--help" || command == "--version") {
        std::fputs(command == "--help" ? kUsage : RESERVATION_SLURM_VERSION "\n", stdout);
        return 0;
    }
    const bool is_hook = command == "prolog" || command == "epilog";
    const bool is_command = is_hook || command == "service" || command == "check";
    const bool has_path = arguments.size() == 3 && arguments[1] == "--config";
    if (!is_command || (arguments.size() > 1 && !has_path)) {
        std::fputs(kUsage, stderr);
        return kWrongUsage;
    }
    if (is_hook) SetLogTarget(LogTarget::kSystemLog);
    const std::string path = has_path ? arguments[2] : "/etc/reservation-slurm.conf";
    const absl::StatusOr<Config> config = Config::Read(path);
    if (!config.ok()) return Fail(config.status(), is_hook ? kFailed : kWrongUsage);
    if (is_hook) return RunHook(*config, command == "prolog" ? RunProlog : RunEpilog);
    if (command == "service") {
        RunService(*config);
    } else {
        std::printf("%s: nothing is wrong\n", path.c_str());
    }
    return 0;
}

}    // namespace reservation_slurm
