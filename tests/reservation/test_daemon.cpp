#include "tests/reservation/test_daemon.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <filesystem>

#include "host/dov_msg.h"
#include "host/hash_bytes.h"
#include "host/log.h"

namespace {

constexpr size_t kMaxJobs = 1024;

std::string Hex(uint64_t value) {
    char text[sizeof("0123456789abcdef")];
    std::snprintf(text, sizeof(text), "%" PRIx64, value);
    return text;
}

void ReplaceAll(std::string& text, const std::string& from, const std::string& to) {
    for (size_t at = 0; (at = text.find(from, at)) != std::string::npos; at += to.size())
        text.replace(at, from.size(), to);
}

// None when there is no such directory.
std::set<std::string> Paths(const std::string& directory) {
    std::set<std::string> paths;
    std::error_code error;
    for (const auto& file : std::filesystem::directory_iterator(directory, error)) paths.insert(file.path());
    return paths;
}

uint64_t* DataOrNull(Guids& guids) { return guids.empty() ? nullptr : guids.data(); }

}    // namespace

Limits TreesLimit(uint32_t num_trees) {
    Limits limits;
    limits.fill(VESK_LIMIT_NOT_GIVEN);
    limits[VESK_LIMIT_NUM_TREES] = num_trees;
    return limits;
}

std::string Describe(const vesk_reservation_info& info) {
    std::string text = info.reservation_key + (" 0x" + Hex(info.pkey)) + " state " + std::to_string(info.state) + " ";
    std::string guids;
    for (uint32_t i = 0; i < info.num_guids; ++i) guids += (i > 0 ? "," : "") + Hex(info.guids[i]);
    text += info.guids == nullptr && info.num_guids == 0 ? "null" : "{" + guids + "}";
    text += " limits";
    for (const uint32_t& limit : info.limits) {
        text += &limit == info.limits ? " " : ",";
        text += limit == VESK_LIMIT_NOT_GIVEN ? "-" : std::to_string(limit);
    }
    return text + " auto " + std::to_string(info.auto_created);
}

std::string RegistryFault(const ReservationManager& manager, bool all_owned) {
    for (const auto& [key, reservation] : manager.reservations) {
        const vesk_reservation_info& info = reservation->info;
        const auto id = manager.reservation_keys_by_id.find(reservation->reservation_id);
        if (key != info.reservation_key) return key + " is not under its key";
        if (id == manager.reservation_keys_by_id.end() || id->second != key) return key + " has no id of its own";
        for (uint32_t i = 0; i < info.num_guids; ++i) {
            if (info.guids[i] <= (i == 0 ? 0 : info.guids[i - 1])) return key + "'s GUIDs do not ascend";
            const auto hca = manager.hca_infos.find(info.guids[i]);
            const bool owned = hca != manager.hca_infos.end() && hca->second.reservation == reservation;
            if (all_owned && !owned) return key + " does not own GUID " + Hex(info.guids[i]);
        }
    }
    if (manager.reservation_keys_by_id.size() != manager.reservations.size()) return "an id is left over";
    for (const auto& [guid, hca] : manager.hca_infos) {
        const auto is_owner = [&, owner = hca.reservation](const auto& entry) { return entry.second == owner; };
        if (std::none_of(manager.reservations.begin(), manager.reservations.end(), is_owner))
            return Hex(guid) + " dangles";
        const vesk_reservation_info& info = hca.reservation->info;
        if (std::find(info.guids, info.guids + info.num_guids, guid) == info.guids + info.num_guids) {
            return Hex(guid) + " is owned by " + info.reservation_key + ", which does not list it";
        }
    }
    return "";
}

TestDaemon::TestDaemon() : jobs_(kMaxJobs) {
    options.persistent_dir = directory_.path();
    options.reservation_mode = true;
    g_option_info = &options;
    g_fabric = &fabric;
    g_event_manager = this;
    log_set_level(3);
    log_set_sink([this](const LogRecord& record) {
        EXPECT_STREQ(record.module, "RESERVE");
        EXPECT_STREQ(record.file, "reservation_manager");
        EXPECT_GT(record.line, 0);
        if (!muted_) See(std::to_string(record.level) + " " + record.function + ": " + record.message);
    });
    Restart();
}

TestDaemon::~TestDaemon() { log_set_sink(nullptr); }

template <typename Operation>
uint32_t TestDaemon::Request(Operation operation) {
    num_replies_ = 0;
    ++transaction_id_;
    operation(&ep_, transaction_id_);
    EXPECT_EQ(num_replies_, 1);
    return status_;
}

uint32_t TestDaemon::Create(const std::string& key, Guids guids, const Limits& limits, uint16_t pkey) {
    sent_guids = std::move(guids);
    vesk_create_reservation request{};
    vesk_copy_key(request.reservation_key, key.c_str());
    request.pkey = pkey;
    request.num_guids = static_cast<uint32_t>(sent_guids.size());
    request.guids = DataOrNull(sent_guids);
    std::copy(limits.begin(), limits.end(), request.limits);
    return Request([&](auto... to) { manager->CreateReservation(request, to...); });
}

uint32_t TestDaemon::Delta(const std::string& key, Guids to_add, Guids to_remove) {
    sent_guids = std::move(to_add);
    sent_guids_to_remove = std::move(to_remove);
    vesk_update_reservation_by_delta request{};
    vesk_copy_key(request.reservation_key, key.c_str());
    request.num_guids_to_add = static_cast<uint32_t>(sent_guids.size());
    request.num_guids_to_remove = static_cast<uint32_t>(sent_guids_to_remove.size());
    request.guids_to_add = DataOrNull(sent_guids);
    request.guids_to_remove = DataOrNull(sent_guids_to_remove);
    return Request([&](auto... to) { manager->UpdateReservationByDelta(request, to...); });
}

uint32_t TestDaemon::Delete(const std::string& key) {
    vesk_delete_reservation request{};
    vesk_copy_key(request.reservation_key, key.c_str());
    return Request([&](auto... to) { manager->DeleteReservation(request, to...); });
}

uint32_t TestDaemon::Info(const std::string& key, bool with_details) {
    vesk_reservation_info_request request{};
    vesk_copy_key(request.reservation_key, key.c_str());
    request.with_details = with_details ? 1 : 0;
    return Request([&](auto... to) { manager->ReservationInfoRequest(request, to...); });
}

VeskJob& TestDaemon::Run(uint64_t job_id, const std::string& key, const Guids& guids, size_t planes, size_t trees) {
    VeskJob& job = jobs_.at(num_jobs_++);
    const ReservationInfo* reservation = manager->GetReservationInfoByKey(key);
    job.ext_job_id = {job_id, reservation != nullptr ? reservation->reservation_id : HashBytes(key), key};
    VeskTree tree;
    for (const uint64_t guid : guids) tree.ports.insert(job.AddPort(guid, 1));
    job.plane_trees.assign(planes, std::vector<VeskTree>(trees, tree));
    running_.insert(&job);
    return job;
}

VeskJob& TestDaemon::Admit(uint64_t job_id, const std::string& key, const Guids& guids, size_t planes, size_t trees) {
    VeskJob& job = Run(job_id, key, guids, planes, trees);
    manager->AddJob(manager->GetReservationInfoByKey(key), &job);
    return job;
}

void TestDaemon::Forget(const VeskJob& job) { running_.erase(const_cast<VeskJob*>(&job)); }

void TestDaemon::Restart() { manager = std::make_unique<ReservationManager>(this); }

std::string TestDaemon::Take() {
    std::string text = "\n" + std::move(seen_);
    seen_.clear();
    ReplaceAll(text, options.persistent_dir, "DIR");
    for (const std::string& key : keys_) ReplaceAll(text, std::to_string(HashBytes(key)), "#" + key);
    return text;
}

std::string TestDaemon::State() const {
    std::string state = Stored();
    for (const auto& [key, reservation] : manager->reservations) {
        state += Describe(reservation->info) + " id " + std::to_string(reservation->reservation_id) + " trees " +
                 std::to_string(reservation->used_trees) + "/" + std::to_string(reservation->max_trees) + " jobs";
        for (const auto& [job_id, job] : reservation->jobs) state += " " + std::to_string(job_id);
        state += "\n";
    }
    for (const auto& [guid, hca] : manager->hca_infos) {
        state += Hex(guid) + " of " + hca.reservation->info.reservation_key + " " + std::to_string(hca.num_jobs) + "\n";
    }
    return state;
}

std::string TestDaemon::Stored() const {
    std::string stored;
    muted_ = true;
    for (const std::string& path : Paths(options.persistent_dir)) {
        vesk_dov_msg* msg = nullptr;
        if (manager->BuildDataFromReservationFile(path.c_str(), msg) != 0) continue;
        stored += path + ": " + Describe(*static_cast<vesk_reservation_info*>(msg->data)) + "\n";
        dov_vesk_msg_release(VESK_MSG_TYPE_RESERVATION_INFO, msg);
    }
    muted_ = false;
    return stored;
}

std::string TestDaemon::FileNames() const {
    const std::string prefix = PathOf("");
    std::string text;
    for (const std::string& path : Paths(options.persistent_dir)) {
        text += " " + path.substr(path.starts_with(prefix) ? prefix.size() : options.persistent_dir.size() + 1);
    }
    return text;
}

void TestDaemon::SendReservationInfoList(const dov_ep* ep, vesk_reservation_info_list& list,
                                         uint64_t transaction_id) const {
    EXPECT_EQ(ep, &ep_);
    EXPECT_EQ(transaction_id, transaction_id_);
    EXPECT_EQ(list.num_reservations == 0, list.reservations == nullptr);
    ++num_replies_;
    status_ = list.status;
    std::string line = "reply " + std::to_string(list.status) + ":";
    for (uint64_t i = 0; i < list.num_reservations; ++i) line += (i > 0 ? "; " : " ") + Describe(list.reservations[i]);
    See(line);
}

void TestDaemon::HandleJobError(VeskJob* job, vesk_error_value value, vesk_error_type type, bool first, bool second) {
    See("error " + job->ext_job_id.ToString() + " " + std::to_string(value) + " " + std::to_string(type) + " " +
        std::to_string(first) + " " + std::to_string(second));
}

void TestDaemon::SendEndJob(dov_ep* ep, const VeskJob* job) {
    EXPECT_EQ(ep, nullptr);
    See("end " + job->ext_job_id.ToString() + (job->reservation_accounted ? " accounted" : ""));
    Forget(*job);
}

VeskJob* TestDaemon::FindJob(uint64_t job_id, uint64_t reservation_id, const char* reservation_key) {
    const auto is_wanted = [&](const VeskJob* job) {
        const VeskExtJobId& id = job->ext_job_id;
        return id.job_id == job_id && id.reservation_id == reservation_id && id.reservation_key == reservation_key;
    };
    const auto found = std::find_if(running_.begin(), running_.end(), is_wanted);
    return found != running_.end() ? *found : nullptr;
}

void TestDaemon::GetJobsByReservationKey(std::set<VeskJob*>& jobs, const char* reservation_key) const {
    EXPECT_TRUE(jobs.empty());
    for (VeskJob* job : running_) {
        if (job->ext_job_id.reservation_key == reservation_key) jobs.insert(job);
    }
}

void TestDaemon::SeeEvent(const char* event, const char* reservation_key) {
    const ReservationInfo* reservation = manager->GetReservationInfoByKey(reservation_key);
    const bool is_expected = expects_indexed_hcas && reservation != nullptr;
    for (uint32_t i = 0; is_expected && i < reservation->info.num_guids; ++i) {
        EXPECT_TRUE(manager->hca_infos.contains(reservation->info.guids[i])) << reservation_key;
    }
    keys_.insert(reservation_key);
    See(std::string(event) + " " + reservation_key + "; files" + FileNames());
}
