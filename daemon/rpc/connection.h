// Which connection a call came by.

#pragma once

#include <grpc/grpc_security.h>
#include <grpcpp/server_context.h>

#include <memory>

namespace reservationd {

// What all calls of one connection share, and no other connection as long as this is held.
struct ReleaseConnection {
    void operator()(grpc_auth_context* context) const { grpc_auth_context_release(context); }
};
using ConnectionHandle = std::unique_ptr<grpc_auth_context, ReleaseConnection>;

ConnectionHandle ConnectionOf(grpc::CallbackServerContext& context);

}    // namespace reservationd
