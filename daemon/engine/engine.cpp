#include "daemon/engine/engine.h"

#include <absl/strings/str_cat.h>
#include <absl/strings/str_split.h>
#include <absl/time/time.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <iterator>
#include <map>
#include <new>
#include <set>
#include <stdexcept>
#include <system_error>
#include <utility>

#include "daemon/log_sink.h"
#include "daemon/state/packed_record.h"
#include "daemon/storage/sqlite_store.h"
#include "host/log.h"

namespace reservationd {

namespace {

constexpr char kStoreName[] = "/reservationd.sqlite";
constexpr char kJournalName[] = "/mirror.sqlite";
constexpr char kOtherStore[] = "the reservation files are of another one, or of a later state of this one";
constexpr size_t kMaxQueuedCalls = 10'000;
constexpr size_t kMaxBatch = 256;
constexpr std::chrono::milliseconds kReadTime{2};    // between two batches, if the first read takes no longer
constexpr absl::Duration kIdleTime = absl::Seconds(1);
constexpr size_t kMaxFileSize = size_t{64}
                                << 20;    // of a file that the daemon did not write; more than 2 million GUIDs

const std::string& MakeDirectory(const std::string& dir) {
    std::error_code error;
    std::filesystem::create_directory(dir, error);
    if (error) throw std::runtime_error("persistent-dir " + dir + ": cannot be made: " + error.message());
    return dir;
}

// Whether the options tell to keep what is stored. Otherwise the start deletes it.
bool KeepsReservations(const OptionInfo& options) {
    return options.load_persistent_reservations && !(options.reservation_mode && options.reservation_auto_by_pkeys);
}

// The first line of every reservation file.
std::string FirstLineOfFiles() {
    const std::string packed = PackRecord({});
    return packed.substr(0, packed.find('\n') + 1);
}

// Runs what changes nothing, so that a lack of memory is no reason to give up.
template <typename Run, typename Done>
void RunAndAnswer(const Run& run, const Done& done) {
    try {
        run();
    } catch (const std::bad_alloc&) {
        return done(Refusal::kTooManyCalls, "the memory does not suffice");
    }
    done(Refusal::kNone, "");
}

void CarryOut(Trial& trial, const v1::StateVersion& version) {
    RunAndAnswer([&] { trial.run(*trial.copy.MakeState(), version); }, trial.done);
}

// Throws std::runtime_error, whose message has a line for each fault.
std::shared_ptr<const NodeTable> ReadNodes(const std::string& path) {
    if (path.empty()) return std::make_shared<NodeTable>();
    auto table = NodeTable::Read(path);
    if (!table.ok()) throw std::runtime_error(std::string(table.status().message()));
    WriteLog(kLogInfo,
             absl::StrCat(path, " names ", (*table)->nodes().size(), " nodes with ", (*table)->num_guids(), " HCAs"));
    return *std::move(table);
}

}    // namespace

// ---- Start ----

Engine::Engine(const EngineSettings& settings)
    : settings_(settings),
      nodes_(ReadNodes(settings.nodes_path)),
      dir_(MakeDirectory(settings.options.persistent_dir)),
      lock_(dir_),
      store_(std::make_unique<SqliteStore>(dir_ + kStoreName, settings.durability, settings.kept_events)),
      files_(dir_),
      journal_(dir_ + kJournalName, store_->identity()),
      mirror_(std::make_unique<FileMirror>(files_, journal_)),
      events_(settings.kept_events) {
    log_set_level(settings_.log_level);
    Recover();
    thread_ = std::thread(&Engine::Run, this);
}

void Engine::Recover() {
    NoticeLoss();
    const DamagedRows damaged = store_->SetDamagedAside();
    StoreContents contents = store_->Read();
    LoadEvents(contents, damaged);
    const RecoveryPlan plan = MakePlan(contents, damaged);
    SetFilesAside(plan);
    journal_.Start(plan.confirmed);
    LoadReservations(contents, damaged, plan);
    Commit();
    CorrectFiles(contents, plan);
}

void Engine::NoticeLoss() {
    if (!store_->loss().empty()) {
        loss_ = store_->loss();
    } else if (journal_.is_of_other_store()) {
        loss_ = kOtherStore;
    }
    if (loss_.empty()) return;
    loss_ = absl::StrCat(dir_, ": the store is not as it was left: ", loss_, ". Events are numbered in epoch ",
                         store_->identity().id);
    WriteLog(kLogWarning, loss_);
}

// A damaged event is replaced by one that only has its number, so that the others keep theirs.
void Engine::LoadEvents(StoreContents& contents, const DamagedRows& damaged) {
    StoreChanges replacements;
    for (const uint64_t sequence : damaged.event_sequences) {
        WriteLog(kLogWarning, absl::StrCat(dir_, ": stored event ", sequence, " is damaged and set aside"));
        v1::Event event;
        event.set_sequence(sequence);
        event.set_reason("the event is lost: it was damaged in the store");
        contents.events[sequence] = replacements.events[sequence] = event.SerializeAsString();
    }
    if (!replacements.empty()) store_->Commit(replacements);
    std::vector<v1::Event> events;
    for (const auto& [sequence, packed] : contents.events) {
        if (!events.empty() && events.back().sequence() + 1 != sequence) events.clear();
        if (!events.emplace_back().ParseFromString(packed)) {
            throw std::runtime_error(absl::StrCat(dir_, ": stored event ", sequence, " cannot be read"));
        }
    }
    events_.Append(events);
}

RecoveryPlan Engine::MakePlan(const StoreContents& contents, const DamagedRows& damaged) {
    const std::vector<FoundFile> files = files_.List();
    if (!KeepsReservations(settings_.options)) {
        RecoveryPlan plan;
        for (const FoundFile& file : files) {
            plan.keys_to_remove.insert(KeyInFileName(file.name));
        }
        return plan;
    }
    const auto read = [&, first_line = FirstLineOfFiles()](const FoundFile& file) {
        const auto stored = contents.reservations.find(KeyInFileName(file.name));
        const size_t stored_size = stored != contents.reservations.end() ? stored->second.packed.size() : 0;
        return files_.Read(file.name, std::max(kMaxFileSize, stored_size), first_line);
    };
    return PlanRecovery({contents.reservations,
                         {damaged.reservation_keys.begin(), damaged.reservation_keys.end()},
                         journal_.Read(),
                         journal_.trust(),
                         files,
                         read});
}

void Engine::SetFilesAside(const RecoveryPlan& plan) {
    for (const FileToSetAside& file : plan.set_aside) {
        const std::string path = files_.SetAside(file.name);
        WriteLog(kLogWarning,
                 absl::StrCat("Reservation file ", dir_, "/", file.name, " ", file.reason, ". It is moved to ", path));
    }
}

void Engine::LoadReservations(const StoreContents& contents, const DamagedRows& damaged, const RecoveryPlan& plan) {
    state_ = MakeState(contents);
    for (const uint64_t job_id : damaged.job_ids) {
        WriteLog(kLogWarning, absl::StrCat(dir_, ": stored job ", job_id, " is damaged and set aside"));
    }
    for (const auto& [key, reservation] : contents.reservations) {
        if (!KeepsReservations(settings_.options)) {
            state_->Drop(key);
        } else if (!plan.taken.contains(key)) {
            state_->Restore(key, reservation);
        }
    }
    const std::set<std::string> lost_keys(damaged.reservation_keys.begin(), damaged.reservation_keys.end());
    for (const auto& [key, packed] : plan.taken) {
        const auto stored = contents.reservations.find(key);
        const bool was_there = stored != contents.reservations.end() || lost_keys.contains(key);
        state_->Adopt(key, packed, stored != contents.reservations.end() ? stored->second.id : 0,
                      was_there ? v1::Event::KIND_RESERVATION_UPDATED : v1::Event::KIND_RESERVATION_CREATED);
    }
    for (const std::string& key : lost_keys) {
        const bool is_back = plan.taken.contains(key);
        WriteLog(kLogWarning, absl::StrCat(dir_, ": stored reservation ", key, " is damaged and set aside; ",
                                           is_back ? "its file has taken its place" : "no good file has it"));
        if (!is_back) state_->Drop(key);
    }
}

void Engine::CorrectFiles(const StoreContents& contents, const RecoveryPlan& plan) {
    std::map<std::string, FileText> texts;
    for (const std::string& key : plan.keys_to_remove) texts[key] = nullptr;
    for (const std::string& key : plan.keys_to_write) {
        if (plan.taken.contains(key)) continue;    // committed, and so on its way
        texts[key] = std::make_shared<const std::string>(contents.reservations.at(key).packed);
    }
    mirror_->Put(texts);
}

// Returns a state with the stored jobs, and no reservations yet.
std::unique_ptr<ReservationState> Engine::MakeState(const StoreContents& contents) {
    const auto log = [](const LogRecord& record) { WriteLog(record); };
    auto state = std::make_unique<ReservationState>(settings_.options, log, failed_requests_);
    for (const auto& [job_id, job] : contents.jobs) state->AddJob(job_id, job);
    return state;
}

// Makes the state what the store says.
void Engine::RestoreState() {
    const StoreContents contents = store_->Read();
    state_ = MakeState(contents);
    for (const auto& [key, reservation] : contents.reservations) state_->Restore(key, reservation);
}

// ---- Any thread ----

void Engine::Submit(Call call) {
    Refusal refusal = Refusal::kNone;
    {
        const util::MutexLock lock(&mutex_);
        if (is_stopping_) {
            refusal = Refusal::kStopping;
        } else if (changes_.size() + reads_.size() >= kMaxQueuedCalls) {
            refusal = Refusal::kTooManyCalls;
        } else if (call.changes_something) {
            return changes_.push_back(std::move(call));
        } else {
            return reads_.push_back({std::move(call), num_taken_changes_ + changes_.size()});
        }
    }
    call.done(refusal, refusal == Refusal::kStopping ? "the daemon is stopping" : "too many calls are waiting");
}

void Engine::Try(Trial trial) {
    // Shared, as what a function holds must be copyable.
    const auto holder = std::make_shared<std::unique_ptr<Trial>>(std::make_unique<Trial>(std::move(trial)));
    Submit({false, [this, holder](ReservationState&) { BeginTrial(std::move(*holder)); },
            [holder](Refusal refusal, const std::string& reason) {
                if (refusal != Refusal::kNone) (*holder)->done(refusal, reason);
            }});
}

void Engine::Reconfigure(const EngineSettings& settings) {
    ReadNodesAgain(settings.nodes_path);
    const util::MutexLock lock(&mutex_);
    new_settings_ = settings;
}

void Engine::ReadNodesAgain(const std::string& path) try {
    std::shared_ptr<const NodeTable> nodes = ReadNodes(path);
    const util::MutexLock lock(&nodes_mutex_);
    nodes_.swap(nodes);
} catch (const std::runtime_error& error) {
    for (const absl::string_view line : absl::StrSplit(error.what(), '\n')) {
        WriteLog(kLogError, absl::StrCat("The table of nodes stays as it is: ", line));
    }
}

std::shared_ptr<const NodeTable> Engine::nodes() const {
    const util::MutexLock lock(&nodes_mutex_);
    return nodes_;
}

void Engine::NotifyOfWritability(std::function<void(bool is_writable)> listener) {
    const util::MutexLock lock(&listener_mutex_);
    writability_listener_ = std::move(listener);
    if (writability_listener_) writability_listener_(published_writability_);
}

void Engine::Stop() {
    {
        const util::MutexLock lock(&mutex_);
        is_stopping_ = true;
    }
    events_.Close();
}

Engine::~Engine() {
    Stop();
    thread_.join();
    trial_thread_.reset();
    mirror_.reset();
    try {
        files_.Sync();
        journal_.Close();
    } catch (const std::exception& error) {
        WriteLog(kLogWarning, std::string("The next start reads every reservation file: ") + error.what());
    }
}

// ---- The engine's thread ----

void Engine::Run() try {
    std::vector<Call> batch;
    while (WaitForWork(batch)) {
        if (!batch.empty()) {
            RunBatch(batch);
            batch.clear();
        } else if (!store_is_writable_) {
            ProbeStore();
        }
        RunReads();
        AdvanceTrial();
        if (has_old_limits_) has_old_limits_ = state_->SetTreesLimits();
    }
} catch (const std::exception& error) {
    // Nobody knows what the memory holds now, but the store does: a new process takes it up from there.
    WriteLog(kLogError, std::string("The daemon gives up: ") + error.what());
    std::_Exit(EXIT_FAILURE);
}

// Waits for something to do, and takes the oldest calls that change something. False: the engine is to stop.
bool Engine::WaitForWork(std::vector<Call>& batch) {
    const absl::Duration timeout = store_is_writable_ ? absl::InfiniteDuration() : kIdleTime;
    std::optional<EngineSettings> new_settings;
    bool goes_on = true;
    {
        const util::MutexLock lock(&mutex_);
        mutex_.AwaitWithTimeout(absl::Condition(this, &Engine::HasWork), timeout);
        const auto end = changes_.begin() + static_cast<std::ptrdiff_t>(std::min(changes_.size(), kMaxBatch));
        std::move(changes_.begin(), end, std::back_inserter(batch));
        changes_.erase(changes_.begin(), end);
        num_taken_changes_ += batch.size();
        goes_on = !is_stopping_ || !batch.empty() || !reads_.empty() || !large_trials_.empty();
        if (!is_trying_) new_settings.swap(new_settings_);
    }
    if (new_settings) ApplySettings(*new_settings);
    return goes_on;
}

// What needs the trials' thread waits for it: it uses the options in force.
bool Engine::HasWork() const {
    if (!changes_.empty() || !reads_.empty() || has_old_limits_) return true;
    if (!is_trying_ && (new_settings_ || !large_trials_.empty())) return true;
    return is_stopping_ && large_trials_.empty();
}

void Engine::ApplySettings(const EngineSettings& settings) {
    const OptionInfo old_options = std::exchange(settings_.options, settings.options);
    settings_.options.load_persistent_reservations = old_options.load_persistent_reservations;
    settings_.options.reservation_auto_by_pkeys = old_options.reservation_auto_by_pkeys;
    log_set_level(settings.log_level);
    // Jobs may end by this.
    std::vector<Call> batch(1);
    batch.front().run = [this](ReservationState& state) { state.SetOptions(settings_.options); };
    ExecuteBatch(batch);
    has_old_limits_ = true;
}

void Engine::RunBatch(const std::vector<Call>& batch) {
    std::string fault = store_is_writable_ ? "" : ProbeStore();
    if (fault.empty()) {
        mirror_->WaitForRoom();
        fault = ExecuteBatch(batch);
    }
    for (const Call& call : batch) call.done(fault.empty() ? Refusal::kNone : Refusal::kNotStored, fault);
}

// Runs the calls and commits what they changed. Otherwise returns why not, with nothing changed.
std::string Engine::ExecuteBatch(const std::vector<Call>& batch) {
    try {
        for (const Call& call : batch) call.run(*state_);
        Commit();
        return "";
    } catch (const std::exception& error) {
        RollBack(error.what());
        return error.what();
    }
}

// Runs calls that change nothing, in what time there is for them.
void Engine::RunReads() {
    const auto end = std::chrono::steady_clock::now() + kReadTime;
    do {
        const std::optional<Call> call = TakeRead();
        if (!call) return;
        RunAndAnswer([&] { call->run(*state_); }, call->done);
    } while (std::chrono::steady_clock::now() < end);
}

std::optional<Call> Engine::TakeRead() {
    const util::MutexLock lock(&mutex_);
    if (reads_.empty() || reads_.front().num_changes_before > num_taken_changes_) return std::nullopt;
    if (new_settings_ && !is_trying_) return std::nullopt;    // they come first
    std::optional<Call> call = std::move(reads_.front().call);
    reads_.pop_front();
    return call;
}

// Tries what can be copied at once. Otherwise the copying goes on when it is the trial's turn; where others are before
// it, from the start, so that changes are noted for one trial only.
void Engine::BeginTrial(std::unique_ptr<Trial> trial) {
    if (trial->copy.Advance(*state_)) return CarryOut(*trial, Version());
    if (!large_trials_.empty()) trial->copy.Restart();
    large_trials_.push_back(std::move(trial));
}

// Copies a part of what the next trial concerns, and hands it over when that was all.
void Engine::AdvanceTrial() {
    if (large_trials_.empty()) return;
    {
        const util::MutexLock lock(&mutex_);
        if (is_trying_ || new_settings_) return;
    }
    if (!large_trials_.front()->copy.Advance(*state_)) return;
    const std::shared_ptr<Trial> trial = std::move(large_trials_.front());
    large_trials_.pop_front();
    {
        const util::MutexLock lock(&mutex_);
        is_trying_ = true;
    }
    trial_thread_->Submit([this, trial, version = Version()] {
        CarryOut(*trial, version);
        const util::MutexLock lock(&mutex_);
        is_trying_ = false;
    });
}

void Engine::Commit() {
    StateChanges changes = state_->TakeChanges();
    StoreChanges stored{std::move(changes.reservations), std::move(changes.jobs), {}};
    uint64_t sequence = events_.newest();
    for (v1::Event& event : changes.events) {
        event.set_sequence(++sequence);
        stored.events.emplace_hint(stored.events.end(), sequence, event.SerializeAsString());
    }
    if (!stored.empty()) store_->Commit(stored);
    PublishCommitted(std::move(stored), changes.events);
}

// Publishes a committed batch, to the mirror and to watchers. Nothing may fail here, as the commit cannot be taken
// back.
void Engine::PublishCommitted(StoreChanges&& stored, const std::vector<v1::Event>& events) noexcept {
    failed_requests_ = state_->failed_requests();
    if (!large_trials_.empty()) large_trials_.front()->copy.NoteChanges(stored);
    std::map<std::string, FileText> texts;
    for (auto& [key, reservation] : stored.reservations) {
        texts[key] = reservation ? std::make_shared<const std::string>(std::move(reservation->packed)) : nullptr;
    }
    if (!texts.empty()) mirror_->Put(texts);
    events_.Append(events);
}

void Engine::RollBack(const std::string& reason) {
    WriteLog(kLogError, "Changes are taken back: " + reason);
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
    const bool was_writable = std::exchange(store_is_writable_, fault.empty());
    if (store_is_writable_ == was_writable) return fault;
    {
        const util::MutexLock lock(&listener_mutex_);
        published_writability_ = store_is_writable_;
        if (writability_listener_) writability_listener_(store_is_writable_);
    }
    WriteLog(fault.empty() ? kLogInfo : kLogError,
             fault.empty() ? "The store can be written again" : "Changes are refused until this ends: " + fault);
    return fault;
}

void Engine::Describe(v1::DaemonInfo* info) const {
    state_->Describe(info);
    info->set_persistent_dir(dir_);
    info->set_nodes(nodes()->nodes().size());
    info->set_node_hcas(nodes()->num_guids());
    info->set_durability(store_->durability() == Durability::kMachine ? "machine" : "process");
    info->set_last_sequence(events_.newest());
    info->set_oldest_sequence(events_.oldest());
    info->set_store_writable(store_is_writable_);
    info->set_epoch(store_->identity().id);
    info->set_store_generation(store_->identity().generation);
    if (!loss_.empty()) info->add_warnings(loss_);
    const MirrorStatus mirror = mirror_->status();
    info->set_unwritten_files(mirror.dirty_keys);
    info->set_unwritten_files_age_millis(static_cast<uint64_t>(absl::ToInt64Milliseconds(mirror.lag)));
    if (!mirror.fault.empty()) info->add_warnings("reservation files cannot be written: " + mirror.fault);
}

v1::StateVersion Engine::Version() const {
    v1::StateVersion version;
    version.set_epoch(epoch());
    version.set_sequence(events_.newest() + state_->num_new_events());
    return version;
}

// ---- Offline ----

std::vector<std::string> FindFaultsOfStore(const std::string& dir) {
    const DirectoryLock lock(dir);
    StoreReport report = CheckSqliteStore(dir + kStoreName);
    const std::optional<StoreIdentity> mirrored = MirrorJournal::ReadStore(dir + kJournalName);
    const bool is_other =
        mirrored && (mirrored->id != report.identity.id || mirrored->generation > report.identity.generation);
    if (is_other) report.faults.emplace_back(kOtherStore);
    return report.faults;
}

}    // namespace reservationd
