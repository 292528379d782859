// In place of daemon_target.cpp where gRPC is not there.

#include "replay/file.h"
#include "replay/target/daemon_target.h"

const bool kCanConnect = false;

std::unique_ptr<DaemonTarget> ConnectToDaemon(const Connection& connection) {
    throw InputError(connection.address + ": cannot be connected to: this program is built without gRPC");
}
