#include "replay/run/checkpoint.h"

#include "host/hash_bytes.h"
#include "replay/file.h"

using nlohmann::json;

// The library finds these by their names.
NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE(Settings, hcas, procs_per_hca, per, auto_by_pkeys, planes, trees, num_trees,
                                   max_jobs_per_hca, default_num_trees, log_level)
NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE(Figures, jobs_in_trace, too_wide, without_run_time, without_procs, replayed, refused,
                                   waited, total_wait, longest_wait, operations, most_hcas, most_reservations,
                                   most_jobs, most_trees, seconds)
NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE(Recorded, created_events, updated_events, removed_events, records, failed_requests)
NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE(Owner, pkey, num_hcas)
NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE(RunningJob, id, owner, hcas, reservation_id)
NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE(Usage, time, hcas, reservations, trees)
NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE(ReplayState, now, next_arrival, waiting, running, owners, figures, usage)
NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE(Checkpoint, settings, trace_size, trace_hash, recorded, state)

std::string CheckpointPath(const std::string& dir) { return dir + "/replay_checkpoint.json"; }

void WriteCheckpoint(const std::string& dir, const Checkpoint& checkpoint) {
    const json content = checkpoint;
    const json sealed = {{"checkpoint", content}, {"checksum", HashBytes(content.dump())}};
    ReplaceFile(CheckpointPath(dir), sealed.dump() + "\n");
}

Checkpoint ReadCheckpoint(const std::string& dir) {
    const std::string path = CheckpointPath(dir);
    const std::string text = ReadFile(path);
    try {
        const json sealed = json::parse(text);
        const json& content = sealed.at("checkpoint");
        if (sealed.at("checksum") != HashBytes(content.dump())) throw InputError(path + ": is damaged: wrong checksum");
        return content.get<Checkpoint>();
    } catch (const json::exception& error) {
        throw InputError(path + ": is damaged: " + Printable(error.what()));
    }
}

json ToJson(const Settings& settings) { return settings; }

json ToJson(const Figures& figures) { return figures; }

json ToJson(const Recorded& recorded) { return recorded; }
