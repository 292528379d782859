#include "daemon/engine/engine.h"

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <iterator>
#include <set>
#include <stdexcept>
#include <system_error>
#include <utility>

#include "daemon/log_sink.h"
#include "host/log.h"

namespace reservationd {

namespace {

constexpr size_t kMaxQueuedCalls = 10'000;
constexpr size_t kMaxBatch = 256;
constexpr size_t kMaxSettledAtOnce = 64;
constexpr std::chrono::seconds kIdleTime{1};
constexpr int kReasonLevel = 3;    // records up to this one are always made: they are the reasons that clients are told

const std::string& MakeDirectory(const std::string& dir) {
    std::error_code error;
    std::filesystem::create_directory(dir, error);
    if (error) throw std::runtime_error("persistent-dir " + dir + ": cannot be made: " + error.message());
    return dir;
}

std::optional<std::string> RecordOf(const std::optional<StoredReservation>& reservation) {
    return reservation ? std::optional(reservation->record) : std::nullopt;
}

void SetLogLevel(int level) { log_set_level(std::max(level, kReasonLevel)); }

}    // namespace

// ---- Start ----

Engine::Engine(const EngineSettings& settings)
    : settings_(settings),
      dir_(MakeDirectory(settings.options.persistent_dir)),
      lock_(dir_),
      store_(dir_ + "/reservationd.sqlite", settings.durability, settings.kept_events),
      files_(dir_),
      events_(settings.kept_events) {
    SetLogLevel(settings_.log_level);
    Load();
    thread_ = std::thread(&Engine::Run, this);
}

// The store knows what was acknowledged. A file that may be older than that is removed unread; any other good one is
// right, or an operator's.
void Engine::Load() {
    LoadEvents();
    const std::map<std::string, StoredReservation> stored = store_.Reservations();
    const std::set<std::string> unpublished = store_.UnpublishedKeys();
    state_ = MakeBook(dir_);
    if (state_->LoadsFiles()) PrepareFiles(stored, unpublished);
    state_->Load(files_.staging_dir(), stored);
    Commit();

    std::set<std::string> keys = unpublished;
    for (const auto& [key, reservation] : store_.Reservations()) keys.insert(key);
    for (const std::string& key : keys) {
        const std::optional<std::string> record = RecordOf(state_->Packed(key));
        if (!files_.Holds(key, record)) {
            unsettled_[key] = Publish(key, record);
        } else if (unpublished.contains(key)) {
            unsettled_[key] = true;
        }
    }
}

void Engine::LoadEvents() {
    std::vector<v1::Event> events;
    for (const auto& [sequence, packed] : store_.Events()) {
        if (!events.emplace_back().ParseFromString(packed)) {
            throw std::runtime_error(dir_ + ": stored event " + std::to_string(sequence) + " is damaged");
        }
    }
    events_.Append(events);
}

void Engine::PrepareFiles(const std::map<std::string, StoredReservation>& stored,
                          const std::set<std::string>& unpublished) {
    for (const std::string& key : unpublished) {
        const auto found = stored.find(key);
        const bool is_stored = found != stored.end();
        const bool is_right = files_.Holds(key, is_stored ? std::optional(found->second.record) : std::nullopt);
        if (!is_right) Publish(key, std::nullopt);
    }
    std::set<std::string> stored_keys;
    for (const auto& [key, reservation] : stored) stored_keys.insert(key);
    ReservationState quiet(settings_.options, {});
    files_.PrepareToLoad(stored_keys, [&](const std::string& path) { return quiet.KeyInFile(path); });
}

std::unique_ptr<ReservationState> Engine::MakeBook(const std::string& dir) {
    OptionInfo options = settings_.options;
    options.persistent_dir = dir;
    const auto log = [](const LogRecord& record) { WriteLog(record); };
    auto state = std::make_unique<ReservationState>(options, log, failed_requests_);
    for (const auto& [job_id, job] : store_.Jobs()) state->AddJob(job);
    return state;
}

// Makes the state what the store says.
void Engine::RestoreBook() {
    state_ = MakeBook(files_.staging_dir());
    for (const auto& [key, reservation] : store_.Reservations()) state_->Restore(reservation);
}

// ---- Any thread ----

void Engine::Submit(Call call) {
    Refusal refusal = Refusal::kNone;
    {
        const std::lock_guard lock(mutex_);
        if (is_stopping_) {
            refusal = Refusal::kStopping;
        } else if (calls_.size() >= kMaxQueuedCalls) {
            refusal = Refusal::kTooManyCalls;
        } else {
            calls_.push_back(std::move(call));
        }
    }
    if (refusal == Refusal::kNone) return wake_.notify_one();
    call.done(refusal, refusal == Refusal::kStopping ? "the daemon is stopping" : "too many calls are waiting");
}

void Engine::Reconfigure(const EngineSettings& settings) {
    {
        const std::lock_guard lock(mutex_);
        new_settings_ = settings;
    }
    wake_.notify_one();
}

void Engine::Stop() {
    {
        const std::lock_guard lock(mutex_);
        is_stopping_ = true;
    }
    wake_.notify_one();
    events_.Close();
}

Engine::~Engine() {
    Stop();
    thread_.join();
}

// ---- The engine's thread ----

void Engine::Run() try {
    std::vector<Call> batch;
    while (WaitForBatch(batch)) {
        if (batch.empty()) {
            if (is_writable_ || ProbeStore().empty()) Settle(kMaxSettledAtOnce);
        } else {
            Process(batch);
        }
        batch.clear();
    }
    Settle(unsettled_.size());
} catch (const std::exception& error) {
    // Nobody knows what the memory holds now, but the store does: a new process takes it up from there.
    WriteLog(kLogError, std::string("The daemon gives up: ") + error.what());
    std::_Exit(EXIT_FAILURE);
}

// Waits for calls, and takes those that came. Leaves `batch` empty when none came and there is something to be done
// meanwhile. False: the engine is to stop.
bool Engine::WaitForBatch(std::vector<Call>& batch) {
    std::unique_lock lock(mutex_);
    const auto is_wanted = [this] { return !calls_.empty() || is_stopping_ || new_settings_; };
    if (unsettled_.empty() && is_writable_) {
        wake_.wait(lock, is_wanted);
    } else {
        wake_.wait_for(lock, kIdleTime, is_wanted);
    }
    const auto end = calls_.begin() + static_cast<std::ptrdiff_t>(std::min(calls_.size(), kMaxBatch));
    std::move(calls_.begin(), end, std::back_inserter(batch));
    calls_.erase(calls_.begin(), end);
    const bool goes_on = !is_stopping_ || !batch.empty();
    const std::optional<EngineSettings> new_settings = std::exchange(new_settings_, std::nullopt);
    lock.unlock();
    if (new_settings) TakeOver(*new_settings);
    return goes_on;
}

void Engine::TakeOver(const EngineSettings& settings) {
    const OptionInfo old_options = std::exchange(settings_.options, settings.options);
    settings_.options.load_persistent_reservations = old_options.load_persistent_reservations;
    settings_.options.reservation_auto_by_pkeys = old_options.reservation_auto_by_pkeys;
    SetLogLevel(settings.log_level);
    // What reservations and HCAs derive from the options is derived again.
    RestoreBook();
}

void Engine::Process(std::vector<Call>& batch) {
    const std::string fault = CarryOut(batch);
    for (Call& call : batch) {
        const bool is_refused = !fault.empty() && call.changes_something;
        // What the call has read may have been something that did not last.
        if (!fault.empty() && !is_refused) call.run(*state_);
        call.done(is_refused ? Refusal::kNotStored : Refusal::kNone, fault);
    }
}

// Carries the calls out and makes durable what they changed. Otherwise returns why not, with nothing changed.
std::string Engine::CarryOut(std::vector<Call>& batch) {
    const bool is_reading =
        std::none_of(batch.begin(), batch.end(), [](const Call& call) { return call.changes_something; });
    if (!is_writable_ && !is_reading) {
        const std::string fault = ProbeStore();
        if (!fault.empty()) return fault;
    }
    try {
        for (Call& call : batch) call.run(*state_);
        Commit();
        return "";
    } catch (const std::exception& error) {
        RollBack(error.what());
        return error.what();
    }
}

void Engine::Commit() {
    StateChanges changes = state_->TakeChanges();
    StoreChanges stored;
    for (const std::string& key : changes.keys) stored.reservations.emplace(key, state_->Packed(key));
    for (const uint64_t job_id : changes.job_ids) stored.jobs.emplace(job_id, state_->PackedJob(job_id));
    uint64_t sequence = events_.newest();
    for (v1::Event& event : changes.events) {
        event.set_sequence(++sequence);
        stored.events.emplace_back(sequence, event.SerializeAsString());
    }
    if (!stored.empty()) store_.Commit(stored);
    Announce(stored, changes);
}

// Lets the world see what has been committed, which cannot be taken back.
void Engine::Announce(const StoreChanges& stored, const StateChanges& changes) noexcept {
    failed_requests_ = state_->failed_requests();
    for (const auto& [key, reservation] : stored.reservations) unsettled_[key] = Publish(key, RecordOf(reservation));
    events_.Append(changes.events);
}

void Engine::RollBack(const std::string& reason) {
    WriteLog(kLogError, "Changes are taken back: " + reason);
    files_.EmptyStaging();
    RestoreBook();
    // Writing over what a failed commit may have left in the log of the database, so that no recovery finds it.
    ProbeStore();
}

// Whether the store can be written; if not, why.
std::string Engine::ProbeStore() {
    std::string fault;
    try {
        store_.Probe();
    } catch (const StoreError& error) {
        fault = error.what();
    }
    if (fault.empty() != is_writable_) {
        WriteLog(fault.empty() ? kLogInfo : kLogError,
                 fault.empty() ? "The store can be written again" : "Changes are refused until this ends: " + fault);
    }
    is_writable_ = fault.empty();
    return fault;
}

// Makes the key's file what has been committed. False: it could not be.
bool Engine::Publish(const std::string& key, const std::optional<std::string>& record) try {
    files_.Write(key, record);
    return true;
} catch (const std::system_error& error) {
    if (!std::exchange(are_files_behind_, true)) {
        WriteLog(kLogWarning, std::string("Reservation files fall behind the store: ") + error.what());
    }
    return false;
}

// Ends the store's distrust in files that are right by now.
void Engine::Settle(size_t max_keys) try {
    StoreChanges changes;
    bool all_are_published = true;
    for (auto& [key, is_published] : unsettled_) {
        if (changes.published_keys.size() == max_keys) break;
        if (!is_published && all_are_published) is_published = Publish(key, RecordOf(state_->Packed(key)));
        if (is_published) changes.published_keys.insert(key);
        all_are_published = all_are_published && is_published;
    }
    if (changes.empty()) return;
    if (settings_.durability == Durability::kMachine) files_.Sync(changes.published_keys);
    store_.Commit(changes);
    for (const std::string& key : changes.published_keys) unsettled_.erase(key);
    if (unsettled_.empty() && std::exchange(are_files_behind_, false)) {
        WriteLog(kLogInfo, "Reservation files have caught up with the store");
    }
} catch (const StoreError&) {
    is_writable_ = false;    // to be probed, and then tried again
} catch (const std::system_error& error) {
    WriteLog(kLogWarning, std::string("Reservation files cannot be settled: ") + error.what());
}

void Engine::Describe(v1::DaemonInfo* info) const {
    state_->Describe(info);
    info->set_persistent_dir(dir_);
    info->set_durability(settings_.durability == Durability::kMachine ? "machine" : "process");
    info->set_last_sequence(events_.newest());
    info->set_oldest_sequence(events_.oldest());
    info->set_store_writable(is_writable_);
}

}    // namespace reservationd
