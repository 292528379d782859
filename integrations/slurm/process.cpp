#include "integrations/slurm/process.h"

#include <absl/cleanup/cleanup.h>
#include <absl/strings/ascii.h>
#include <absl/time/clock.h>
#include <fcntl.h>
#include <fmt/format.h>
#include <poll.h>
#include <spawn.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <limits>

#include "util/text.h"

namespace reservation_slurm {
namespace {

// A file without a name, for a program's output: unlike a pipe it takes everything, whether anybody reads or not.
class OutputFile {
public:
    explicit OutputFile(const char* name) : file_(memfd_create(name, MFD_CLOEXEC)) {}
    OutputFile(const OutputFile&) = delete;
    OutputFile& operator=(const OutputFile&) = delete;
    ~OutputFile() { close(file_); }

    int file() const { return file_; }

    std::string Content() const {
        const off_t size = lseek(file_, 0, SEEK_END);
        std::string content(size > 0 ? static_cast<size_t>(size) : 0, '\0');
        const ssize_t length = pread(file_, content.data(), content.size(), 0);
        content.resize(length > 0 ? static_cast<size_t>(length) : 0);
        return content;
    }

private:
    const int file_;
};

std::vector<char*> Pointers(const std::vector<std::string>& texts) {
    std::vector<char*> pointers;
    pointers.reserve(texts.size() + 1);
    for (const std::string& text : texts) pointers.push_back(const_cast<char*>(text.c_str()));
    pointers.push_back(nullptr);
    return pointers;
}

// Returns the process's id, or minus the error's number. Signals that are blocked here are not blocked there.
pid_t Start(const std::vector<std::string>& command, const std::vector<std::string>& environment,
            const OutputFile& output, const OutputFile& errors) {
    posix_spawn_file_actions_t files;
    posix_spawn_file_actions_init(&files);
    posix_spawn_file_actions_addopen(&files, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_adddup2(&files, output.file(), STDOUT_FILENO);
    posix_spawn_file_actions_adddup2(&files, errors.file(), STDERR_FILENO);
    posix_spawnattr_t attributes;
    posix_spawnattr_init(&attributes);
    sigset_t none;
    sigemptyset(&none);
    posix_spawnattr_setsigmask(&attributes, &none);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK);
    const absl::Cleanup release = [&] {
        posix_spawn_file_actions_destroy(&files);
        posix_spawnattr_destroy(&attributes);
    };
    pid_t process = 0;
    const int error = posix_spawn(&process, command.front().c_str(), &files, &attributes, Pointers(command).data(),
                                  Pointers(environment).data());
    return error == 0 ? process : -error;
}

// Whether the process has ended in time.
bool WaitForEnd(pid_t process, absl::Time deadline) {
    // glibc 2.36 declares its pidfd_open for C only.
    const int handle = static_cast<int>(syscall(SYS_pidfd_open, process, 0));
    const absl::Cleanup release = [handle] { close(handle); };
    pollfd waiting{handle, POLLIN, 0};
    for (;;) {
        const int64_t left = std::max<int64_t>(absl::ToInt64Milliseconds(deadline - absl::Now()), 0);
        const int result =
            poll(&waiting, 1, static_cast<int>(std::min<int64_t>(left, std::numeric_limits<int>::max())));
        if (result >= 0 || errno != EINTR) return result > 0;
    }
}

}    // namespace

absl::StatusOr<std::string> RunProgram(const std::vector<std::string>& command,
                                       const std::vector<std::string>& environment, absl::Time deadline) {
    const std::string& name = command.front();
    const OutputFile output("output");
    const OutputFile errors("errors");
    const pid_t process = Start(command, environment, output, errors);
    if (process < 0) return absl::ErrnoToStatus(-process, name + ": cannot be started");
    const bool is_in_time = WaitForEnd(process, deadline);
    if (!is_in_time) kill(process, SIGKILL);
    int status = 0;
    while (waitpid(process, &status, 0) < 0 && errno == EINTR) {
    }
    if (!is_in_time) return absl::DeadlineExceededError(name + ": has not ended in time");
    if (status == 0) return output.Content();
    std::string reason(absl::StripAsciiWhitespace(errors.Content()));
    std::replace(reason.begin(), reason.end(), '\n', ' ');
    reason = util::Printable(reason);
    return absl::UnavailableError(fmt::format("{}: {}", name, reason.empty() ? "has failed" : reason));
}

}    // namespace reservation_slurm
