// Dry runs of requests that may want free nodes.

#pragma once

#include <functional>
#include <memory>
#include <string>

#include "daemon/engine/engine.h"
#include "daemon/nodes/node_table.h"
#include "daemon/state/free_nodes.h"
#include "daemon/state/scratch_copy.h"
#include "reservation/v1/reservation.pb.h"

namespace reservationd {

namespace v1 = reservation::v1;

// Hands a dry run of the request to the engine, as Engine::Try does. Free nodes are picked before, by a call of its
// own: the copy that the request is tried on has only what the request names. `request` must outlive the dry run.
template <typename Request>
void Try(Engine& engine, const std::shared_ptr<const NodeTable>& nodes, Request* request,
         const std::function<void(ReservationState& scratch, const v1::StateVersion& version)>& run,
         const std::function<void(Refusal refusal, const std::string& reason)>& done) {
    const auto try_it = [&engine, request, run, done] { engine.Try({ScratchCopy(NamedBy(*request)), run, done}); };
    if (!WantsFreeNodes(*request)) return try_it();
    const auto pick = [nodes, request](ReservationState& state) { PickFreeNodes(state, *nodes, request); };
    engine.Submit({false, pick, [try_it, done](Refusal refusal, const std::string& reason) {
                       if (refusal != Refusal::kNone) return done(refusal, reason);
                       try_it();
                   }});
}

}    // namespace reservationd
