// Random sequences of operations, each compared with the model. A sequence that fails is made as short as it gets, and
// printed as code.
//
// Environment: MODEL_SEED (1 unless given), MODEL_SECONDS (for how long to run; 200 sequences unless given).

#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <iostream>
#include <random>
#include <string>

#include "tests/reservation/model_check.h"

namespace {

uint64_t Setting(const char* name, uint64_t usual) {
    const char* const text = std::getenv(name);
    return text != nullptr ? std::stoull(text) : usual;
}

TEST(Model, IsFollowed) {
    using Clock = std::chrono::steady_clock;
    const uint64_t seed = Setting("MODEL_SEED", 1), seconds = Setting("MODEL_SECONDS", 0);
    const Clock::time_point end = Clock::now() + std::chrono::seconds(seconds);
    uint64_t number = 0, num_steps = 0;
    for (; seconds > 0 ? Clock::now() < end : number < 200; ++number) {
        std::seed_seq seeds{seed, number};
        std::mt19937_64 random(seeds);
        const Sequence sequence = Generate(std::ref(random), 40 + random() % 160);
        num_steps += sequence.size();
        if (Difference(sequence).empty()) continue;
        const Sequence shrunk = Shrunk(sequence);
        FAIL() << "seed " << seed << ", sequence " << number << ", " << Difference(shrunk) << "\n" << Code(shrunk);
    }
    std::cout << number << " sequences, " << num_steps << " steps compared" << std::endl;
}

// A job brings B the id that A would get.
TEST(Model, IsFollowedWhereIdsCollide) {
    EXPECT_EQ(Difference({{.kind = "run", .key = "B", .guids = {1}, .job = 1, .variant = 2},
                          {.kind = "create", .key = "B", .guids = {1}},
                          {.kind = "create", .key = "A", .guids = {2}}}),
              "");
}

}    // namespace
