// In place of daemon_target.cpp where gRPC is not there.

#include "replay/input_error.h"
#include "replay/target/daemon_target.h"

namespace replay {

const bool kCanConnect = false;

std::unique_ptr<DaemonTarget> ConnectToDaemon(const ConnectOptions& options) {
    throw InputError(options.address + ": cannot be connected to: this program is built without gRPC");
}

}    // namespace replay
