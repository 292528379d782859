#include "host/log.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <string_view>
#include <utility>

namespace {

int g_level = 3;
std::function<void(const LogRecord&)> g_sink;

void WriteToStandardError(const char* module, int level, const char* function, std::string_view message) {
    if (message.ends_with('\n')) message.remove_suffix(1);
    std::fprintf(stderr, "%s %d %s: %.*s\n", module, level, function, static_cast<int>(message.size()), message.data());
}

__attribute__((format(printf, 1, 0))) std::string Format(const char* format, va_list arguments) {
    va_list again;
    va_copy(again, arguments);
    const int length = std::vsnprintf(nullptr, 0, format, again);
    va_end(again);
    std::string text(static_cast<size_t>(std::max(length, 0)), '\0');
    std::vsnprintf(text.data(), text.size() + 1, format, arguments);
    return text;
}

}    // namespace

int log_check_level(const char*, int level) { return level <= g_level; }

void log_send(const char* module, int level, const char* file, int line, const char* function, const char* format,
              ...) noexcept {
    va_list arguments;
    va_start(arguments, format);
    try {
        const LogRecord record{module, level, file, line, function, Format(format, arguments)};
        if (g_sink) {
            g_sink(record);
        } else {
            WriteToStandardError(module, level, function, record.message);
        }
    } catch (...) {
        WriteToStandardError(module, level, function, format);
    }
    va_end(arguments);
}

void log_set_level(int level) { g_level = std::clamp(level, 1, 5); }

void log_set_sink(std::function<void(const LogRecord&)> sink) { g_sink = std::move(sink); }
