// Compares a reservation manager in its daemon with the model: what the world sees of each operation, and what is there
// after it: the registry, the counts, the jobs and the files.

#pragma once

#include <functional>
#include <string>
#include <vector>

#include "tests/reservation/model.h"

using Sequence = std::vector<Operation>;

// What the function returns, called in a process of its own, as stored reservations are loaded once in a process; or
// how that process ended.
std::string InChild(const std::function<std::string()>& function);

// A sequence of operations that make sense more often than not. `draw` gives numbers, which may be below 256.
Sequence Generate(const std::function<uint64_t()>& draw, size_t num_operations);

// Where manager and model differ first, or "". `has_loaded`: the process has loaded stored reservations before.
std::string Compare(const Sequence& sequence, bool has_loaded) noexcept;

// Compares in a process of its own, in which a crash is a difference like any other.
std::string Difference(const Sequence& sequence);

// The failing sequence without what it fails without: operations, many or few at once; GUIDs; what is unusual.
Sequence Shrunk(Sequence sequence);

// As a test would state it.
std::string Code(const Sequence& sequence);
