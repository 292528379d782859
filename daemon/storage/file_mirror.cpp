#include "daemon/storage/file_mirror.h"

#include <absl/time/clock.h>

#include <algorithm>
#include <exception>
#include <utility>

#include "daemon/log_sink.h"

namespace reservationd {
namespace {

constexpr size_t kMaxBatch = 256;    // keys
constexpr absl::Duration kDelay = absl::Seconds(1);    // of the oldest; changes of one key meanwhile become one write
constexpr absl::Duration kShortestDelay = absl::Milliseconds(500);    // of those written with it
constexpr absl::Duration kRetryTime = absl::Seconds(1);

// Beyond these, commits wait.
constexpr size_t kMaxDirtyKeys = 10'000;
constexpr size_t kMaxDirtyBytes = size_t{64} << 20;
constexpr absl::Duration kMaxLag = absl::Seconds(3);

size_t SizeOf(const FileText& text) { return text != nullptr ? text->size() : 0; }

}    // namespace

FileMirror::FileMirror(ReservationFiles& files, MirrorJournal& journal)
    : files_(files), journal_(journal), thread_(&FileMirror::Run, this) {}

FileMirror::~FileMirror() {
    {
        const util::MutexLock lock(&mutex_);
        is_stopping_ = true;
    }
    thread_.join();
}

// ---- Any thread ----

void FileMirror::Put(const std::map<std::string, FileText>& texts) {
    const absl::Time now = absl::Now();
    const util::MutexLock lock(&mutex_);
    for (const auto& [key, text] : texts) MarkDirty(key, text, now, true);
}

void FileMirror::WaitForRoom() const {
    const util::MutexLock lock(&mutex_);
    mutex_.Await(absl::Condition(this, &FileMirror::HasRoom));
}

MirrorStatus FileMirror::status() const {
    const util::MutexLock lock(&mutex_);
    return {dirty_keys_.size() + num_being_written_, std::max(absl::Now() - OldestDirty(), absl::ZeroDuration()),
            fault_};
}

// ---- The mirror's thread ----

void FileMirror::Run() {
    for (Batch batch = TakeBatch(); !batch.empty(); batch = TakeBatch()) {
        try {
            WriteBatch(batch);
            EndBatch();
        } catch (const std::exception& error) {
            if (!PutBack(batch, error.what())) return;
        }
    }
}

// Waits until the oldest dirty key is due, and takes it and those that are nearly so, as one write each would wake the
// thread for each change. Empty: the mirror is to stop.
FileMirror::Batch FileMirror::TakeBatch() {
    Batch batch;
    const util::MutexLock lock(&mutex_);
    mutex_.Await(absl::Condition(this, &FileMirror::HasWork));
    if (order_.empty()) return batch;
    mutex_.AwaitWithDeadline(absl::Condition(this, &FileMirror::IsHurried),
                             std::max(OldestDirty() + kDelay, retry_time_));
    const absl::Time newest = IsHurried() ? absl::InfiniteFuture() : absl::Now() - kShortestDelay;
    while (batch.size() < kMaxBatch && !order_.empty()) {
        const auto dirty = dirty_keys_.find(order_.front());
        if (dirty->second.since > newest && !batch.empty()) break;
        dirty_bytes_ -= SizeOf(dirty->second.text);
        batch.push_back({std::move(order_.front()), std::move(dirty->second.text), dirty->second.since});
        dirty_keys_.erase(dirty);
        order_.pop_front();
    }
    num_being_written_ = batch.size();
    being_written_since_ = batch.front().since;
    return batch;
}

void FileMirror::WriteBatch(const Batch& batch) {
    std::map<std::string, uint64_t> intentions;
    for (const Write& write : batch) {
        if (write.text != nullptr) intentions.emplace(write.key, ChecksumOfText(*write.text));
    }
    journal_.Intend(intentions);
    std::map<std::string, std::optional<JournalEntry>> entries;
    for (const Write& write : batch) {
        if (write.text != nullptr) {
            entries[write.key] = {files_.Write(FileNameOf(write.key), *write.text), intentions[write.key],
                                  std::nullopt};
        } else {
            files_.Remove(FileNameOf(write.key));
            entries[write.key] = std::nullopt;
        }
    }
    journal_.Record(entries);
}

void FileMirror::EndBatch() {
    bool has_recovered = false;
    {
        const util::MutexLock lock(&mutex_);
        num_being_written_ = 0;
        being_written_since_ = absl::InfiniteFuture();
        has_recovered = !std::exchange(fault_, "").empty();
    }
    if (has_recovered) WriteLog(kLogInfo, "Reservation files can be written again");
}

// Makes the keys dirty again, also those that were written: a file written twice is right, too. False: it is not worth
// another try, as the mirror is to stop.
bool FileMirror::PutBack(const Batch& batch, const std::string& fault) {
    bool is_new = false;
    bool goes_on = true;
    {
        const util::MutexLock lock(&mutex_);
        for (auto write = batch.rbegin(); write != batch.rend(); ++write) {
            MarkDirty(write->key, write->text, write->since, false);
        }
        num_being_written_ = 0;
        being_written_since_ = absl::InfiniteFuture();
        retry_time_ = absl::Now() + kRetryTime;
        is_new = std::exchange(fault_, fault).empty();
        goes_on = !is_stopping_;
    }
    if (is_new) WriteLog(kLogWarning, "Reservation files fall behind the store: " + fault);
    return goes_on;
}

// ---- Under the lock ----

// While files cannot be written, waiting would not help.
bool FileMirror::HasRoom() const {
    if (!fault_.empty() || is_stopping_) return true;
    return dirty_keys_.size() < kMaxDirtyKeys && dirty_bytes_ < kMaxDirtyBytes && absl::Now() - OldestDirty() < kMaxLag;
}

bool FileMirror::HasWork() const { return !order_.empty() || is_stopping_; }

bool FileMirror::IsHurried() const {
    if (!fault_.empty()) return is_stopping_;
    return is_stopping_ || dirty_keys_.size() > kMaxDirtyKeys / 2 || dirty_bytes_ > kMaxDirtyBytes / 2;
}

absl::Time FileMirror::OldestDirty() const {
    const absl::Time oldest = order_.empty() ? absl::InfiniteFuture() : dirty_keys_.at(order_.front()).since;
    return std::min(oldest, being_written_since_);
}

// Notes a text of the key. If there is one already, only the newest is kept, and the earlier time.
void FileMirror::MarkDirty(const std::string& key, FileText text, absl::Time since, bool is_newest) {
    const auto [entry, is_new] = dirty_keys_.try_emplace(key);
    DirtyKey& dirty = entry->second;
    if (is_new) {
        dirty.since = since;
        dirty.place = order_.insert(is_newest ? order_.end() : order_.begin(), key);
    }
    if (!is_new && !is_newest) {
        dirty.since = since;
        order_.splice(order_.begin(), order_, dirty.place);
        return;
    }
    dirty_bytes_ += SizeOf(text) - SizeOf(dirty.text);
    dirty.text = std::move(text);
}

}    // namespace reservationd
