#include "integrations/slurm/config.h"

#include <absl/strings/ascii.h>
#include <absl/strings/match.h>
#include <absl/strings/str_join.h>
#include <absl/strings/str_split.h>
#include <fmt/format.h>

#include <charconv>
#include <set>
#include <string_view>

#include "util/file.h"
#include "util/limits.h"
#include "util/text.h"

namespace reservation_slurm {
namespace {

constexpr uint64_t kMaxSeconds = 24 * 60 * 60;

const std::map<std::string, Mode> kModes = {{"none", Mode::kNone},
                                            {"existing", Mode::kExisting},
                                            {"account", Mode::kAccount},
                                            {"user", Mode::kUser},
                                            {"job", Mode::kJob}};
const std::map<std::string, Reaction> kReactions = {
    {"hold", Reaction::kHold}, {"requeue", Reaction::kRequeue}, {"run", Reaction::kRun}};

// Of sections, those that go before the others last.
constexpr const char* kSectionKinds[] = {"partition", "account", "user"};

bool MakesReservations(Mode mode) { return mode == Mode::kAccount || mode == Mode::kUser || mode == Mode::kJob; }

template <typename... Args>
absl::Status Invalid(fmt::format_string<Args...> format, Args&&... args) {
    return absl::InvalidArgumentError(fmt::format(format, std::forward<Args>(args)...));
}

absl::StatusOr<uint32_t> ParseNumber(const std::string& text, uint64_t min, uint64_t max) {
    const bool is_hexadecimal = absl::StartsWith(text, "0x");
    const char* const end = text.data() + text.size();
    uint32_t number = 0;
    const auto [stop, error] =
        std::from_chars(text.data() + (is_hexadecimal ? 2 : 0), end, number, is_hexadecimal ? 16 : 10);
    if (error == std::errc() && stop == end && number >= min && number <= max) return number;
    return Invalid("'{}' is not a number from {} to {}", util::TruncateForMessage(text), min, max);
}

template <typename Value>
absl::StatusOr<Value> ParseWord(const std::string& text, const std::map<std::string, Value>& values) {
    const auto found = values.find(text);
    if (found != values.end()) return found->second;
    const auto name = [](std::string* names, const auto& value) { *names += value.first; };
    return Invalid("'{}' is none of {}", util::TruncateForMessage(text), absl::StrJoin(values, ", ", name));
}

absl::StatusOr<std::string> ParsePath(const std::string& text) {
    if (absl::StartsWith(text, "/")) return text;
    return Invalid("'{}' is not a path from the root", util::TruncateForMessage(text));
}

}    // namespace

absl::Status ApplyWishes(const SlurmJob& job, JobPolicy& policy) {
    if (policy.mode == Mode::kNone) return absl::OkStatus();
    const absl::StatusOr<JobWishes> wishes = ParseComment(job.comment);
    if (!wishes.ok()) return wishes.status();
    policy.trees = wishes->trees.value_or(policy.trees);
    policy.planes = wishes->planes.value_or(policy.planes);
    if (!wishes->reservation.empty()) {
        policy.mode = Mode::kExisting;
        policy.reservation = wishes->reservation;
    }
    if (policy.trees == 0) policy.mode = Mode::kNone;
    return absl::OkStatus();
}

// Reads a file's lines into a configuration.
class Config::Reader {
public:
    explicit Reader(Config& config) : config_(config) {}

    absl::Status ReadLine(const std::string& line) {
        if (line.empty() || line.front() == '#') return absl::OkStatus();
        if (line.front() == '[') return BeginSection(line);
        const std::vector<std::string> parts = absl::StrSplit(line, absl::MaxSplits('=', 1));
        if (parts.size() != 2) {
            return Invalid("'{}' is neither NAME = VALUE nor [account NAME]", util::TruncateForMessage(line));
        }
        const std::string name(absl::StripAsciiWhitespace(parts[0]));
        const std::string value(absl::StripAsciiWhitespace(parts[1]));
        if (!seen_.emplace(section_, name).second) return Invalid("{} is there twice", name);
        if (value.empty()) return Invalid("{} has no value", name);
        const absl::Status status = SetOption(name, value);
        return status.ok() || absl::IsNotFound(status) ? status
                                                       : Invalid("{}: {}", name, std::string(status.message()));
    }

private:
    // The line is [account NAME], or of another kind.
    absl::Status BeginSection(const std::string& line) {
        for (const char* const kind : kSectionKinds) {
            const std::string begin = fmt::format("[{} ", kind);
            if (!absl::StartsWith(line, begin) || line.back() != ']') continue;
            const absl::string_view name = absl::string_view(line).substr(begin.size(), line.size() - begin.size() - 1);
            section_ = {kind, std::string(absl::StripAsciiWhitespace(name))};
            if (section_.second.empty()) break;
            if (config_.policies_.emplace(section_, std::vector<SetPolicy>()).second) return absl::OkStatus();
            return Invalid("{} is there twice", line);
        }
        return Invalid("'{}' is none of [account NAME], [user NAME] and [partition NAME]",
                       util::TruncateForMessage(line));
    }

    // NotFound: there is no such option.
    absl::Status SetOption(const std::string& name, const std::string& value) {
        absl::Status status = SetJobOption(name, value);
        if (!absl::IsNotFound(status)) return status;
        status = SetGeneralOption(name, value);
        const bool is_general = !absl::IsNotFound(status);
        if (!is_general) return absl::NotFoundError(fmt::format("there is no option {}", util::Printable(name)));
        return section_ == Section() ? status : Invalid("belongs before the first section");
    }

    absl::Status SetJobOption(const std::string& name, const std::string& value) {
        if (name == "mode") return SetMode(ParseWord(value, kModes));
        if (name == "reservation") return Set<std::string>(&JobPolicy::reservation, value);
        if (name == "trees") return Set(&JobPolicy::trees, ParseNumber(value, 0, util::kMaxTrees));
        if (name == "planes") return Set(&JobPolicy::planes, ParseNumber(value, 1, util::kMaxPlanes));
        if (name == "pkey") return Set(&JobPolicy::pkey, ParseNumber(value, 0, util::kMaxPkey));
        if (name == "num-trees") return Set(&JobPolicy::num_trees, ParseNumber(value, 0, util::kNoTreesLimit));
        if (name == "on-refusal") return Set(&JobPolicy::on_refusal, ParseWord(value, kReactions));
        if (name == "on-no-answer") return Set(&JobPolicy::on_no_answer, ParseWord(value, kReactions));
        return absl::NotFoundError(name);
    }

    absl::Status SetGeneralOption(const std::string& name, const std::string& value) {
        client::ConnectionOptions& daemon = config_.connection;
        if (name == "address") return Assign<std::string>(daemon.addresses.front(), value);
        if (name == "tls-ca") return Assign(daemon.tls_ca, ParsePath(value));
        if (name == "tls-cert") return Assign(daemon.tls_certificate, ParsePath(value));
        if (name == "tls-key") return Assign(daemon.tls_key, ParsePath(value));
        if (name == "timeout") return AssignSeconds(config_.timeout, value);
        if (name == "slurm-bin") return Assign(config_.slurm_bin, ParsePath(value));
        if (name == "slurm-conf") return Assign(config_.slurm_conf, ParsePath(value));
        if (name == "key-prefix") return Assign<std::string>(config_.key_prefix, value);
        if (name == "reconcile-every") return AssignSeconds(config_.reconcile_every, value);
        if (name == "state-file") return Assign(config_.state_file, ParsePath(value));
        return absl::NotFoundError(name);
    }

    template <typename Value, typename Field>
    absl::Status Set(Field JobPolicy::*field, const absl::StatusOr<Value>& value) {
        if (!value.ok()) return value.status();
        config_.policies_[section_].push_back([field, value = *value](JobPolicy& policy) { policy.*field = value; });
        return absl::OkStatus();
    }

    absl::Status SetMode(const absl::StatusOr<Mode>& mode) {
        if (mode.ok() && MakesReservations(*mode)) config_.makes_reservations_ = true;
        return Set(&JobPolicy::mode, mode);
    }

    template <typename Value>
    static absl::Status Assign(Value& option, const absl::StatusOr<Value>& value) {
        if (value.ok()) option = *value;
        return value.status();
    }

    static absl::Status AssignSeconds(absl::Duration& option, const std::string& value) {
        const absl::StatusOr<uint32_t> seconds = ParseNumber(value, 1, kMaxSeconds);
        if (seconds.ok()) option = absl::Seconds(*seconds);
        return seconds.status();
    }

    Config& config_;
    Section section_;
    std::set<std::pair<Section, std::string>> seen_;    // options
};

absl::StatusOr<Config> Config::Read(const std::string& path) {
    const absl::StatusOr<std::string> text = util::ReadWholeFile(path);
    if (!text.ok()) return text.status();
    Config config;
    config.connection.addresses = {"unix:/run/reservationd/reservationd.sock"};
    Reader reader(config);
    std::vector<std::string> faults;
    size_t number = 0;
    for (const absl::string_view line : absl::StrSplit(*text, '\n')) {
        ++number;
        const absl::Status status = reader.ReadLine(std::string(absl::StripAsciiWhitespace(line)));
        if (!status.ok()) faults.push_back(fmt::format("{}:{}: {}", path, number, std::string(status.message())));
    }
    if (!faults.empty()) return absl::InvalidArgumentError(absl::StrJoin(faults, "\n"));
    return config;
}

JobPolicy Config::PolicyFor(const SlurmJob& job) const {
    JobPolicy policy;
    for (const Section& section :
         {Section(), Section("partition", job.partition), Section("account", job.account), Section("user", job.user)}) {
        const auto found = policies_.find(section);
        if (found == policies_.end()) continue;
        for (const SetPolicy& set : found->second) set(policy);
    }
    return policy;
}

std::string Config::KeyFor(const SlurmJob& job, const JobPolicy& policy) const {
    switch (policy.mode) {
        case Mode::kAccount:
            return key_prefix + "account-" + job.account;
        case Mode::kUser:
            return key_prefix + "user-" + job.user;
        case Mode::kJob:
            return key_prefix + "job-" + std::to_string(job.id);
        case Mode::kNone:
        case Mode::kExisting:
            break;
    }
    return "";
}

bool Config::IsOwnKey(const std::string& key) const { return makes_reservations_ && absl::StartsWith(key, key_prefix); }

}    // namespace reservation_slurm
