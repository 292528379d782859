// reservation-slurm: keeps Slurm's jobs in the reservations of a running reservationd.

#include "integrations/slurm/command_line.h"

int main(int argc, char** argv) { return reservation_slurm::RunCommandLine(argc, argv); }
