// The reply to a request.

#pragma once

#include <cstdint>

#include "host/command_manager.h"
#include "messages/vesk_messages.h"

namespace reservation_internal {

// Sends exactly one reply: when Send is called or, at the latest, when it goes out of scope, with what `list` holds by
// then. What the sending throws is swallowed: the request is over by then.
class Reply {
public:
    // Whether a nonzero status counts as a failed request in g_fabric.
    enum class Failures { kCounted, kNotCounted };

    // `command_manager` must outlive the reply. `ep` is passed on and never looked at; it may be null.
    Reply(const CommandManager* command_manager, const dov_ep* ep, uint64_t transaction_id, Failures failures)
        : command_manager_(command_manager), ep_(ep), transaction_id_(transaction_id), failures_(failures) {}
    Reply(const Reply&) = delete;
    Reply& operator=(const Reply&) = delete;
    ~Reply() { Send(); }

    // Makes `entry` the list's only one, under this key.
    void SetEntry(const char* reservation_key);

    // Later calls do nothing.
    void Send() noexcept;

    vesk_reservation_info_list list{};
    vesk_reservation_info entry{};

private:
    const CommandManager* command_manager_;
    const dov_ep* ep_;
    uint64_t transaction_id_;
    Failures failures_;
    bool is_sent_ = false;
};

}    // namespace reservation_internal
