// The daemon's engine: one thread runs all calls, and commits what a batch of them changed before it is answered.
// Another one tries large dry runs.

#pragma once

#include <absl/base/thread_annotations.h>

#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "daemon/engine/event_log.h"
#include "daemon/engine/recovery.h"
#include "daemon/nodes/node_table.h"
#include "daemon/state/reservation_state.h"
#include "daemon/state/scratch_copy.h"
#include "daemon/storage/directory_lock.h"
#include "daemon/storage/file_mirror.h"
#include "daemon/storage/mirror_journal.h"
#include "daemon/storage/reservation_files.h"
#include "daemon/storage/store.h"
#include "host/option_info.h"
#include "reservation/v1/reservation.pb.h"
#include "util/mutex.h"
#include "util/worker_thread.h"

namespace reservationd {

namespace v1 = reservation::v1;

struct EngineSettings {
    OptionInfo options;    // persistent_dir is made where it is missing; its parent is not
    std::string nodes_path;    // file of the table of nodes; empty: none
    Durability durability = Durability::kProcess;
    uint64_t kept_events = 10'000;
    int log_level = 3;
};

// Why a call was not carried out. Nothing has been changed then.
enum class Refusal {
    kNone,
    kNotStored,    // the store cannot be written
    kTooManyCalls,
    kStopping,
};

// A call. Both functions are called on the engine's thread, and throw nothing but for lack of memory.
struct Call {
    bool changes_something = false;
    std::function<void(ReservationState& state)> run;

    // Called once, when what was run is durable, or will not be carried out: then `reason` says why. A call that is
    // not even queued is told so at once, by the thread that submits it.
    std::function<void(Refusal refusal, const std::string& reason)> done;
};

// A dry run: what the calls would do that the copy has been made for. Both functions are called once or, when the trial
// is refused, only `done` is; by any thread. They throw nothing but for lack of memory.
struct Trial {
    ScratchCopy copy;

    // `version`: of the state that has been copied.
    std::function<void(ReservationState& scratch, const v1::StateVersion& version)> run;

    std::function<void(Refusal refusal, const std::string& reason)> done;
};

class Engine {
public:
    // Locks the directory, takes the state up where the last daemon left it, and starts the thread. Throws
    // std::exception, with a message that names the file, when any of this fails.
    explicit Engine(const EngineSettings& settings);

    // Runs the calls that have been submitted, writes the files that are due, and stops.
    ~Engine();

    // Hands a call over, from any thread. Those that change something are carried out in the order of their arrival;
    // one that does not finds all changes before it carried out, and may find later ones.
    void Submit(Call call);

    // Hands a dry run over, as Submit does. A small one is tried at once. The others take turns: what one concerns is
    // copied bit by bit between the calls, and then tried by another thread.
    void Try(Trial trial);

    // Reads the table of nodes again; where its file has faults, the log names them and the old table stays. Also lets
    // the options and the log level hold for all later calls, as after a restart; while a large dry run is tried, for
    // those after it. What only a restart can change stays: the directory, what is done with the files found there, the
    // automatic mode, the durability, and how many events are kept.
    void Reconfigure(const EngineSettings& settings);

    // Tells the listener, at once and at every change, whether the store can be written; changes are refused while it
    // cannot. The listener, null for none, returns at once, and is not called any more when this returns with another.
    void NotifyOfWritability(std::function<void(bool is_writable)> listener);

    // Refuses all later calls, and ends the events.
    void Stop();

    // For calls while they run.
    void Describe(v1::DaemonInfo* info) const;
    v1::StateVersion Version() const;    // of the state as the call sees it

    // The table of nodes in force, which has none where the settings name no file. For any thread.
    std::shared_ptr<const NodeTable> nodes() const;

    // What has been committed, and what names its numbering. For any thread.
    EventLog& events() { return events_; }
    const std::string& epoch() const { return store_->identity().id; }

private:
    struct Read {
        Call call;
        uint64_t num_changes_before = 0;    // that have been submitted
    };

    void Recover();
    void NoticeLoss();
    void LoadEvents(StoreContents& contents, const DamagedRows& damaged);
    RecoveryPlan MakePlan(const StoreContents& contents, const DamagedRows& damaged);
    void SetFilesAside(const RecoveryPlan& plan);
    void LoadReservations(const StoreContents& contents, const DamagedRows& damaged, const RecoveryPlan& plan);
    void CorrectFiles(const StoreContents& contents, const RecoveryPlan& plan);
    std::unique_ptr<ReservationState> MakeState(const StoreContents& contents);
    void RestoreState();

    void ReadNodesAgain(const std::string& path);

    void Run();
    bool WaitForWork(std::vector<Call>& batch);
    bool HasWork() const ABSL_SHARED_LOCKS_REQUIRED(mutex_);
    void RunReads();
    std::optional<Call> TakeRead();
    void BeginTrial(std::unique_ptr<Trial> trial);
    void AdvanceTrial();
    void ApplySettings(const EngineSettings& settings);
    void RunBatch(const std::vector<Call>& batch);
    std::string ExecuteBatch(const std::vector<Call>& batch);
    std::string ProbeStore();
    void Commit();
    void PublishCommitted(StoreChanges&& stored, const std::vector<v1::Event>& events) noexcept;
    void RollBack(const std::string& reason);

    EngineSettings settings_;
    mutable util::Mutex nodes_mutex_;
    std::shared_ptr<const NodeTable> nodes_ ABSL_GUARDED_BY(nodes_mutex_);
    const std::string dir_;
    DirectoryLock lock_;
    const std::unique_ptr<Store> store_;
    ReservationFiles files_;
    MirrorJournal journal_;
    std::unique_ptr<FileMirror> mirror_;    // null when it has written its last
    std::string loss_;    // what an operator should know of the store since the start; empty: nothing
    EventLog events_;
    std::unique_ptr<ReservationState> state_;
    uint64_t failed_requests_ = 0;    // as of the last commit
    bool store_is_writable_ = true;    // outcome of the last write; while false, changes are refused
    bool has_old_limits_ = false;    // not all reservations have the default trees limit that holds now
    std::deque<std::unique_ptr<Trial>> large_trials_;    // that wait; the first one is being copied

    util::Mutex listener_mutex_;
    bool published_writability_ ABSL_GUARDED_BY(listener_mutex_) = true;
    std::function<void(bool is_writable)> writability_listener_ ABSL_GUARDED_BY(listener_mutex_);

    util::Mutex mutex_;
    std::deque<Call> changes_ ABSL_GUARDED_BY(mutex_);
    uint64_t num_taken_changes_ ABSL_GUARDED_BY(mutex_) = 0;
    std::deque<Read> reads_ ABSL_GUARDED_BY(mutex_);
    bool is_trying_ ABSL_GUARDED_BY(mutex_) = false;    // the trials' thread is at work
    std::optional<EngineSettings> new_settings_ ABSL_GUARDED_BY(mutex_);
    bool is_stopping_ ABSL_GUARDED_BY(mutex_) = false;

    std::unique_ptr<util::WorkerThread> trial_thread_ = std::make_unique<util::WorkerThread>();
    std::thread thread_;    // last: it uses all of the above
};

// Tells what is wrong with the store in this directory, one fault a sentence, and changes nothing. Throws
// std::exception, with a message that names the file, when it cannot be read at all, or a daemon uses it.
std::vector<std::string> FindFaultsOfStore(const std::string& dir);

}    // namespace reservationd
