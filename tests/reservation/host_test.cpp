// The host layer by itself: what it is without a daemon, its hash and its logger.

#include <gtest/gtest.h>

#include <functional>
#include <stdexcept>
#include <string>

#include "host/event_manager.h"
#include "host/fabric.h"
#include "host/hash_bytes.h"
#include "host/log.h"
#include "host/option_info.h"
#include "messages/vesk_messages.h"

namespace {

TEST(Host, IsThereWithoutADaemon) {
    g_event_manager->AddReservationCreatedEvent("K");
    g_event_manager->AddReservationUpdatedEvent("K");
    g_event_manager->AddReservationRemovedEvent("K");
    EXPECT_EQ(g_fabric->failed_reservation_requests, 0U);
    const auto& [dir, max_jobs, mode, load, override, ending_jobs, by_pkeys, num_trees] = *g_option_info;
    EXPECT_EQ(dir, "/var/lib/reservation_manager");
    EXPECT_EQ(max_jobs, 0);
    EXPECT_TRUE(load && !mode && !override && !ending_jobs && !by_pkeys);
    EXPECT_EQ(num_trees, VESK_LIMIT_NOT_GIVEN);
}

TEST(Hash, IsTheStandardLibrarysOfStrings) {
    EXPECT_EQ(HashBytes(""), 0x553e93901e462a6eU);
    for (std::string bytes; bytes.size() < 40; bytes.push_back(static_cast<char>(0xf1 * bytes.size() + 0x80)))
        EXPECT_EQ(HashBytes(bytes), std::hash<std::string>()(bytes)) << bytes.size();
}

TEST(Log, GoesToStandardErrorUnlessASinkTakesIt) {
    std::string seen;
    const std::function<void(const LogRecord&)> sinks[] = {
        nullptr,
        [](const LogRecord&) { throw std::runtime_error("full"); },
        [&](const LogRecord& record) { seen = record.module + record.message; },
    };
    testing::internal::CaptureStderr();
    for (const auto& sink : sinks) {
        log_set_sink(sink);
        log_send("RESERVE", 3, "file", 7, "Operation", "%d of %s\n", 2, "3");
    }
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "RESERVE 3 Operation: 2 of 3\nRESERVE 3 Operation: %d of %s\n");
    EXPECT_EQ(seen, "RESERVE2 of 3\n");
}

TEST(Log, HasLevelsFromOneToFive) {
    std::string wanted;
    for (const int level : {3, 0, 4, 9}) {
        if (level != 3) log_set_level(level);    // as at the start
        for (int each = 1; each < 10; ++each)
            wanted += log_check_level("RESERVE", each) != 0 ? std::to_string(each) : "";
        wanted += " ";
    }
    EXPECT_EQ(wanted, "123 1 1234 12345 ");
}

}    // namespace
