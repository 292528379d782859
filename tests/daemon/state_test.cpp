// The state that the daemon's engine runs calls on: transactions and pages.

#include <google/protobuf/text_format.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "daemon/state/reservation_state.h"
#include "daemon/state/scratch_copy.h"
#include "daemon/state/transaction.h"
#include "host/log.h"

namespace reservationd {
namespace {

template <typename Message>
Message Parse(const std::string& text) {
    Message message;
    EXPECT_TRUE(google::protobuf::TextFormat::ParseFromString(text, &message)) << text;
    return message;
}

class StateTest : public testing::Test {
protected:
    static OptionInfo Options() {
        OptionInfo options;
        options.reservation_mode = true;
        options.reservation_allow_guid_override = true;
        options.reservation_allow_ending_jobs = true;
        options.persistent_dir = "/dev/null";    // nothing can be written in there
        return options;
    }

    // The outcome: a line for each reply, or the error.
    std::string Run(const std::string& fields) {
        log_set_level(1);    // the reasons are there all the same
        v1::TransactReply reply;
        const auto version = Parse<v1::StateVersion>("epoch: 'e' sequence: 9");
        const auto request = Parse<v1::TransactRequest>(fields);
        ScratchCopy copy(NamedBy(request));
        const bool is_tried = request.dry_run() && copy.Advance(state);
        const absl::Status status = is_tried ? TryTransaction(*copy.MakeState(), version, request, &reply)
                                             : Transact(state, version, request, &reply);
        if (!status.ok()) return status.ToString();
        std::string text = reply.accepted() ? "accepted\n" : "refused\n";
        for (const v1::OperationReply& operation : reply.replies()) text += operation.ShortDebugString() + "\n";
        return text;
    }

    std::string All() {
        v1::ReservationReply reservations;
        state.GetReservations(Parse<v1::GetReservationsRequest>("with_details: true"), &reservations);
        v1::ListJobsReply jobs;
        state.ListJobs({}, &jobs);
        return reservations.DebugString() + jobs.DebugString();
    }

    // The keys and the job ids of each page.
    std::vector<std::string> Pages(uint32_t page_size) {
        std::vector<std::string> pages;
        v1::GetReservationsRequest request;
        request.set_with_details(true);
        request.set_page_size(page_size);
        do {
            v1::ReservationReply reply;
            state.GetReservations(request, &reply);
            for (std::string& page = pages.emplace_back(); const v1::Reservation& entry : reply.reservations()) {
                page += entry.key();
            }
            request.set_page_token(reply.next_page_token());
        } while (!request.page_token().empty());
        v1::ListJobsRequest jobs_request;
        jobs_request.set_page_size(page_size);
        do {
            v1::ListJobsReply reply;
            state.ListJobs(jobs_request, &reply);
            for (std::string& page = pages.emplace_back(); const v1::Job& job : reply.jobs()) {
                page += std::to_string(job.job_id());
            }
            jobs_request.set_page_token(reply.next_page_token());
        } while (!jobs_request.page_token().empty());
        return pages;
    }

    ReservationState state{Options(), nullptr};
};

TEST_F(StateTest, ATransactionIsCarriedOutAsForetoldOrNotAtAll) {
    Run("operations { create_reservation { key: 'A' guids: [1, 2] } } operations { begin_job { job_id: 1 guids: 1 "
        "trees: 1 } } operations { create_reservation { key: 'B' guids: [3, 4] } } operations { begin_job { job_id: 7 "
        "guids: 3 trees: 2 } }");
    state.TakeChanges();
    const std::string before = All();
    const std::string operations =
        "operations { end_job { job_id: 1 } } operations { update_reservation { key: 'A' add_guids: 4 remove_guids: 1 "
        "} } operations { create_reservation { key: 'C' guids: [1, 5] } } operations { begin_job { job_id: 1 guids: "
        "[1, 5] trees: 1 } } ";
    const std::string foretold = Run(operations + "dry_run: true");
    EXPECT_NE(foretold.find("consequences { deleted_reservation_keys: \"B\" ended_job_ids: 7 }"), std::string::npos);

    const std::string refused = Run(operations + "operations { delete_reservation { key: 'B' } }");
    EXPECT_EQ(refused.substr(0, refused.find("\nreservation { status: STATUS_NOT_FOUND")),
              "refused" + foretold.substr(foretold.find('\n'), foretold.rfind('\n') - foretold.find('\n')));
    EXPECT_NE(refused.find("reason: \""), std::string::npos);
    EXPECT_EQ(Run("operations { begin_job { job_id: 7 guids: 1 trees: 1 } }"),
              "refused\nbegin_job { result: RESULT_ALREADY_RUNNING reason: \"Job 7 is running with other HCAs, planes "
              "or trees\" }\n");
    EXPECT_EQ(Run(operations + "expected_version { epoch: 'e' sequence: 8 }"),
              "ABORTED: expected_version is 8, but meanwhile the newest event is 9");
    EXPECT_EQ(Run(operations + "expected_version { epoch: 'd' sequence: 9 }"),
              "ABORTED: expected_version is 9, but meanwhile the newest event is 9 of another epoch");
    EXPECT_EQ(Run(operations + "allowed_consequences { ended_job_ids: 7 }"),
              "ABORTED: reservation 'B' would be deleted, which allowed_consequences do not say");
    EXPECT_EQ(Run(operations + "allowed_consequences { deleted_reservation_keys: 'B' }"),
              "ABORTED: job 7 would be ended, which allowed_consequences do not say");
    EXPECT_EQ(All(), before);
    EXPECT_EQ(state.num_new_events(), 0u);

    EXPECT_EQ(Run(operations + "expected_version { epoch: 'e' sequence: 9 } allowed_consequences { "
                               "deleted_reservation_keys: 'B' ended_job_ids: 7 }"),
              foretold);
    EXPECT_EQ(Pages(0), (std::vector<std::string>{"AC", "1"}));

    v1::ReservationReply summary;
    state.GetReservations(Parse<v1::GetReservationsRequest>("key: 'C'"), &summary);
    EXPECT_EQ(summary.reservations(0).guids_size(), 0);
    EXPECT_NE(Run("operations { delete_reservation { key: 'A' } }").find("guids: 2 guids: 4"), std::string::npos);
}

// Schedulers use ids again. The time tells the job that runs from what is heard late of an earlier one.
TEST_F(StateTest, OfTheJobsWithOneIdTheLatestRuns) {
    Run("operations { create_reservation { key: 'A' guids: [1, 2] } } operations { create_reservation { key: 'B' "
        "guids: "
        "3 } }");
    std::string outcome;
    for (const std::string fields :
         {"guids: 1 trees: 9", "guids: 2 trees: 1 start_unix_millis: 5", "guids: 2 trees: 1 start_unix_millis: 4",
          "guids: 2 trees: 1 start_unix_millis: 5 reservation_key: 'B'", "end 4",
          "guids: 3 trees: 1 start_unix_millis: 6 reservation_key: 'A'", "guids: 2 trees: 1 reservation_key: 'A'",
          "guids: 3 trees: 1 start_unix_millis: 9", "end 8", "guids: 3 trees: 1", "end 99"}) {
        v1::BeginJobReply begun;
        v1::EndJobReply ended;
        if (fields.starts_with("end ")) {
            state.EndJob(Parse<v1::EndJobRequest>("job_id: 7 start_unix_millis: " + fields.substr(4)), &ended);
        } else {
            state.BeginJob(Parse<v1::BeginJobRequest>("job_id: 7 " + fields), &begun);
            begun.clear_reservation_id();
        }
        outcome += begun.ShortDebugString() + ended.ShortDebugString();
        for (const auto& [id, job] : state.TakeChanges().jobs) outcome += job ? " put" : " gone";
        outcome += "; ";
    }
    EXPECT_EQ(outcome,
              "reservation_key: \"A\" put; reservation_key: \"A\" put; result: RESULT_ALREADY_RUNNING reason: \"Job 7 "
              "is running, and began later\"; result: RESULT_ALREADY_RUNNING reason: \"Job 7 is running in another "
              "reservation\"; ; result: RESULT_NO_RESERVATION reason: \"The job\\'s HCAs are in reservation B, not in "
              "A\" gone; reservation_key: \"A\" put; reservation_key: \"B\" put; ; reservation_key: \"B\"; "
              "was_running: true reservation_key: \"B\" gone; ");
}

TEST_F(StateTest, APageHoldsAsManyEntriesAsAClientTakes) {
    std::string large = "operations { create_reservation { key: 'C' ";
    for (uint64_t guid = 1000; guid < 131'000; ++guid) large += "guids: " + std::to_string(guid) + " ";
    Run(large + "} }");
    for (const std::string key : {"A", "B", "D", "E"}) {
        const std::string guid = std::to_string(static_cast<int>(key.front()));
        Run("operations { create_reservation { key: '" + key + "' guids: " + guid + " } } operations { begin_job { " +
            "job_id: " + guid + " guids: " + guid + " trees: 1 } }");
    }
    EXPECT_EQ(Pages(0), (std::vector<std::string>{"ABCDE", "65666869"}));
    EXPECT_EQ(Pages(2), (std::vector<std::string>{"AB", "CD", "E", "6566", "6869"}));
    std::string larger = "operations { update_reservation { key: 'C' ";
    for (uint64_t guid = 131'000; guid < 140'000; ++guid) larger += "add_guids: " + std::to_string(guid) + " ";
    Run(larger + "} }");
    EXPECT_EQ(Pages(0), (std::vector<std::string>{"AB", "C", "DE", "65666869"}));
}

TEST_F(StateTest, ANewDefaultLimitReachesAllReservationsBitByBit) {
    for (uint64_t guid = 1; guid <= 4'001; ++guid) {
        v1::CreateReservationRequest request;
        v1::ReservationReply reply;
        request.set_key(std::to_string(10'000 + guid));
        request.add_guids(guid);
        state.CreateReservation(request, &reply);
    }
    OptionInfo options = Options();
    options.reservation_default_num_trees = 3;
    state.SetOptions(options);
    EXPECT_TRUE(state.SetTreesLimits());
    EXPECT_NE(Run("operations { delete_reservation { key: '14000' } }").find("max_trees: 3"), std::string::npos);
    EXPECT_NE(Run("operations { delete_reservation { key: '14001' } } dry_run: true").find("max_trees: 3"),
              std::string::npos);
    EXPECT_FALSE(state.SetTreesLimits());
    EXPECT_NE(Run("operations { delete_reservation { key: '14001' } }").find("max_trees: 3"), std::string::npos);
}

}    // namespace
}    // namespace reservationd
