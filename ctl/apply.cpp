#include "ctl/apply.h"

#include <absl/strings/str_cat.h>
#include <absl/strings/str_split.h>
#include <fmt/format.h>

#include <algorithm>
#include <iostream>
#include <vector>

#include "ctl/apply_plan.h"
#include "ctl/declaration.h"
#include "ctl/describe.h"
#include "ctl/input.h"
#include "ctl/refusal.h"

namespace reservationctl {
namespace {

// Asks the daemon.
GuidList FindGuidsOf(const Client& client, const std::vector<std::string>& expressions) {
    v1::ListNodesRequest request;
    request.mutable_nodes()->Add(expressions.begin(), expressions.end());
    GuidList guids;
    const v1::ListNodesReply reply = CallForAllPages(client, request);
    for (const v1::NodeInfo& node : reply.nodes()) {
        for (const v1::Hca& hca : node.hcas()) guids.push_back(hca.guid());
    }
    return guids;
}

Reservations ReadDeclaration(const std::string& path, const Client& client) {
    const auto find_guids = [&client](const auto& expressions) { return FindGuidsOf(client, expressions); };
    const Input input = ReadInput(path);
    return ParseDeclaration(input.content, input.name, find_guids);
}

// ---- Plan ----

v1::TransactRequest MakeRequest(const std::vector<Step>& plan, const v1::StateVersion& version) {
    v1::TransactRequest request;
    for (const Step& step : plan) *request.add_operations() = step.operation;
    *request.mutable_expected_version() = version;
    return request;
}

// The consequences of all steps.
v1::Consequences TotalCost(const v1::TransactReply& reply) {
    v1::Consequences total;
    for (const v1::OperationReply& step : reply.replies()) total.MergeFrom(step.reservation().consequences());
    return total;
}

std::string DescribeStep(const Step& step, const v1::Consequences& consequences, int number) {
    const std::string prefix = fmt::format("{}. ", number);
    const std::string indentation(prefix.size(), ' ');
    std::string text = prefix + Describe(step) + "\n";
    const std::string costs = Describe(consequences, true);
    for (const absl::string_view cost : absl::StrSplit(costs, '\n', absl::SkipEmpty())) {
        absl::StrAppend(&text, indentation, cost, "\n");
    }
    return text;
}

// `trial` is the reply to the plan's dry run. What comes after a step that it refuses is not known to cost anything.
void PrintPlan(const std::vector<Step>& plan, const v1::TransactReply& trial) {
    int number = 0;
    for (const Step& step : plan) {
        const bool is_tried = number < trial.replies_size();
        const auto cost = is_tried ? trial.replies(number).reservation().consequences() : v1::Consequences();
        std::cout << DescribeStep(step, cost, ++number);
    }
    const auto num_ended_jobs = static_cast<size_t>(TotalCost(trial).ended_job_ids_size());
    std::cout << Count(plan.size(), "step") << ", ending " << Count(num_ended_jobs, "job") << std::endl;
}

// Returns whether no step is refused, or ignored.
bool ReportRefusedStep(const v1::TransactReply& reply, const std::string& verb) {
    const auto& replies = reply.replies();
    const auto refused = std::find_if(replies.begin(), replies.end(),
                                      [](const v1::OperationReply& step) { return !IsCarriedOut(step.reservation()); });
    if (refused == replies.end()) return true;
    std::cerr << "step " << refused - replies.begin() + 1 << " " << verb << ": "
              << DescribeRefusal(refused->reservation());
    return false;
}

bool Confirm() {
    std::cerr << "Carry this out? [y/N] ";
    std::string answer;
    std::getline(std::cin, answer);
    return answer == "y" || answer == "Y" || answer == "yes";
}

// ---- Carrying out ----

ExitStatus Execute(const Client& client, const v1::TransactRequest& request) {
    const v1::TransactReply reply = Call(client, request);
    if (!ReportRefusedStep(reply, "is refused")) {
        std::cerr << "nothing has been changed\n";
        return ExitStatus::kRefused;
    }
    std::cout << "done\n" << Describe(TotalCost(reply), false);
    return ExitStatus::kDone;
}

}    // namespace

ExitStatus Apply(const Client& client, const ApplySettings& settings) {
    if (settings.path == "-" && !settings.assume_yes && !settings.dry_run) {
        throw UsageError("standard input is the file and cannot answer a question, too: give --yes or --dry-run");
    }
    const Reservations wanted = ReadDeclaration(settings.path, client);
    v1::GetReservationsRequest listing;
    listing.set_with_details(true);
    const v1::ReservationReply existing = CallForAllPages(client, listing);
    if (existing.status() != v1::STATUS_SUCCESS) return ReportRefusal(existing);
    const std::vector<Step> plan = PlanChanges(existing.reservations(), wanted);
    if (plan.empty()) {
        std::cout << "nothing to change: " << Count(static_cast<size_t>(wanted.size()), "reservation")
                  << " as declared\n";
        return ExitStatus::kDone;
    }
    v1::TransactRequest request = MakeRequest(plan, existing.version());
    request.set_dry_run(true);
    const v1::TransactReply trial = Call(client, request);
    PrintPlan(plan, trial);
    if (!ReportRefusedStep(trial, "would be refused")) return ExitStatus::kRefused;
    if (settings.dry_run) return ExitStatus::kDone;
    if (!settings.assume_yes && !Confirm()) {
        std::cerr << "nothing has been changed\n";
        return ExitStatus::kRefused;
    }
    request.set_dry_run(false);
    *request.mutable_allowed_consequences() = TotalCost(trial);
    return Execute(client, request);
}

}    // namespace reservationctl
