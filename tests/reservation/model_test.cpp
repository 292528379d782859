// Random sequences of operations, each compared with the model. A sequence that fails is made as short as it gets, and
// printed as code.
//
// Environment: MODEL_SEED (1 unless given), MODEL_SEQUENCES (200), or MODEL_SECONDS instead: for how long to run.

#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <iostream>
#include <random>
#include <stdexcept>

#include "tests/reservation/model_check.h"

namespace {

uint64_t Setting(const char* name, uint64_t usual) {
    const char* const text = std::getenv(name);
    if (text == nullptr) return usual;
    const uint64_t value = std::strtoull(text, nullptr, 10);
    if (std::to_string(value) != text) throw std::invalid_argument(std::string(name) + " is no whole number: " + text);
    return value;
}

TEST(Model, IsFollowed) {
    using Clock = std::chrono::steady_clock;
    const uint64_t seed = Setting("MODEL_SEED", 1), seconds = Setting("MODEL_SECONDS", 0);
    const uint64_t num_sequences = Setting("MODEL_SEQUENCES", seconds == 0 ? 200 : ~uint64_t{0});
    const Clock::time_point end =
        seconds == 0 ? Clock::time_point::max() : Clock::now() + std::chrono::seconds(seconds);
    uint64_t number = 0, num_steps = 0;
    for (; number < num_sequences && Clock::now() < end; ++number) {
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
