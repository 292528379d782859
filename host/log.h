// The daemon's logger. Levels run from 1 (most severe) to 5 (most verbose).

#pragma once

#include <functional>
#include <string>

// One record as a sink receives it. The strings are those given to log_send; `message` is the formatted text, which may
// end in a newline.
struct LogRecord {
    const char* module;
    int level;
    const char* file;
    int line;
    const char* function;
    std::string message;
};

// Nonzero when records of this level are wanted from this module. All modules share one level.
int log_check_level(const char* module, int level);

// Formats a record, as printf does, and hands it to the sink, whatever its level: the caller asks log_check_level first
// where it cares. It never throws, so that logging cannot break what is being logged: a record that cannot be formatted
// or that the sink throws at goes to standard error, as far as its text is there.
void log_send(const char* module, int level, const char* file, int line, const char* function, const char* format,
              ...) noexcept __attribute__((format(printf, 6, 7)));

// Sets the most verbose level wanted, held between 1 and 5. It starts at 3.
void log_set_level(int level);

// Sets where records go. An empty function: to standard error, a line each, as at the start.
void log_set_sink(std::function<void(const LogRecord&)> sink);
