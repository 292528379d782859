#include "daemon/rpc/access.h"

#include <absl/strings/str_cat.h>

#include <algorithm>
#include <iterator>
#include <utility>

#include "daemon/rpc/connection.h"
#include "util/text.h"

namespace reservationd {

namespace {

struct Rule {
    std::string_view method;
    Permission permission;
};

// Every method that the server answers, those that gRPC brings along included.
constexpr Rule kRules[] = {
    {"/reservation.v1.ReservationService/CreateReservation", Permission::kChange},
    {"/reservation.v1.ReservationService/UpdateReservation", Permission::kChange},
    {"/reservation.v1.ReservationService/DeleteReservation", Permission::kChange},
    {"/reservation.v1.ReservationService/GetReservations", Permission::kRead},
    {"/reservation.v1.ReservationService/BeginJob", Permission::kChange},
    {"/reservation.v1.ReservationService/EndJob", Permission::kChange},
    {"/reservation.v1.ReservationService/ListJobs", Permission::kRead},
    {"/reservation.v1.ReservationService/ListNodes", Permission::kRead},
    {"/reservation.v1.ReservationService/ReportPort", Permission::kChange},
    {"/reservation.v1.ReservationService/Transact", Permission::kChange},
    {"/reservation.v1.ReservationService/Session", Permission::kChange},
    {"/reservation.v1.ReservationService/Watch", Permission::kRead},
    {"/reservation.v1.ReservationService/GetDaemonInfo", Permission::kRead},
    {"/grpc.health.v1.Health/Check", Permission::kRead},
    {"/grpc.health.v1.Health/Watch", Permission::kRead},
    {"/grpc.reflection.v1alpha.ServerReflection/ServerReflectionInfo", Permission::kRead},
};

}    // namespace

Permission PermissionFor(std::string_view method) {
    const auto rule = std::find_if(std::begin(kRules), std::end(kRules),
                                   [method](const Rule& candidate) { return candidate.method == method; });
    return rule != std::end(kRules) ? rule->permission : Permission::kChange;
}

Client ClientOf(grpc::CallbackServerContext& context) {
    return {.is_local = context.peer().starts_with("unix:"), .common_name = CommonName(ConnectionOf(context).get())};
}

std::string CommonName(const grpc_auth_context* context) {
    grpc_auth_property_iterator names = grpc_auth_context_find_properties_by_name(context, GRPC_X509_CN_PROPERTY_NAME);
    const grpc_auth_property* const name = grpc_auth_property_iterator_next(&names);
    return name != nullptr ? std::string(name->value, name->value_length) : "";
}

absl::Status AccessControl::Check(const Client& client, Permission permission) const {
    if (client.is_local) return absl::OkStatus();
    if (client.common_name.empty()) {
        return absl::PermissionDeniedError("the certificate has no common name, which would tell what it allows");
    }
    const util::MutexLock lock(&mutex_);
    if (lists_.full_access_names.contains(client.common_name)) return absl::OkStatus();
    const bool may_read = lists_.read_only_names.contains(client.common_name);
    if (may_read && permission == Permission::kRead) return absl::OkStatus();
    return absl::PermissionDeniedError(absl::StrCat("the certificate's common name '",
                                                    util::TruncateForMessage(client.common_name), "' allows ",
                                                    may_read ? "reading only" : "nothing here"));
}

void AccessControl::Replace(AccessLists lists) {
    const util::MutexLock lock(&mutex_);
    lists_ = std::move(lists);
}

}    // namespace reservationd
