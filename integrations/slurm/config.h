// The configuration file.

#pragma once

#include <absl/status/statusor.h>
#include <absl/time/time.h>

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "client/connection.h"
#include "integrations/slurm/job.h"

namespace reservation_slurm {

// Which reservation a job goes into.
enum class Mode {
    kNone,    // none: the daemon hears nothing of the job
    kExisting,    // the one that has the job's nodes
    kAccount,    // that of its account, user or the job itself, which is made, grows and shrinks with the jobs
    kUser,
    kJob,
};

// What becomes of a job that is not admitted.
enum class Reaction {
    kHold,    // it waits until somebody releases it
    kRequeue,    // it is tried again
    kRun,    // it runs without trees
};

// How one job is treated.
struct JobPolicy {
    Mode mode = Mode::kExisting;
    std::string reservation;    // of mode kExisting: the one it has to be; empty: any
    uint32_t trees = 1;    // per plane; 0: as mode kNone
    uint32_t planes = 1;
    std::optional<uint32_t> pkey;    // of the reservations that are made; necessary for that
    std::optional<uint32_t> num_trees;    // their limit; nothing: the daemon's default
    Reaction on_refusal = Reaction::kHold;
    Reaction on_no_answer = Reaction::kRequeue;    // the daemon cannot be asked
};

// Applies what the job's comment wishes. InvalidArgument as ParseComment().
absl::Status ApplyWishes(const SlurmJob& job, JobPolicy& policy);

class Config {
public:
    // Reads the file. InvalidArgument, with a line for each fault, which begins with the file's name and the line's
    // number; or what the system says when the file cannot be read.
    static absl::StatusOr<Config> Read(const std::string& path);

    // What the file says of the job; its comment is not looked at.
    JobPolicy PolicyFor(const SlurmJob& job) const;

    // The key of the reservation that is made for such jobs; empty when the policy makes none.
    std::string KeyFor(const SlurmJob& job, const JobPolicy& policy) const;

    // Whether a reservation with this key is one that is made for jobs, if any are.
    bool IsOwnKey(const std::string& key) const;

    client::ConnectionOptions connection;
    absl::Duration timeout = absl::Seconds(20);    // a hook takes at most so long
    std::string slurm_bin = "/usr/bin";    // where scontrol, squeue and scancel are
    std::string slurm_conf;    // empty: where Slurm's programs look by themselves
    std::string key_prefix = "slurm-";
    absl::Duration reconcile_every = absl::Minutes(3);
    std::string state_file = "/var/lib/reservation-slurm/position";

private:
    class Reader;
    using SetPolicy = std::function<void(JobPolicy&)>;
    using Section = std::pair<std::string, std::string>;    // kind and name; both empty: all jobs

    std::map<Section, std::vector<SetPolicy>> policies_;
    bool makes_reservations_ = false;    // for some jobs
};

}    // namespace reservation_slurm
