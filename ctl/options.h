// The kinds of options and arguments that commands have.
//
// Each one hands its value to its setter while the command line is parsed. A value that cannot be used throws
// UsageError, which names the option. Names that begin with a dash are options, others arguments.

#pragma once

#include <CLI/CLI.hpp>
#include <cstdint>
#include <functional>
#include <string>

#include "reservation/v1/reservation.pb.h"

namespace reservationctl {

using SetText = std::function<void(const std::string& text)>;
using SetNumber = std::function<void(uint64_t number)>;

CLI::Option* AddText(CLI::App* command, const std::string& name, const std::string& help, const SetText& set);

// Decimal, or hexadecimal with 0x, from `min` to `max`.
CLI::Option* AddNumber(CLI::App* command, const std::string& name, uint64_t min, uint64_t max, const std::string& help,
                       const SetNumber& set);

// Lists of GUIDs, see ReadGuids(); can be repeated. `guids` must outlive the parsing.
CLI::Option* AddGuids(CLI::App* command, const std::string& name, const std::string& help,
                      google::protobuf::RepeatedField<uint64_t>* guids);

// Host expressions, which the daemon reads; can be repeated. `nodes` must outlive the parsing.
CLI::Option* AddNodes(CLI::App* command, const std::string& name, const std::string& help,
                      google::protobuf::RepeatedPtrField<std::string>* nodes);

// `name`, a number of free nodes for the daemon to pick, and --among, which ones it may pick. `free_nodes` returns
// where they go, and is called only for an option that is given.
CLI::Option* AddFreeNodes(CLI::App* command, const std::string& name,
                          const std::function<reservation::v1::FreeNodes*()>& free_nodes);

// The arguments NAME, one at least: nodes, or HCAs where they read as GUIDs. `request` must outlive the parsing.
void AddNodeOrGuid(CLI::App* command, reservation::v1::ListNodesRequest* request);

// The argument KEY: UTF-8, and not empty.
CLI::Option* AddKey(CLI::App* command, const std::string& help, const SetText& set);

// --num-trees, and --limit for all limits by their names. `request` must outlive the parsing.
void AddLimits(CLI::App* command, reservation::v1::CreateReservationRequest* request);

// --pkeys: numbers between commas, or none. `request` must outlive the parsing.
CLI::Option* AddPkeys(CLI::App* command, reservation::v1::ReportPortRequest* request);

}    // namespace reservationctl
