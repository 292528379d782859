#include "daemon/state/job_table.h"

#include <utility>
#include <vector>

namespace reservationd {
namespace {

constexpr uint32_t kMaxCount = 255;    // of planes, and of trees in a plane

}    // namespace

Job::Job(v1::Job job_description) : description(std::move(job_description)) {
    vesk_job.ext_job_id = {description.job_id(), description.reservation_id(), description.reservation_key()};
    vesk_job.plane_trees.resize(description.planes());
    std::vector<VeskTree>& trees = vesk_job.plane_trees.front();
    trees.resize(description.trees());
    // All trees span the same HCAs, so that the first one speaks for the others, which are only counted.
    for (const uint64_t guid : description.guids()) {
        const PortData* const port = vesk_job.AddPort(guid, 1);
        if (!trees.empty()) trees.front().ports.insert(trees.front().ports.end(), port);
    }
}

std::unique_ptr<Job> UnpackJob(const std::string& packed) {
    v1::Job description;
    const bool is_good = description.ParseFromString(packed) && description.planes() >= 1 &&
                         description.planes() <= kMaxCount && description.trees() <= kMaxCount;
    return is_good ? std::make_unique<Job>(std::move(description)) : nullptr;
}

void JobTable::Insert(std::unique_ptr<Job> job) {
    const v1::Job& description = job->description;
    jobs_by_key_[description.reservation_key()].emplace(description.job_id(), job.get());
    jobs_.emplace(description.job_id(), std::move(job));
}

std::unique_ptr<Job> JobTable::Extract(uint64_t job_id) {
    const auto node = jobs_.extract(job_id);
    if (node.empty()) return nullptr;
    const auto jobs = jobs_by_key_.find(node.mapped()->description.reservation_key());
    jobs->second.erase(job_id);
    if (jobs->second.empty()) jobs_by_key_.erase(jobs);
    return std::move(node.mapped());
}

Job* JobTable::Find(uint64_t job_id) const {
    const auto found = jobs_.find(job_id);
    return found != jobs_.end() ? found->second.get() : nullptr;
}

const std::map<uint64_t, Job*>& JobTable::OfReservation(std::string_view key) const {
    static const std::map<uint64_t, Job*> kNone;
    const auto found = jobs_by_key_.find(key);
    return found != jobs_by_key_.end() ? found->second : kNone;
}

}    // namespace reservationd
