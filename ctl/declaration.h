// A file that declares reservations.

#pragma once

#include <string>

#include "ctl/apply_plan.h"

namespace reservationctl {

// The reservations in a listing as JSON, as "list --json" prints it or as people write it: comments may be there, GUIDs
// may be lists and ranges in strings, and a pkey may be hexadecimal in a string. `text` is what the file called `name`
// holds. Each reservation has a key of its own and the member "guids", and no GUID occurs twice. Throws UsageError,
// which names the file, the reservation and the value at fault.
Reservations ParseDeclaration(const std::string& text, const std::string& name);

}    // namespace reservationctl
