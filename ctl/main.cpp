// reservationctl: makes, changes and shows the reservations of a running reservationd.

#include <exception>
#include <iostream>

#include "ctl/client.h"
#include "ctl/command_line.h"
#include "ctl/errors.h"
#include "ctl/text.h"

namespace {

using namespace reservationctl;

ExitStatus Run(int argc, char** argv) {
    const CommandLine command_line = ReadCommandLine(argc, argv);
    Client client(command_line.connection);
    const ExitStatus status = command_line.command(client);
    if (!std::cout.flush()) throw Error(ExitStatus::kRefused, "standard output cannot be written");
    return status;
}

}    // namespace

int main(int argc, char** argv) try { return static_cast<int>(Run(argc, argv)); } catch (const Error& error) {
    std::cerr << "reservationctl: " << Printable(error.what()) << '\n';
    return static_cast<int>(error.status());
} catch (const std::exception& error) {
    std::cerr << "reservationctl: " << Printable(error.what()) << '\n';
    return static_cast<int>(ExitStatus::kRefused);
}
