// Any sequence of operations that the model check may draw, compared with the model.

#include <cstdio>
#include <cstdlib>
#include <string>

#include "tests/reservation/model_check.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    constexpr size_t kDrawsOfOperation = 16;    // about as many
    const uint8_t* const end = data + size;
    const Sequence sequence = Generate([&] { return data != end ? *data++ : 0; }, size / kDrawsOfOperation);
    static const bool has_loaded = Compare({{.kind = "restart"}}, false).empty();
    const std::string difference = Compare(sequence, has_loaded);
    if (difference.empty()) return 0;
    std::fprintf(stderr, "%s\n%s", difference.c_str(), Code(sequence).c_str());
    std::abort();
}
