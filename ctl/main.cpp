// reservationctl: makes, changes and shows the reservations of a running reservationd.

#include "ctl/command_line.h"

int main(int argc, char** argv) { return static_cast<int>(reservationctl::RunCommandLine(argc, argv)); }
