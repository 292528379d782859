// reservationctl: makes, changes and shows the reservations of a running reservationd.

#include <exception>
#include <iostream>
#include <string>

#include "client/client.h"
#include "ctl/command_line.h"
#include "ctl/errors.h"
#include "util/text.h"

namespace {

using namespace reservationctl;

ExitStatus Run(int argc, char** argv) {
    const CommandLine command_line = ReadCommandLine(argc, argv);
    const auto client = client::Client::Make(command_line.connection);
    if (!client.ok()) throw UsageError(std::string(client.status().message()));
    const ExitStatus status = command_line.command(*client);
    if (!std::cout.flush()) throw Error(ExitStatus::kRefused, "standard output cannot be written");
    return status;
}

}    // namespace

int main(int argc, char** argv) try { return static_cast<int>(Run(argc, argv)); } catch (const Error& error) {
    std::cerr << "reservationctl: " << util::Printable(error.what()) << '\n';
    return static_cast<int>(error.status());
} catch (const std::exception& error) {
    std::cerr << "reservationctl: " << util::Printable(error.what()) << '\n';
    return static_cast<int>(ExitStatus::kRefused);
}
