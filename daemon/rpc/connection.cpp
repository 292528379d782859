#include "daemon/rpc/connection.h"

namespace reservationd {

// Every connection has an authentication context, those on the Unix socket too.
ConnectionHandle ConnectionOf(grpc::CallbackServerContext& context) {
    return ConnectionHandle(grpc_call_auth_context(context.c_call()));
}

}    // namespace reservationd
