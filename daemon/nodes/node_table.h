// Which node has which HCAs: what names of nodes mean, and what GUIDs are called.

#pragma once

#include <absl/status/statusor.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace reservationd {

struct Node {
    std::string name;
    std::vector<uint64_t> guids;    // of its HCAs, in the file's order; one at least
};

// Read from a file, whose lines are
//
//     NODES GUIDS [GUIDS...]    # comment
//
// NODES is a host expression (util/host_expression.h), each GUIDS a list as util/guid_list.h reads it, without blanks:
// as many GUIDs as there are nodes, the first one for the first node. Further columns, and further lines with the same
// node, are further HCAs. A GUID belongs to one node. A name does not read as a GUID or a range of them ("17", "0x10").
//
// Immutable, so that any thread may use it.
class NodeTable {
public:
    NodeTable() = default;    // without nodes

    // InvalidArgument, or what the system says, when the file cannot be used: a line for each fault, with the file's
    // name and the number of the line at fault, and a last line that counts the faults beyond the first 20.
    static absl::StatusOr<std::shared_ptr<const NodeTable>> Read(const std::string& path);

    // In the order in which the file names them first.
    const std::vector<Node>& nodes() const { return nodes_; }
    size_t num_guids() const { return owners_.size(); }

    // The node with this name, or with this HCA; null when there is none.
    const Node* FindByName(const std::string& name) const;
    const Node* FindByGuid(uint64_t guid) const;

private:
    class Reader;
    struct Owner {
        uint32_t node;    // index
        uint32_t line;    // that says so
    };

    std::vector<Node> nodes_;
    std::unordered_map<std::string, uint32_t> indices_;    // by name
    std::unordered_map<uint64_t, Owner> owners_;    // by GUID
};

}    // namespace reservationd
