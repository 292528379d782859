#include "daemon/log_sink.h"

#include <spdlog/sinks/basic_file_sink.h>
#include <spdlog/sinks/dist_sink.h>
#include <spdlog/sinks/stdout_sinks.h>
#include <spdlog/sinks/syslog_sink.h>
#include <spdlog/spdlog.h>
#include <syslog.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <memory>
#include <stdexcept>
#include <string_view>

namespace reservationd {
namespace {

constexpr char kName[] = "reservationd";

spdlog::level::level_enum ToSpdlog(int level) {
    constexpr std::array kLevels = {spdlog::level::err, spdlog::level::warn, spdlog::level::info, spdlog::level::debug,
                                    spdlog::level::trace};
    return kLevels[static_cast<size_t>(std::clamp(level, 1, 5) - 1)];
}

spdlog::sink_ptr MakeSink(const std::string& target) {
    if (target == "syslog") {
        auto sink = std::make_shared<spdlog::sinks::syslog_sink_mt>(kName, LOG_PID, LOG_DAEMON, false);
        sink->set_pattern("%v");
        return sink;
    }
    spdlog::sink_ptr sink;
    if (target == "stderr") {
        sink = std::make_shared<spdlog::sinks::stderr_sink_mt>();
    } else {
        sink = std::make_shared<spdlog::sinks::basic_file_sink_mt>(target);
    }
    sink->set_pattern("%Y-%m-%dT%H:%M:%S.%e%z %v");
    return sink;
}

// What records go through. Its sinks can be exchanged while others write.
struct Log {
    std::shared_ptr<spdlog::sinks::dist_sink_mt> sinks = std::make_shared<spdlog::sinks::dist_sink_mt>();
    std::shared_ptr<spdlog::logger> logger = std::make_shared<spdlog::logger>(kName, sinks);

    Log() {
        sinks->add_sink(MakeSink("stderr"));
        logger->flush_on(ToSpdlog(kLogWarning));
        spdlog::register_logger(logger);
    }
};

Log& TheLog() {
    static Log log;
    return log;
}

std::string_view WithoutNewline(std::string_view text) {
    if (text.ends_with('\n')) text.remove_suffix(1);
    return text;
}

}    // namespace

void OpenLog(const std::string& target, int level) try {
    Log& log = TheLog();
    log.sinks->set_sinks({MakeSink(target)});
    log.logger->set_level(ToSpdlog(level));
    spdlog::flush_every(std::chrono::seconds(1));
} catch (const spdlog::spdlog_ex& error) {
    throw std::runtime_error("log file " + target + ": " + error.what());
}

void WriteLog(const LogRecord& record) {
    TheLog().logger->log(ToSpdlog(record.level), "{} {} {}: {}", record.module, record.level, record.function,
                         WithoutNewline(record.message));
}

void WriteLog(int level, const std::string& message) {
    TheLog().logger->log(ToSpdlog(level), "DAEMON {}: {}", level, WithoutNewline(message));
    TheLog().logger->flush();
}

// The level "off" of a record is never filtered, nor flushed; syslog gets it as information.
void WriteAudit(const std::string& text) {
    TheLog().logger->log(spdlog::level::off, "AUDIT {}", text);
    TheLog().logger->flush();
}

}    // namespace reservationd
