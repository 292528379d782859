// Makes every expectation that fails a finding of the fuzzer, not only a line that it prints.

#include <gtest/gtest.h>

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    GTEST_FLAG_SET(break_on_failure, true);
    return 0;
}
