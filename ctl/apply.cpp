#include "ctl/apply.h"

#include <absl/strings/str_cat.h>
#include <absl/strings/str_split.h>
#include <fmt/format.h>

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
    v1::Consequences cost;    // to others, as the dry run tells it
    std::string refusal;    // as the dry run tells it; else empty
};

using Plan = std::vector<PlannedStep>;

Reservations ReadDeclaration(const std::string& path) {
    if (path == "-") {
        std::ostringstream content;
        content << std::cin.rdbuf();
        return ParseDeclaration(content.str(), "standard input");
    }
    const absl::StatusOr<std::string> content = util::ReadWholeFile(path);
    if (!content.ok()) throw UsageError(std::string(content.status().message()));
    return ParseDeclaration(*content, path);
}

v1::ReservationReply Send(const Client& client, const Step& step, bool dry_run) {
    const auto send = [&](auto request) {
        request.set_dry_run(dry_run);
        return Call(client, request);
    };
    return std::visit(send, step.request);
}

// ---- Plan ----

// A step that depends on others is sent, too: one that the daemon finds malformed must end the plan before it begins.
// What else its dry run tells is not what will happen.
PlannedStep DryRunStep(const Client& client, Step step) {
    const v1::ReservationReply reply = Send(client, step, true);
    if (step.depends_on_earlier_steps) return {std::move(step), {}, ""};
    if (IsCarriedOut(reply)) return {std::move(step), reply.consequences(), ""};
    return {std::move(step), {}, DescribeRefusal(reply)};
}

std::string DescribeStep(const PlannedStep& planned, size_t number) {
    const std::string prefix = fmt::format("{}. ", number);
    const std::string indentation(prefix.size(), ' ');
    std::string text = prefix + Describe(planned.step) + "\n";
    const std::string costs = Describe(planned.cost, true);
    for (const absl::string_view cost : absl::StrSplit(costs, '\n', absl::SkipEmpty())) {
        absl::StrAppend(&text, indentation, cost, "\n");
    }
    return text;
}

void PrintPlan(const Plan& plan) {
    size_t num_ended_jobs = 0;
    for (size_t i = 0; i < plan.size(); ++i) {
        std::cout << DescribeStep(plan[i], i + 1);
        num_ended_jobs += static_cast<size_t>(plan[i].cost.ended_job_ids_size());
    }
    std::cout << Count(plan.size(), "step") << ", ending " << Count(num_ended_jobs, "job") << std::endl;
}

// Returns whether there is none.
bool PrintRefusals(const Plan& plan) {
    bool is_possible = true;
    for (size_t i = 0; i < plan.size(); ++i) {
        if (plan[i].refusal.empty()) continue;
        std::cerr << "step " << i + 1 << " would be refused: " << plan[i].refusal;
        is_possible = false;
    }
    return is_possible;
}

bool Confirm() {
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

bool CostsMore(const v1::Consequences& cost, const v1::Consequences& planned) {
    return HasMore(cost.deleted_reservation_keys(), planned.deleted_reservation_keys()) ||
           HasMore(cost.ended_job_ids(), planned.ended_job_ids());
}

// Makes a dry run once more before: reservations and jobs come and go while people read plans.
bool ExecuteStep(const Client& client, const PlannedStep& planned) {
    v1::ReservationReply reply = Send(client, planned.step, true);
    if (IsCarriedOut(reply)) {
        if (CostsMore(reply.consequences(), planned.cost)) {
            std::cerr << "not done: " << Describe(planned.step) << "\nIt costs more than the plan told:\n"
                      << Describe(reply.consequences(), true);
            return false;
        }
        reply = Send(client, planned.step, false);
    }
    if (!IsCarriedOut(reply)) {
        std::cerr << "refused: " << Describe(planned.step) << "\n" << DescribeRefusal(reply);
        return false;
    }
    std::cout << "done: " << Describe(planned.step) << "\n" << Describe(reply.consequences(), false) << std::flush;
    return true;
}

ExitStatus ExecutePlan(const Client& client, const Plan& plan) {
    for (size_t i = 0; i < plan.size(); ++i) {
        if (ExecuteStep(client, plan[i])) continue;
        std::cerr << i << " of " << Count(plan.size(), "step") << " done; run this again to go on from here\n";
        return ExitStatus::kRefused;
    }
    return ExitStatus::kDone;
}

}    // namespace

ExitStatus Apply(const Client& client, const ApplySettings& settings) {
    if (settings.path == "-" && !settings.assume_yes && !settings.dry_run) {
        throw UsageError("standard input is the file and cannot answer a question, too: give --yes or --dry-run");
    }
    const Reservations wanted = ReadDeclaration(settings.path);
    v1::GetReservationsRequest request;
    request.set_with_details(true);
    const v1::ReservationReply existing = CallForAllPages(client, request);
    if (existing.status() != v1::STATUS_SUCCESS) {
        std::cerr << "refused: " << DescribeRefusal(existing);
        return ExitStatus::kRefused;
    }
    Plan plan;
    for (Step& step : PlanChanges(existing.reservations(), wanted)) plan.push_back(DryRunStep(client, std::move(step)));
    if (plan.empty()) {
        std::cout << "nothing to change: " << Count(static_cast<size_t>(wanted.size()), "reservation")
                  << " as declared\n";
        return ExitStatus::kDone;
    }
    PrintPlan(plan);
    if (!PrintRefusals(plan)) return ExitStatus::kRefused;
    if (settings.dry_run) return ExitStatus::kDone;
    if (!settings.assume_yes && !Confirm()) {
        std::cerr << "nothing has been changed\n";
        return ExitStatus::kRefused;
    }
    return ExecutePlan(client, plan);
}

}    // namespace reservationctl
