// Keeps the reservation files what has been committed, a little later.

#pragma once

#include <absl/base/thread_annotations.h>
#include <absl/time/time.h>

#include <cstddef>
#include <cstdint>
#include <list>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "daemon/storage/mirror_journal.h"
#include "daemon/storage/reservation_files.h"
#include "util/mutex.h"

namespace reservationd {

// A key's newest text; null: it is to have no file.
using FileText = std::shared_ptr<const std::string>;

struct MirrorStatus {
    size_t dirty_keys = 0;    // whose files are not written yet
    absl::Duration lag;    // how long the oldest of them has been so
    std::string fault;    // why files cannot be written; empty: they can
};

// A thread writes the newest text of each key, in the order in which the keys became dirty, about a second after that.
class FileMirror {
public:
    // `files` and `journal`, which has been started, are the mirror's alone while it lives, and outlive it.
    FileMirror(ReservationFiles& files, MirrorJournal& journal);

    // Writes what is dirty, as far as it can be written, and stops.
    ~FileMirror();

    // Marks the keys dirty. For any thread.
    void Put(const std::map<std::string, FileText>& texts);

    // Waits while the mirror is too far behind: more keys or bytes are dirty than memory is to hold, or one has been so
    // for seconds. Does not wait for files that cannot be written. For any thread.
    void WaitForRoom() const;

    // For any thread.
    MirrorStatus status() const;

private:
    struct DirtyKey {
        FileText text;
        absl::Time since;
        std::list<std::string>::iterator place;    // in order_
    };
    struct Write {
        std::string key;
        FileText text;
        absl::Time since;
    };
    using Batch = std::vector<Write>;

    void Run();
    Batch TakeBatch();
    void WriteBatch(const Batch& batch);
    void EndBatch();
    bool PutBack(const Batch& batch, const std::string& fault);

    bool HasRoom() const ABSL_SHARED_LOCKS_REQUIRED(mutex_);
    bool HasWork() const ABSL_SHARED_LOCKS_REQUIRED(mutex_);
    bool IsHurried() const ABSL_SHARED_LOCKS_REQUIRED(mutex_);
    absl::Time OldestDirty() const ABSL_SHARED_LOCKS_REQUIRED(mutex_);
    void MarkDirty(const std::string& key, FileText text, absl::Time since, bool is_newest)
        ABSL_EXCLUSIVE_LOCKS_REQUIRED(mutex_);

    ReservationFiles& files_;
    MirrorJournal& journal_;

    mutable util::Mutex mutex_;
    std::map<std::string, DirtyKey> dirty_keys_ ABSL_GUARDED_BY(mutex_);
    std::list<std::string> order_ ABSL_GUARDED_BY(mutex_);    // the dirty keys, oldest first
    size_t dirty_bytes_ ABSL_GUARDED_BY(mutex_) = 0;    // of their texts
    size_t num_being_written_ ABSL_GUARDED_BY(mutex_) = 0;    // keys taken out of dirty_keys_
    absl::Time being_written_since_ ABSL_GUARDED_BY(mutex_) = absl::InfiniteFuture();    // dirty, the oldest of these
    std::string fault_ ABSL_GUARDED_BY(mutex_);
    absl::Time retry_time_ ABSL_GUARDED_BY(mutex_) = absl::InfinitePast();    // not to write before, after a failure
    bool is_stopping_ ABSL_GUARDED_BY(mutex_) = false;

    std::thread thread_;    // last: it uses all of the above
};

}    // namespace reservationd
