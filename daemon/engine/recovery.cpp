#include "daemon/engine/recovery.h"

#include <absl/strings/str_cat.h>
#include <absl/strings/str_format.h>

#include <algorithm>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <unordered_map>
#include <unordered_set>
#include <utility>

#include "daemon/state/packed_record.h"
#include "util/limits.h"

namespace reservationd {
namespace {

// A good file that the daemon did not write.
struct Candidate {
    std::string name;
    std::string key;
    std::string packed;
    std::unique_ptr<ReservationInfo> info;
};

std::span<const uint64_t> GuidsOf(const ReservationInfo& info) { return {info.info.guids, info.info.num_guids}; }

// Why no reservation can be made of the record, as the end of a sentence, or "".
std::string FaultOfRecord(const ReservationInfo& info) {
    const std::string_view key = info.info.reservation_key;
    if (key.empty()) return "holds an empty key";
    const absl::Status status = util::ValidateKey(key);
    if (!status.ok()) return absl::StrCat("holds a key that ", status.message());
    const std::span<const uint64_t> guids = GuidsOf(info);
    const bool is_ascending = std::adjacent_find(guids.begin(), guids.end(), std::greater_equal<>()) == guids.end();
    if (!is_ascending) return "holds GUIDs that are repeated or not ascending";
    if (!guids.empty() && guids.front() == 0) return "holds GUID 0";
    return "";
}

class Planner {
public:
    explicit Planner(const RecoveryInput& input) : input_(input) {}

    RecoveryPlan Plan() {
        for (const FoundFile& file : input_.files) names_.insert(file.name);
        for (const FoundFile& file : input_.files) JudgeFile(file);
        while (RejectOneCandidate()) {
        }
        for (Candidate& candidate : candidates_) Take(candidate);
        for (const auto& [key, reservation] : input_.stored) {
            if (!right_keys_.contains(key)) plan_.keys_to_write.insert(key);
        }
        for (const auto& [key, entry] : input_.journal) {
            if (!names_.contains(FileNameOf(key)) && !input_.stored.contains(key)) plan_.keys_to_remove.insert(key);
        }
        for (const std::string& key : plan_.keys_to_write) plan_.keys_to_remove.erase(key);
        return std::move(plan_);
    }

private:
    const StoredReservation* FindStored(const std::string& key) const {
        const auto found = input_.stored.find(key);
        return found != input_.stored.end() ? &found->second : nullptr;
    }

    const JournalEntry* FindEntry(const std::string& key) const {
        const auto found = input_.journal.find(key);
        return found != input_.journal.end() ? &found->second : nullptr;
    }

    void SetAside(const std::string& name, std::string reason) { plan_.set_aside.push_back({name, std::move(reason)}); }

    void JudgeFile(const FoundFile& file) {
        const std::string key = KeyInFileName(file.name);
        const JournalEntry* const entry = FindEntry(key);
        const bool is_unchanged =
            input_.trust == JournalTrust::kFull && entry != nullptr && file.is_regular && entry->stamp == file.stamp;
        if (is_unchanged && !input_.damaged_keys.contains(key)) {
            JudgeOwnFile(key, entry->checksum);
            return;
        }
        if (!file.is_regular) return SetAside(file.name, "is not a regular file");
        absl::StatusOr<std::string> text = input_.read(file);
        if (!text.ok()) return SetAside(file.name, std::string(text.status().message()));
        JudgeText(file, key, *std::move(text));
    }

    // The daemon wrote the file, maybe before the last change of the key.
    void JudgeOwnFile(const std::string& key, uint64_t checksum) {
        const StoredReservation* const stored = FindStored(key);
        if (stored == nullptr) {
            plan_.keys_to_remove.insert(key);
        } else if (ChecksumOfText(stored->packed) == checksum) {
            right_keys_.insert(key);
        }
    }

    void JudgeText(const FoundFile& file, const std::string& key, std::string text) {
        const StoredReservation* const stored = FindStored(key);
        const uint64_t checksum = ChecksumOfText(text);
        if (stored != nullptr && stored->packed == text) {
            right_keys_.insert(key);
            plan_.confirmed[key] = {file.stamp, checksum, std::nullopt};
            return;
        }
        const JournalEntry* const entry = FindEntry(key);
        const bool is_own = entry != nullptr && input_.trust != JournalTrust::kNone &&
                            (entry->checksum == checksum || entry->intended_checksum == checksum);
        if (is_own && !input_.damaged_keys.contains(key)) return JudgeOwnFile(key, checksum);
        JudgeForeignText(file.name, std::move(text));
    }

    void JudgeForeignText(const std::string& name, std::string text) {
        std::unique_ptr<ReservationInfo> info = UnpackRecord(text);
        if (info == nullptr) return SetAside(name, "is damaged");
        std::string fault = FaultOfRecord(*info);
        if (!fault.empty()) return SetAside(name, std::move(fault));
        const std::string key = info->info.reservation_key;
        const bool is_stored = input_.stored.contains(key);
        const bool is_lost = input_.damaged_keys.contains(key);
        const bool may_be_old =
            input_.trust == JournalTrust::kMachineDied || (input_.trust == JournalTrust::kNone && is_stored);
        if (FileNameOf(key) != name && (is_stored || names_.contains(FileNameOf(key)) || taken_keys_.contains(key))) {
            SetAside(name, absl::StrCat("holds reservation ", key, ", which has a file of its own"));
        } else if (may_be_old && !is_lost) {
            SetAside(name, absl::StrCat("differs from the store, and may be older: reservation ", key));
        } else {
            taken_keys_.insert(key);
            candidates_.push_back({name, key, std::move(text), std::move(info)});
        }
    }

    // Finds the first candidate that wants a GUID of another reservation, and sets its file aside. What is stored under
    // its key comes back then, so that others have to be looked at again.
    bool RejectOneCandidate() {
        if (candidates_.empty()) return false;
        std::unordered_map<uint64_t, std::string> holders = HoldersOfWantedGuids();
        for (auto candidate = candidates_.begin(); candidate != candidates_.end(); ++candidate) {
            for (const uint64_t guid : GuidsOf(*candidate->info)) {
                const auto [holder, is_free] = holders.emplace(guid, candidate->key);
                if (is_free) continue;
                SetAside(candidate->name,
                         absl::StrFormat("gives reservation %s the GUID 0x%x, which reservation %s has", candidate->key,
                                         guid, holder->second));
                taken_keys_.erase(candidate->key);
                candidates_.erase(candidate);
                return true;
            }
        }
        return false;
    }

    // The GUIDs of all candidates that stored reservations have which stay, with the keys of these.
    std::unordered_map<uint64_t, std::string> HoldersOfWantedGuids() const {
        std::unordered_set<uint64_t> wanted;
        for (const Candidate& candidate : candidates_) {
            const std::span<const uint64_t> guids = GuidsOf(*candidate.info);
            wanted.insert(guids.begin(), guids.end());
        }
        std::unordered_map<uint64_t, std::string> holders;
        for (const auto& [key, reservation] : input_.stored) {
            if (taken_keys_.contains(key)) continue;
            const std::unique_ptr<ReservationInfo> info = UnpackRecord(reservation.packed);
            if (info == nullptr) continue;
            for (const uint64_t guid : GuidsOf(*info)) {
                if (wanted.contains(guid)) holders.emplace(guid, key);
            }
        }
        return holders;
    }

    void Take(Candidate& candidate) {
        plan_.taken[candidate.key] = std::move(candidate.packed);
        plan_.keys_to_write.insert(candidate.key);
        if (candidate.name != FileNameOf(candidate.key)) plan_.keys_to_remove.insert(KeyInFileName(candidate.name));
    }

    const RecoveryInput& input_;
    RecoveryPlan plan_;
    std::set<std::string> names_;    // of the files found
    std::set<std::string> right_keys_;    // their files are what is stored
    std::set<std::string> taken_keys_;    // of candidates_
    std::vector<Candidate> candidates_;
};

}    // namespace

RecoveryPlan PlanRecovery(const RecoveryInput& input) { return Planner(input).Plan(); }

}    // namespace reservationd
