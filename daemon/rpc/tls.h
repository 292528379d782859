// Mutual TLS whose certificates can be replaced while the server runs.

#pragma once

#include <absl/base/thread_annotations.h>
#include <absl/status/status.h>
#include <grpc/grpc_security.h>
#include <grpcpp/security/server_credentials.h>

#include <memory>
#include <string>
#include <string_view>

#include "daemon/rpc/access.h"
#include "daemon/rpc/audit_log.h"
#include "util/mutex.h"

namespace reservationd {

// Paths of PEM files.
struct TlsFiles {
    std::string certificate;    // the daemon's, with what leads from it to its authority
    std::string key;    // of that certificate
    std::string authorities;    // what signs clients' certificates
};

// The content of these files.
struct TlsIdentity {
    std::string authorities, certificate, key;
};

// Reads the files, and checks what is in them and that the key is the certificate's. Throws std::runtime_error, with a
// message that names the option and the file.
TlsIdentity ReadTlsIdentity(const TlsFiles& files);

// Demands a certificate from every client. Calls of the services that gRPC brings along, health and reflection, are
// checked with `access`; the reservation service checks its own. For any thread.
class TlsCredentials : public grpc::ServerCredentials {
public:
    // Both must outlive the server.
    TlsCredentials(TlsIdentity identity, const AccessControl& access, AuditLog& audit);
    TlsCredentials(const TlsCredentials&) = delete;
    TlsCredentials& operator=(const TlsCredentials&) = delete;
    ~TlsCredentials() override;

    // For the connections that are made from now on.
    void Replace(TlsIdentity identity);

    // Not used: nothing but `access` checks calls.
    void SetAuthMetadataProcessor(const std::shared_ptr<grpc::AuthMetadataProcessor>&) override {}

private:
    grpc_server_credentials* MakeCredentials();
    int AddPortToServer(const std::string& address, grpc_server* server) override;

    grpc_ssl_certificate_config_reload_status Fetch(grpc_ssl_server_certificate_config** config);
    absl::Status Check(const grpc_auth_context* context, std::string_view method) const;

    const AccessControl& access_;
    AuditLog& audit_;
    grpc_server_credentials* const credentials_;
    util::Mutex mutex_;
    TlsIdentity identity_ ABSL_GUARDED_BY(mutex_);
    bool is_new_ ABSL_GUARDED_BY(mutex_) = true;    // not fetched yet
};

}    // namespace reservationd
