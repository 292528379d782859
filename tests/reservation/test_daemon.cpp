#include "tests/reservation/test_daemon.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <filesystem>
#include <map>
#include <sstream>
#include <utility>

#include "host/dov_msg.h"
#include "host/hash_bytes.h"
#include "host/log.h"
#include "host/record_text.h"

namespace {

constexpr size_t kMaxJobs = 1024;

// None when there is no such directory.
std::set<std::string> Paths(const std::string& directory) {
    std::set<std::string> paths;
    std::error_code error;
    for (const auto& file : std::filesystem::directory_iterator(directory, error)) paths.insert(file.path());
    return paths;
}

}    // namespace

std::string Hex(uint64_t value, int width) {
    char text[sizeof("0123456789abcdef")];
    std::snprintf(text, sizeof(text), "%0*" PRIx64, width, value);
    return text;
}

Limits TreesLimit(uint32_t num_trees) {
    Limits limits;
    limits.fill(VESK_LIMIT_NOT_GIVEN);
    limits[VESK_LIMIT_NUM_TREES] = num_trees;
    return limits;
}

vesk_reservation_info Description::Info() const {
    const auto num_guids = static_cast<uint32_t>(guids.size());
    uint64_t* const array = guids.empty() ? nullptr : const_cast<uint64_t*>(guids.data());
    vesk_reservation_info info{"", pkey, state, num_guids, array, {}, auto_created};
    vesk_copy_key(info.reservation_key, key.c_str());
    std::copy(limits.begin(), limits.end(), info.limits);
    return info;
}

std::string Description::Text() const { return Describe(Info()); }

std::string Describe(const vesk_reservation_info& info) {
    std::string text = info.reservation_key + (" 0x" + Hex(info.pkey)) + " state " + std::to_string(info.state) + " ";
    std::string guids;
    for (uint32_t i = 0; info.guids != nullptr && i < info.num_guids; ++i)
        guids += (i > 0 ? "," : "") + Hex(info.guids[i]);
    text += info.guids == nullptr ? "null" : "{" + guids + "}";
    text += " limits";
    for (const uint32_t& limit : info.limits) {
        text += &limit == info.limits ? " " : ",";
        text += limit == VESK_LIMIT_NOT_GIVEN ? "-" : std::to_string(limit);
    }
    return text + " auto " + std::to_string(info.auto_created);
}

std::string Pack(const vesk_reservation_info* info, int type) {
    const vesk_dov_msg msg{{}, const_cast<vesk_reservation_info*>(info)};
    char unset = 0;
    char* buffer = &unset;
    uint64_t length = 1;
    const int result = dov_msg_pack(0, type, 0, &msg, &buffer, &length);
    EXPECT_EQ(result != 0, buffer == nullptr);
    const std::string text(buffer != nullptr ? buffer : "", length);
    std::free(buffer);
    return text;
}

std::string Unpack(const std::string& text, int type) {
    vesk_dov_msg unset{};
    vesk_dov_msg* msg = &unset;
    const int result = dov_msg_unpack(0, type, text.c_str(), &msg);
    EXPECT_EQ(result != 0, msg == nullptr);
    if (msg == nullptr) return "bad";
    const auto* info = static_cast<const vesk_reservation_info*>(msg->data);
    EXPECT_EQ(Pack(info), text.c_str());
    const std::string description = info != nullptr ? Describe(*info) : "no record";
    dov_vesk_msg_release(type, msg);
    return description;
}

std::string Sealed(const std::string& text) {
    const std::string body = text.substr(0, text.rfind("checksum "));
    return body + "checksum 0x" + Hex(RecordTextChecksum(body), 16) + "\n";
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

TestDaemon::TestDaemon() : num_open_files_(Paths("/proc/self/fd").size()), jobs_(kMaxJobs) {
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
        See(std::to_string(record.level) + " " + record.function + ": " + record.message);
    });
    Restart();
}

TestDaemon::~TestDaemon() {
    log_set_sink(nullptr);
    EXPECT_EQ(Paths("/proc/self/fd").size(), num_open_files_);
}

uint64_t* TestDaemon::ArrayOf(Guids& guids) const { return guids.empty() || withholds_arrays ? nullptr : guids.data(); }

template <typename Operation>
uint32_t TestDaemon::Request(Operation operation) {
    num_replies_ = 0;
    ++transaction_id_;
    Call([&] { operation(&ep_, transaction_id_); });
    EXPECT_EQ(num_replies_, 1);
    return status_;
}

uint32_t TestDaemon::Create(const std::string& key, Guids guids, const Limits& limits, uint16_t pkey) {
    sent_guids = std::move(guids);
    vesk_create_reservation request{};
    vesk_copy_key(request.reservation_key, key.c_str());
    request.pkey = pkey;
    request.num_guids = static_cast<uint32_t>(sent_guids.size());
    request.guids = ArrayOf(sent_guids);
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
    request.guids_to_add = ArrayOf(sent_guids);
    request.guids_to_remove = ArrayOf(sent_guids_to_remove);
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
    std::string text = "\n" + std::exchange(seen_, "");
    for (size_t at = 0; (at = text.find(options.persistent_dir, at)) != std::string::npos;)
        text.replace(at, options.persistent_dir.size(), "DIR");
    return text;
}

std::string TestDaemon::State() const {
    std::ostringstream state;
    state << Stored();
    for (const auto& [key, reservation] : manager->reservations) {
        state << Describe(reservation->info) << " id " << reservation->reservation_id << " trees "
              << reservation->used_trees << "/" << reservation->max_trees << " jobs";
        for (const auto& [id, job] : reservation->jobs)
            state << " " << job.job_id << " on " << Listed(std::set(job.guids.begin(), job.guids.end()));
        state << "\n";
    }
    for (const auto& [guid, hca] : manager->hca_infos)
        state << Hex(guid) << " of " << hca.reservation->info.reservation_key << " " << hca.num_jobs << "\n";
    const auto& keys = manager->reservation_keys_by_id;
    for (const auto& [id, key] : std::map(keys.begin(), keys.end())) state << id << " is " << key << "\n";
    for (const VeskJob* job : running_)
        state << job->ext_job_id.ToString() << (job->reservation_accounted ? " accounted" : "") << "\n";
    return state.str();
}

std::string TestDaemon::Stored() const {
    std::string stored;
    for (const std::string& path : Paths(options.persistent_dir)) {
        const std::string text = std::filesystem::is_regular_file(path) ? Unpack(Content(path)) : "bad";
        if (text != "bad") stored += path.substr(options.persistent_dir.size() + 1) + ": " + text + "\n";
    }
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
    ++num_replies_;
    status_ = list.status;
    EXPECT_EQ(ep, &ep_);
    EXPECT_EQ(transaction_id, transaction_id_);
    EXPECT_EQ(list.num_reservations == 0, list.reservations == nullptr);
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
    See(std::string(event) + " " + reservation_key + "; files" + FileNames());
}
