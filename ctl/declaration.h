// A file that declares reservations.

#pragma once

#include <functional>
#include <string>
#include <vector>

#include "ctl/apply_plan.h"
#include "ctl/guid_list.h"

namespace reservationctl {

// The GUIDs of the HCAs of the nodes that the expressions name.
using FindGuids = std::function<GuidList(const std::vector<std::string>& expressions)>;

// The reservations in a listing as JSON, as "list --json" prints it or as people write it: comments may be there, GUIDs
// may be lists and ranges in strings, a pkey may be hexadecimal in a string, and "nodes" may be host expressions, a
// string or an array of them. `text` is what the file called `name` holds. Each reservation has a key of its own and
// the member "guids" or such "nodes", whose GUIDs are among its own in what is returned; no GUID occurs twice. Throws
// UsageError, which names the file, the reservation and the value at fault.
Reservations ParseDeclaration(const std::string& text, const std::string& name, const FindGuids& find_guids);

}    // namespace reservationctl
