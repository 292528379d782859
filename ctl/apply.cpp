#include "ctl/apply.h"

#include <algorithm>
#include <iostream>
#include <set>
#include <sstream>
#include <utility>
#include <vector>

#include "ctl/apply_plan.h"
#include "ctl/declaration.h"
#include "ctl/describe.h"
#include "ctl/refusal.h"
#include "util/file.h"

namespace reservationctl {

namespace {

struct PlannedStep {
    Step step;
    v1::Consequences cost;    // to others, as the daemon foresees it
    std::string refusal;    // as the daemon foresees it; else empty
};

// The content of the file, or of standard input for -.
std::string ReadInput(const std::string& path) {
    if (path == "-") {
        std::ostringstream content;
        content << std::cin.rdbuf();
        return content.str();
    }
    absl::StatusOr<std::string> content = util::ReadWholeFile(path);
    if (!content.ok()) throw UsageError(std::string(content.status().message()));
    return *std::move(content);
}

// ---- Plan ----

std::string InWords(const PlannedStep& planned, size_t number) {
    const std::string prefix = std::to_string(number) + ". ";
    std::string text = prefix + Describe(planned.step) + "\n";
    std::istringstream costs(Describe(planned.cost, true));
    for (std::string cost; std::getline(costs, cost);) text += std::string(prefix.size(), ' ') + cost + "\n";
    return text;
}

v1::ReservationReply Send(const Client& client, const Step& step, bool is_dry_run) {
    return std::visit(
        [&](auto request) {
            request.set_dry_run(is_dry_run);
            return Call(client, request);
        },
        step.request);
}

// A step that waits for others is sent, too: one that the daemon finds malformed must end the plan before it begins.
// What else the daemon foresees of it will not be so.
PlannedStep Foresee(const Client& client, Step step) {
    const v1::ReservationReply reply = Send(client, step, true);
    if (step.waits) return {std::move(step), {}, ""};
    if (IsCarriedOut(reply)) return {std::move(step), reply.consequences(), ""};
    return {std::move(step), {}, DescribeRefusal(reply)};
}

// Returns whether no step would be refused.
bool PrintPlan(const std::vector<PlannedStep>& plan) {
    size_t num_ended_jobs = 0;
    for (size_t i = 0; i < plan.size(); ++i) {
        std::cout << InWords(plan[i], i + 1);
        num_ended_jobs += static_cast<size_t>(plan[i].cost.ended_job_ids_size());
    }
    std::cout << Count(plan.size(), "step") << ", ending " << Count(num_ended_jobs, "job") << std::endl;

    bool is_possible = true;
    for (size_t i = 0; i < plan.size(); ++i) {
        if (plan[i].refusal.empty()) continue;
        std::cerr << "step " << i + 1 << " would be refused: " << plan[i].refusal;
        is_possible = false;
    }
    return is_possible;
}

bool Ask() {
    std::cerr << "Carry this out? [y/N] ";
    std::string answer;
    std::getline(std::cin, answer);
    return answer == "y" || answer == "Y" || answer == "yes";
}

// ---- Carrying out ----

template <typename List>
bool HasMore(const List& list, const List& other) {
    const std::set<typename List::value_type> others(other.begin(), other.end());
    return std::any_of(list.begin(), list.end(), [&](const auto& element) { return !others.contains(element); });
}

// Looks once more before it acts: reservations and jobs come and go while people read plans.
bool CarryOut(const Client& client, const PlannedStep& planned) {
    const v1::ReservationReply foreseen = Send(client, planned.step, true);
    const v1::Consequences& cost = foreseen.consequences();
    if (IsCarriedOut(foreseen) && (HasMore(cost.deleted_reservation_keys(), planned.cost.deleted_reservation_keys()) ||
                                   HasMore(cost.ended_job_ids(), planned.cost.ended_job_ids()))) {
        std::cerr << "not done: " << Describe(planned.step) << "\nIt costs more than the plan told:\n"
                  << Describe(cost, true);
        return false;
    }
    const v1::ReservationReply reply = IsCarriedOut(foreseen) ? Send(client, planned.step, false) : foreseen;
    if (!IsCarriedOut(reply)) {
        std::cerr << "refused: " << Describe(planned.step) << "\n" << DescribeRefusal(reply);
        return false;
    }
    std::cout << "done: " << Describe(planned.step) << "\n" << Describe(reply.consequences(), false) << std::flush;
    return true;
}

ExitStatus CarryOut(const Client& client, const std::vector<PlannedStep>& plan) {
    for (size_t i = 0; i < plan.size(); ++i) {
        if (CarryOut(client, plan[i])) continue;
        std::cerr << i << " of " << Count(plan.size(), "step") << " done; run this again to go on from here\n";
        return ExitStatus::kRefused;
    }
    return ExitStatus::kDone;
}

}    // namespace

ExitStatus Apply(const Client& client, const ApplySettings& settings) {
    const bool is_standard_input = settings.path == "-";
    if (is_standard_input && !settings.is_agreed && !settings.is_dry_run) {
        throw UsageError("standard input is the file and cannot answer a question, too: give --yes or --dry-run");
    }
    const Reservations wanted =
        ParseDeclaration(ReadInput(settings.path), is_standard_input ? "standard input" : settings.path);
    v1::GetReservationsRequest request;
    request.set_with_details(true);
    const v1::ReservationReply existing = Call(client, request);
    if (existing.status() != v1::STATUS_SUCCESS) {
        std::cerr << "refused: " << DescribeRefusal(existing);
        return ExitStatus::kRefused;
    }
    std::vector<PlannedStep> plan;
    for (Step& step : PlanChanges(existing.reservations(), wanted)) plan.push_back(Foresee(client, std::move(step)));
    if (plan.empty()) {
        std::cout << "nothing to change: " << Count(static_cast<size_t>(wanted.size()), "reservation")
                  << " as declared\n";
        return ExitStatus::kDone;
    }
    if (!PrintPlan(plan)) return ExitStatus::kRefused;
    if (settings.is_dry_run) return ExitStatus::kDone;
    if (!settings.is_agreed && !Ask()) {
        std::cerr << "nothing has been changed\n";
        return ExitStatus::kRefused;
    }
    return CarryOut(client, plan);
}

}    // namespace reservationctl
