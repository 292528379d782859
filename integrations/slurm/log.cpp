#include "integrations/slurm/log.h"

#include <atomic>
#include <cstdio>
#include <cstdlib>

#include "util/text.h"

namespace reservation_slurm {
namespace {

std::atomic<LogTarget> g_target = LogTarget::kStandardError;

}    // namespace

void SetLogTarget(LogTarget target) {
    g_target = target;
    if (target == LogTarget::kSystemLog) openlog("reservation-slurm", LOG_PID | LOG_PERROR, LOG_DAEMON);
}

void Log(int priority, const std::string& message) {
    const std::string text = util::Printable(message);
    if (g_target == LogTarget::kSystemLog) return syslog(priority, "%s", text.c_str());
    if (std::getenv("JOURNAL_STREAM") != nullptr) std::fprintf(stderr, "<%d>", priority);    // which the journal reads
    std::fprintf(stderr, "%s\n", text.c_str());
}

}    // namespace reservation_slurm
