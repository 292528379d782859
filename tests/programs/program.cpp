#include "tests/programs/program.h"

#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <functional>
#include <stdexcept>
#include <system_error>
#include <thread>

namespace {

bool IsTrueInTime(const std::function<bool()>& is_true) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    for (; !is_true(); std::this_thread::sleep_for(std::chrono::milliseconds(1))) {
        if (std::chrono::steady_clock::now() > end) return false;
    }
    return true;
}

}    // namespace

// The output goes to a file without a name: unlike a pipe it takes everything, whether anybody reads or not.
Program::Program(const std::vector<std::string>& command) : output_(memfd_create("output", MFD_CLOEXEC)) {
    std::vector<char*> arguments;
    for (const std::string& argument : command) arguments.push_back(const_cast<char*>(argument.c_str()));
    arguments.push_back(nullptr);
    pid_ = fork();
    if (pid_ < 0) throw std::system_error(errno, std::generic_category(), "fork");
    if (pid_ > 0) return;

    // The child does only what is safe after a fork in a process of many threads.
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    dup2(output_, STDOUT_FILENO);
    dup2(output_, STDERR_FILENO);
    execvp(arguments.front(), arguments.data());
    _exit(kNotStarted);
}

Program::~Program() {
    Signal(SIGKILL);
    if (!has_ended_) waitpid(pid_, nullptr, 0);
    close(output_);
}

void Program::Signal(int signal) const {
    if (!has_ended_) kill(pid_, signal);
}

int Program::Wait() {
    if (!IsTrueInTime([this] { return HasEnded(); })) throw std::runtime_error("it does not end: " + Output());
    return WIFEXITED(status_) ? WEXITSTATUS(status_) : -WTERMSIG(status_);
}

void Program::WaitFor(const std::string& text) {
    const auto has_printed = [&] { return Output().find(text) != std::string::npos; };
    IsTrueInTime([&] { return has_printed() || HasEnded(); });
    if (!has_printed()) throw std::runtime_error("it has not printed '" + text + "' but: " + Output());
}

std::string Program::Output() const {
    std::string output(static_cast<size_t>(lseek(output_, 0, SEEK_CUR)), '\0');
    return pread(output_, output.data(), output.size(), 0) < 0 ? "" : output;
}

bool Program::HasEnded() {
    if (!has_ended_) has_ended_ = waitpid(pid_, &status_, WNOHANG) == pid_;
    return has_ended_;
}
