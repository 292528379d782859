#include "daemon/rpc/tls.h"

#include <absl/strings/str_cat.h>
#include <grpc/grpc.h>
#include <grpc/grpc_security.h>
#include <openssl/bio.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/x509.h>

#include <memory>
#include <stdexcept>
#include <string_view>
#include <utility>

#include "util/file.h"
#include "util/text.h"

namespace reservationd {

namespace {

struct OpenSslDeleter {
    void operator()(BIO* bio) const { BIO_free(bio); }
    void operator()(X509* certificate) const { X509_free(certificate); }
    void operator()(EVP_PKEY* key) const { EVP_PKEY_free(key); }
};
template <typename T>
using OpenSslPtr = std::unique_ptr<T, OpenSslDeleter>;

// ---- PEM files ----

// Reads a thing of the type T, with the function of OpenSSL's that does so.
template <typename T>
OpenSslPtr<T> ParsePem(const std::string& pem, T* (*read)(BIO*, T**, pem_password_cb*, void*)) {
    // No password is asked for at the terminal.
    const auto no_password = [](char*, int, int, void*) { return -1; };
    const OpenSslPtr<BIO> bio(BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size())));
    OpenSslPtr<T> parsed(bio != nullptr ? read(bio.get(), nullptr, no_password, nullptr) : nullptr);
    ERR_clear_error();
    return parsed;
}

std::string ReadPem(const std::string& option, const std::string& path) {
    absl::StatusOr<std::string> content = util::ReadWholeFile(path);
    if (!content.ok()) throw std::runtime_error(option + " " + std::string(content.status().message()));
    if (content->empty()) throw std::runtime_error(option + " " + path + ": the file is empty");
    return *std::move(content);
}

OpenSslPtr<X509> ParseCertificate(const std::string& option, const std::string& path, const std::string& pem) {
    OpenSslPtr<X509> certificate = ParsePem<X509>(pem, PEM_read_bio_X509);
    if (certificate == nullptr) throw std::runtime_error(option + " " + path + ": there is no certificate in the file");
    return certificate;
}

// ---- What gRPC wants ----

std::string_view PathOf(const grpc_metadata* metadata, size_t num_metadata) {
    for (size_t i = 0; i < num_metadata; ++i) {
        const std::string_view key(reinterpret_cast<const char*>(GRPC_SLICE_START_PTR(metadata[i].key)),
                                   GRPC_SLICE_LENGTH(metadata[i].key));
        if (key != ":path") continue;
        return {reinterpret_cast<const char*>(GRPC_SLICE_START_PTR(metadata[i].value)),
                GRPC_SLICE_LENGTH(metadata[i].value)};
    }
    return "";
}

}    // namespace

TlsIdentity ReadTlsIdentity(const TlsFiles& files) {
    TlsIdentity identity{.authorities = ReadPem("tls-ca", files.authorities),
                         .certificate = ReadPem("tls-cert", files.certificate),
                         .key = ReadPem("tls-key", files.key)};
    ParseCertificate("tls-ca", files.authorities, identity.authorities);
    const OpenSslPtr<X509> certificate = ParseCertificate("tls-cert", files.certificate, identity.certificate);
    const OpenSslPtr<EVP_PKEY> key = ParsePem<EVP_PKEY>(identity.key, PEM_read_bio_PrivateKey);
    if (key == nullptr) throw std::runtime_error("tls-key " + files.key + ": there is no key without a password in it");
    const bool is_pair = X509_check_private_key(certificate.get(), key.get()) == 1;
    ERR_clear_error();
    if (!is_pair) throw std::runtime_error("tls-key " + files.key + ": is not the key of " + files.certificate);
    return identity;
}

TlsCredentials::TlsCredentials(TlsIdentity identity, const AccessControl& access, AuditLog& audit)
    : access_(access), audit_(audit), credentials_(MakeCredentials()), identity_(std::move(identity)) {
    const auto check = [](void* self, grpc_auth_context* context, const grpc_metadata* metadata, size_t num_metadata,
                          grpc_process_auth_metadata_done_cb done, void* tag) {
        const auto* const credentials = static_cast<const TlsCredentials*>(self);
        const absl::Status status = credentials->Check(context, PathOf(metadata, num_metadata));
        done(tag, nullptr, 0, nullptr, 0, static_cast<grpc_status_code>(status.code()),
             std::string(status.message()).c_str());
    };
    grpc_server_credentials_set_auth_metadata_processor(credentials_,
                                                        {.process = check, .destroy = nullptr, .state = this});
}

// The callback is called before each handshake.
grpc_server_credentials* TlsCredentials::MakeCredentials() {
    const auto fetch = [](void* self, grpc_ssl_server_certificate_config** config) {
        return static_cast<TlsCredentials*>(self)->Fetch(config);
    };
    return grpc_ssl_server_credentials_create_with_options(
        grpc_ssl_server_credentials_create_options_using_config_fetcher(
            GRPC_SSL_REQUEST_AND_REQUIRE_CLIENT_CERTIFICATE_AND_VERIFY, fetch, this));
}

TlsCredentials::~TlsCredentials() { grpc_server_credentials_release(credentials_); }

void TlsCredentials::Replace(TlsIdentity identity) {
    const util::MutexLock lock(&mutex_);
    identity_ = std::move(identity);
    is_new_ = true;
}

int TlsCredentials::AddPortToServer(const std::string& address, grpc_server* server) {
    return grpc_server_add_http2_port(server, address.c_str(), credentials_);
}

grpc_ssl_certificate_config_reload_status TlsCredentials::Fetch(grpc_ssl_server_certificate_config** config) {
    const util::MutexLock lock(&mutex_);
    if (!std::exchange(is_new_, false)) return GRPC_SSL_CERTIFICATE_CONFIG_RELOAD_UNCHANGED;
    const grpc_ssl_pem_key_cert_pair pair{identity_.key.c_str(), identity_.certificate.c_str()};
    *config = grpc_ssl_server_certificate_config_create(identity_.authorities.c_str(), &pair, 1);
    return GRPC_SSL_CERTIFICATE_CONFIG_RELOAD_NEW;
}

absl::Status TlsCredentials::Check(const grpc_auth_context* context, std::string_view method) const {
    if (method.starts_with(kServicePrefix)) return absl::OkStatus();
    const std::string name = CommonName(context);
    absl::Status status = access_.Check({.is_local = false, .common_name = name}, PermissionFor(method));
    if (!status.ok()) {
        audit_.RecordDenial([&] {
            return absl::StrCat("CN '", util::TruncateForMessage(name), "': ", util::Printable(method), ": denied");
        });
    }
    return status;
}

}    // namespace reservationd
