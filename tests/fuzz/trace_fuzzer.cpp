// Any trace: it is read, or refused with a message that names the file.

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>

#include "replay/input_error.h"
#include "replay/trace/swf_trace.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const std::string path =
        std::filesystem::temp_directory_path() / ("trace_fuzzer." + std::to_string(getpid()));
    std::FILE* const file = std::fopen(path.c_str(), "wb");
    if (file == nullptr || std::fwrite(data, 1, size, file) != size || std::fclose(file) != 0) std::abort();
    try {
        if (replay::ReadSwfTrace(path).jobs.empty()) std::abort();
    } catch (const replay::InputError& error) {
        if (std::string(error.what()).find(path) == std::string::npos) std::abort();
    }
    return 0;
}
