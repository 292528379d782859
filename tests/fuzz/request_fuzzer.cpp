// Any sequence of requests, jobs, pkey reports and restarts, on a few keys and GUIDs, with options that change in
// between: every request gets its one reply, and the registry stays whole.

#include <cstdio>
#include <cstdlib>
#include <optional>
#include <string>

#include "host/log.h"
#include "tests/reservation/test_daemon.h"

namespace {

// Takes the input apart, a byte at a time.
class Input {
public:
    Input(const uint8_t* data, size_t size) : data_(data), end_(data + size) {}
    bool IsAtEnd() const { return data_ == end_; }
    uint8_t Byte() { return IsAtEnd() ? 0 : *data_++; }
    bool Flag() { return Byte() % 2 == 1; }
    std::string Key() { return std::string(Byte() % 5, 'k'); }
    Guids SomeGuids() {
        Guids guids(Byte() % 6);
        for (uint64_t& guid : guids) guid = Byte() % 12;
        return guids;
    }

private:
    const uint8_t* data_;
    const uint8_t* end_;
};

class Session {
public:
    explicit Session(Input input) : input_(input) {
        log_set_sink([](const LogRecord&) {});
        log_set_level(5);
    }

    void Run() {
        while (!input_.IsAtEnd()) {
            Step();
            const std::string fault = RegistryFault(*daemon_.manager, false);
            if (fault.empty()) continue;
            std::fprintf(stderr, "%s\n", fault.c_str());
            std::abort();
        }
    }

private:
    void Step() {
        switch (input_.Byte() % 9) {
            case 0:
                return ChangeOptions();
            case 1:
                daemon_.Create(input_.Key(), input_.SomeGuids(), TreesLimit(input_.Byte()), input_.Byte() % 2);
                return;
            case 2:
                daemon_.Delta(input_.Key(), input_.SomeGuids(), input_.SomeGuids());
                return;
            case 3:
                daemon_.Delete(input_.Key());
                return;
            case 4:
                daemon_.Info(input_.Key(), input_.Flag());
                return;
            case 5:
                return BeginJob();
            case 6:
                return EndJob();
            case 7:
                return ReportPkeys();
            default:
                daemon_.manager->HandleAlreadyRunningJobsForAllReservations();
        }
    }

    void ChangeOptions() {
        daemon_.options.reservation_mode = input_.Flag();
        daemon_.options.reservation_auto_by_pkeys = input_.Flag();
        daemon_.options.reservation_allow_guid_override = input_.Flag();
        daemon_.options.reservation_allow_ending_jobs = input_.Flag();
        daemon_.options.max_jobs_per_hca = input_.Byte() % 3;
    }

    void BeginJob() {
        if (num_jobs_ == kMaxJobs) return;
        const uint8_t planes = input_.Byte() % 3;
        const uint8_t trees = input_.Byte() % 3;
        VeskJob& job = daemon_.Run(++num_jobs_, input_.Key(), input_.SomeGuids(), planes, trees);
        ReservationInfo* const info = daemon_.manager->GetReservationByJob(&job);
        if (info == nullptr) return;
        JobResource resource{input_.Byte()};
        daemon_.manager->ValidateReservationResources(info, resource, &job);
        daemon_.manager->AddJob(info, &job);
    }

    void EndJob() {
        if (daemon_.RunningJobs().empty()) return;
        const VeskJob& job = **daemon_.RunningJobs().begin();
        ReservationInfo* const info = daemon_.manager->GetReservationInfoByKey(job.ext_job_id.reservation_key);
        if (info != nullptr && job.reservation_accounted) daemon_.manager->RemoveJob(info, &job);
        daemon_.Forget(job);
    }

    void ReportPkeys() {
        std::set<uint16_t> pkeys;
        for (const uint64_t pkey : input_.SomeGuids()) pkeys.insert(static_cast<uint16_t>(pkey));
        daemon_.manager->UpdateReservationWithGuidPkeys({1 + input_.Byte() % 11U, 1}, pkeys);
    }

    static constexpr uint64_t kMaxJobs = 30;

    Input input_;
    TestDaemon daemon_;
    uint64_t num_jobs_ = 0;
};

}    // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Session(Input(data, size)).Run();
    return 0;
}
