// Undoing what did not get through.

#pragma once

#include <utility>

namespace reservation_internal {

// Calls `undo`, which must not throw, when it goes out of scope before Done is called.
template <typename Undo>
class Rollback {
public:
    explicit Rollback(Undo undo) : undo_(std::move(undo)) {}
    Rollback(const Rollback&) = delete;
    Rollback& operator=(const Rollback&) = delete;
    ~Rollback() {
        if (!is_done_) undo_();
    }
    void Done() { is_done_ = true; }

private:
    Undo undo_;
    bool is_done_ = false;
};

}    // namespace reservation_internal
