// What is wrong with the input.

#pragma once

#include <absl/status/statusor.h>

#include <stdexcept>
#include <string>
#include <utility>

namespace replay {

// Input that cannot be used. The message names the file and line, or the option, at fault.
class InputError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// The value. Throws InputError with the status's message when there is none.
template <typename Value>
Value ValueOrInputError(absl::StatusOr<Value> value) {
    if (!value.ok()) throw InputError(std::string(value.status().message()));
    return *std::move(value);
}

}    // namespace replay
