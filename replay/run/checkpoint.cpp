#include "replay/run/checkpoint.h"

#include <absl/strings/str_cat.h>

#include <nlohmann/json.hpp>
#include <stdexcept>

#include "host/hash_bytes.h"
#include "replay/input_error.h"
#include "replay/settings_json.h"
#include "util/file.h"
#include "util/text.h"

namespace replay {

using nlohmann::json;

// The library finds these by the members' names.
NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE(Figures, jobs_in_trace, too_wide, without_run_time, without_procs, replayed, refused,
                                   waited, total_wait, longest_wait, operations, most_hcas, most_reservations,
                                   most_jobs, most_trees, seconds)
NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE(ManagerCounters, reservations_created, reservations_updated, reservations_removed,
                                   log_records, failed_requests)
NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE(Tenant, pkey, num_hcas)
NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE(RunningJob, id, tenant, hcas, reservation_id)
NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE(Usage, time, hcas, reservations, trees)
NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE(ReplayState, now, next_arrival, waiting, running, tenants, figures, usage)
NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE(Checkpoint, settings, trace_size, trace_hash, counters, state)

std::string CheckpointPath(const std::string& dir) { return dir + "/replay_checkpoint.json"; }

void WriteCheckpoint(const std::string& dir, const Checkpoint& checkpoint) {
    const json content = checkpoint;
    const json sealed = {{"checkpoint", content}, {"checksum", HashBytes(content.dump())}};
    const absl::Status status = util::ReplaceWholeFile(CheckpointPath(dir), sealed.dump() + "\n");
    if (!status.ok()) throw std::runtime_error(std::string(status.message()));
}

Checkpoint ReadCheckpoint(const std::string& dir) {
    const std::string path = CheckpointPath(dir);
    const std::string text = ValueOrInputError(util::ReadWholeFile(path));
    try {
        const json sealed = json::parse(text);
        const json& content = sealed.at("checkpoint");
        if (sealed.at("checksum") != HashBytes(content.dump())) throw InputError(path + ": is damaged: wrong checksum");
        return content.get<Checkpoint>();
    } catch (const json::exception& error) {
        throw InputError(absl::StrCat(path, ": is damaged: ", util::Printable(error.what())));
    }
}

}    // namespace replay
