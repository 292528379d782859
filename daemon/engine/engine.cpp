#include "daemon/engine/engine.h"

#include <absl/time/time.h>

#include <algorithm>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <iterator>
#include <set>
#include <stdexcept>
#include <system_error>
#include <utility>

#include "daemon/log_sink.h"
#include "daemon/storage/sqlite_store.h"
#include "host/log.h"

namespace reservationd {

namespace {

constexpr size_t kMaxQueuedCalls = 10'000;
constexpr size_t kMaxBatch = 256;
constexpr size_t kMaxKeysCleanedAtOnce = 64;
constexpr absl::Duration kIdleTime = absl::Seconds(1);

const std::string& MakeDirectory(const std::string& dir) {
    std::error_code error;
    std::filesystem::create_directory(dir, error);
    if (error) throw std::runtime_error("persistent-dir " + dir + ": cannot be made: " + error.message());
    return dir;
}

std::optional<std::string> TextOf(const std::optional<StoredReservation>& reservation) {
    return reservation ? std::optional(reservation->packed) : std::nullopt;
}

}    // namespace

// ---- Start ----

Engine::Engine(const EngineSettings& settings)
    : settings_(settings),
      dir_(MakeDirectory(settings.options.persistent_dir)),
      lock_(dir_),
      store_(std::make_unique<SqliteStore>(dir_ + "/reservationd.sqlite", settings.durability, settings.kept_events)),
      files_(dir_),
      events_(settings.kept_events) {
    log_set_level(settings_.log_level);
    Load();
    thread_ = std::thread(&Engine::Run, this);
}

// The store knows what was acknowledged. A file that may be older than that is removed unread; any other good one is
// right, or an operator's.
void Engine::Load() {
    LoadEvents();
    const std::map<std::string, StoredReservation> stored = store_->ReadReservations();
    const std::set<std::string> dirty_keys = store_->ReadDirtyKeys();
    state_ = MakeState(dir_);
    if (state_->LoadsFiles()) PrepareFiles(stored, dirty_keys);
    state_->Load(files_.staging_dir(), stored);
    Commit();

    std::set<std::string> keys = dirty_keys;
    for (const auto& [key, reservation] : store_->ReadReservations()) keys.insert(key);
    for (const std::string& key : keys) {
        const std::optional<std::string> record = TextOf(state_->Packed(key));
        if (!files_.Holds(key, record)) {
            dirty_keys_[key] = WriteFile(key, record);
        } else if (dirty_keys.contains(key)) {
            dirty_keys_[key] = true;
        }
    }
}

void Engine::LoadEvents() {
    std::vector<v1::Event> events;
    for (const auto& [sequence, packed] : store_->ReadEvents()) {
        if (!events.emplace_back().ParseFromString(packed)) {
            throw std::runtime_error(dir_ + ": stored event " + std::to_string(sequence) + " is damaged");
        }
    }
    events_.Append(events);
}

void Engine::PrepareFiles(const std::map<std::string, StoredReservation>& stored,
                          const std::set<std::string>& dirty_keys) {
    for (const std::string& key : dirty_keys) {
        const auto found = stored.find(key);
        const bool is_stored = found != stored.end();
        const bool is_right = files_.Holds(key, is_stored ? std::optional(found->second.packed) : std::nullopt);
        if (!is_right) WriteFile(key, std::nullopt);
    }
    std::set<std::string> stored_keys;
    for (const auto& [key, reservation] : stored) stored_keys.insert(key);
    ReservationState key_reader(settings_.options, {});
    files_.PrepareToLoad(stored_keys, [&](const std::string& path) { return key_reader.KeyInFile(path); });
}

std::unique_ptr<ReservationState> Engine::MakeState(const std::string& dir) {
    OptionInfo options = settings_.options;
    options.persistent_dir = dir;
    const auto log = [](const LogRecord& record) { WriteLog(record); };
    auto state = std::make_unique<ReservationState>(options, log, failed_requests_);
    for (const auto& [job_id, job] : store_->ReadJobs()) state->AddJob(job_id, job);
    return state;
}

// Makes the state what the store says.
void Engine::RestoreState() {
    state_ = MakeState(files_.staging_dir());
    for (const auto& [key, reservation] : store_->ReadReservations()) state_->Restore(key, reservation);
}

// ---- Any thread ----

void Engine::Submit(Call call) {
    Refusal refusal = Refusal::kNone;
    {
        const absl::MutexLock lock(&mutex_);
        if (is_stopping_) {
            refusal = Refusal::kStopping;
        } else if (calls_.size() >= kMaxQueuedCalls) {
            refusal = Refusal::kTooManyCalls;
        } else {
            calls_.push_back(std::move(call));
        }
    }
    if (refusal == Refusal::kNone) return;
    call.done(refusal, refusal == Refusal::kStopping ? "the daemon is stopping" : "too many calls are waiting");
}

void Engine::Reconfigure(const EngineSettings& settings) {
    const absl::MutexLock lock(&mutex_);
    new_settings_ = settings;
}

void Engine::Stop() {
    {
        const absl::MutexLock lock(&mutex_);
        is_stopping_ = true;
    }
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
            if (store_is_writable_ || ProbeStore().empty()) CleanKeys(kMaxKeysCleanedAtOnce);
        } else {
            RunAndAnswer(batch);
        }
        batch.clear();
    }
    CleanKeys(dirty_keys_.size());
} catch (const std::exception& error) {
    // Nobody knows what the memory holds now, but the store does: a new process takes it up from there.
    WriteLog(kLogError, std::string("The daemon gives up: ") + error.what());
    std::_Exit(EXIT_FAILURE);
}

// Waits for calls, and takes the oldest ones. Leaves `batch` empty when none came and there is something else to do.
// False: the engine is to stop.
bool Engine::WaitForBatch(std::vector<Call>& batch) {
    const absl::Duration timeout = dirty_keys_.empty() && store_is_writable_ ? absl::InfiniteDuration() : kIdleTime;
    std::optional<EngineSettings> new_settings;
    bool goes_on = true;
    {
        const absl::MutexLock lock(&mutex_);
        mutex_.AwaitWithTimeout(absl::Condition(this, &Engine::HasWork), timeout);
        const auto end = calls_.begin() + static_cast<std::ptrdiff_t>(std::min(calls_.size(), kMaxBatch));
        std::move(calls_.begin(), end, std::back_inserter(batch));
        calls_.erase(calls_.begin(), end);
        goes_on = !is_stopping_ || !batch.empty();
        new_settings.swap(new_settings_);
    }
    if (new_settings) ApplySettings(*new_settings);
    return goes_on;
}

bool Engine::HasWork() const { return !calls_.empty() || is_stopping_ || new_settings_; }

void Engine::ApplySettings(const EngineSettings& settings) {
    const OptionInfo old_options = std::exchange(settings_.options, settings.options);
    settings_.options.load_persistent_reservations = old_options.load_persistent_reservations;
    settings_.options.reservation_auto_by_pkeys = old_options.reservation_auto_by_pkeys;
    log_set_level(settings.log_level);
    // What reservations and HCAs derive from the options is derived again.
    RestoreState();
}

void Engine::RunAndAnswer(std::vector<Call>& batch) {
    const std::string fault = ExecuteBatch(batch);
    for (Call& call : batch) {
        const bool is_refused = !fault.empty() && call.changes_something;
        // What the call has read may have been something that did not last.
        if (!fault.empty() && !is_refused) call.run(*state_);
        call.done(is_refused ? Refusal::kNotStored : Refusal::kNone, fault);
    }
}

// Runs the calls and commits what they changed. Otherwise returns why not, with nothing changed.
std::string Engine::ExecuteBatch(std::vector<Call>& batch) {
    const bool is_reading =
        std::none_of(batch.begin(), batch.end(), [](const Call& call) { return call.changes_something; });
    if (!store_is_writable_ && !is_reading) {
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
    if (!stored.empty()) store_->Commit(stored);
    PublishCommitted(stored, changes);
}

// Publishes a committed batch: files, then events. Nothing may fail here, as the commit cannot be taken back.
void Engine::PublishCommitted(const StoreChanges& stored, const StateChanges& changes) noexcept {
    failed_requests_ = state_->failed_requests();
    for (const auto& [key, reservation] : stored.reservations) dirty_keys_[key] = WriteFile(key, TextOf(reservation));
    events_.Append(changes.events);
}

void Engine::RollBack(const std::string& reason) {
    WriteLog(kLogError, "Changes are taken back: " + reason);
    files_.EmptyStaging();
    RestoreState();
    // Writing over what a failed commit may have left in the log of the database, so that no recovery finds it.
    ProbeStore();
}

// Tests whether the store can be written. Returns why not, or "".
std::string Engine::ProbeStore() {
    std::string fault;
    try {
        store_->Probe();
    } catch (const StoreError& error) {
        fault = error.what();
    }
    if (fault.empty() != store_is_writable_) {
        WriteLog(fault.empty() ? kLogInfo : kLogError,
                 fault.empty() ? "The store can be written again" : "Changes are refused until this ends: " + fault);
    }
    store_is_writable_ = fault.empty();
    return fault;
}

// Makes the key's file what has been committed. False: it could not be.
bool Engine::WriteFile(const std::string& key, const std::optional<std::string>& record) try {
    files_.Write(key, record);
    return true;
} catch (const std::system_error& error) {
    if (!std::exchange(files_failed_, true)) {
        WriteLog(kLogWarning, std::string("Reservation files fall behind the store: ") + error.what());
    }
    return false;
}

// Writes the files of up to `max_keys` dirty keys that are not written yet, and takes the marks off those that are.
void Engine::CleanKeys(size_t max_keys) try {
    StoreChanges changes;
    bool all_are_written = true;
    for (auto& [key, is_written] : dirty_keys_) {
        if (changes.clean_keys.size() == max_keys) break;
        if (!is_written && all_are_written) is_written = WriteFile(key, TextOf(state_->Packed(key)));
        if (is_written) changes.clean_keys.insert(key);
        all_are_written = all_are_written && is_written;
    }
    if (changes.empty()) return;
    if (settings_.durability == Durability::kMachine) files_.Sync(changes.clean_keys);
    store_->Commit(changes);
    for (const std::string& key : changes.clean_keys) dirty_keys_.erase(key);
    if (dirty_keys_.empty() && std::exchange(files_failed_, false)) {
        WriteLog(kLogInfo, "Reservation files have caught up with the store");
    }
} catch (const StoreError&) {
    store_is_writable_ = false;    // to be probed, and then tried again
} catch (const std::system_error& error) {
    WriteLog(kLogWarning, std::string("Reservation files cannot be settled: ") + error.what());
}

void Engine::Describe(v1::DaemonInfo* info) const {
    state_->Describe(info);
    info->set_persistent_dir(dir_);
    info->set_durability(settings_.durability == Durability::kMachine ? "machine" : "process");
    info->set_last_sequence(events_.newest());
    info->set_oldest_sequence(events_.oldest());
    info->set_store_writable(store_is_writable_);
}

}    // namespace reservationd
