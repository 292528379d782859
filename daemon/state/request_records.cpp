#include "daemon/state/request_records.h"

#include <algorithm>
#include <iterator>

namespace reservationd {
namespace {

void SetLimits(const v1::Limits& limits, uint32_t (&values)[VESK_NUM_LIMITS]) {
    const auto value = [](bool is_given, uint32_t limit) { return is_given ? limit : VESK_LIMIT_NOT_GIVEN; };
    const uint32_t all[VESK_NUM_LIMITS] = {
        value(limits.has_limit0(), limits.limit0()), value(limits.has_limit1(), limits.limit1()),
        value(limits.has_limit2(), limits.limit2()), value(limits.has_num_trees(), limits.num_trees()),
        value(limits.has_limit4(), limits.limit4()), value(limits.has_limit5(), limits.limit5()),
        value(limits.has_limit6(), limits.limit6()),
    };
    std::copy(std::begin(all), std::end(all), std::begin(values));
}

void DescribeLimits(const uint32_t (&values)[VESK_NUM_LIMITS], v1::Limits* limits) {
    constexpr void (v1::Limits::*kSet[VESK_NUM_LIMITS])(uint32_t) = {
        &v1::Limits::set_limit0, &v1::Limits::set_limit1, &v1::Limits::set_limit2, &v1::Limits::set_num_trees,
        &v1::Limits::set_limit4, &v1::Limits::set_limit5, &v1::Limits::set_limit6,
    };
    for (size_t i = 0; i < VESK_NUM_LIMITS; ++i) {
        if (values[i] != VESK_LIMIT_NOT_GIVEN) (limits->*kSet[i])(values[i]);
    }
}

// A record with the request's key, and nothing else.
template <typename Record, typename Request>
Record RecordFor(const Request& request) {
    Record record{};
    vesk_copy_key(record.reservation_key, request.key().c_str());
    return record;
}

}    // namespace

Guids Sorted(const google::protobuf::RepeatedField<uint64_t>& guids) {
    Guids sorted(guids.begin(), guids.end());
    if (!std::is_sorted(sorted.begin(), sorted.end())) std::sort(sorted.begin(), sorted.end());
    return sorted;
}

vesk_create_reservation ToRecord(const v1::CreateReservationRequest& request, Guids& guids) {
    auto record = RecordFor<vesk_create_reservation>(request);
    record.pkey = static_cast<uint16_t>(request.pkey());
    record.num_guids = static_cast<uint32_t>(guids.size());
    record.guids = guids.data();
    SetLimits(request.limits(), record.limits);
    record.auto_created = request.auto_created() ? 1 : 0;
    return record;
}

vesk_update_reservation_by_delta ToRecord(const v1::UpdateReservationRequest& request, Guids& guids_to_add,
                                          Guids& guids_to_remove) {
    auto record = RecordFor<vesk_update_reservation_by_delta>(request);
    record.num_guids_to_add = static_cast<uint32_t>(guids_to_add.size());
    record.num_guids_to_remove = static_cast<uint32_t>(guids_to_remove.size());
    record.guids_to_add = guids_to_add.data();
    record.guids_to_remove = guids_to_remove.data();
    return record;
}

vesk_delete_reservation ToRecord(const v1::DeleteReservationRequest& request) {
    return RecordFor<vesk_delete_reservation>(request);
}

vesk_reservation_info_request ToRecord(const v1::GetReservationsRequest& request) {
    auto record = RecordFor<vesk_reservation_info_request>(request);
    record.with_details = request.with_details() ? 1 : 0;
    return record;
}

void DescribeSummary(const vesk_reservation_info& record, v1::Reservation* reservation) {
    reservation->set_key(record.reservation_key);
    reservation->set_pkey(record.pkey);
    reservation->set_state(record.state);
}

void DescribeDetails(const vesk_reservation_info& record, v1::Reservation* reservation) {
    reservation->mutable_guids()->Add(record.guids, record.guids + record.num_guids);
    DescribeLimits(record.limits, reservation->mutable_limits());
    reservation->set_auto_created(record.auto_created != 0);
}

}    // namespace reservationd
