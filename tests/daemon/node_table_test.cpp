#include "daemon/nodes/node_table.h"

#include <gtest/gtest.h>

#include <string>

#include "tests/files.h"
#include "util/guid_list.h"

namespace reservationd {
namespace {

class NodeTableTest : public testing::Test {
protected:
    // The nodes of a file with this text, "NAME GUIDS;" each, or its faults, with FILE for its name.
    std::string Nodes(const std::string& text) const {
        Write(path_, text);
        const auto table = NodeTable::Read(path_);
        std::string seen;
        if (!table.ok()) {
            seen = std::string(table.status().message());
            for (size_t at = 0; (at = seen.find(path_)) != seen.npos;) seen.replace(at, path_.size(), "FILE");
            return seen;
        }
        size_t num_guids = 0;
        for (const Node& node : (*table)->nodes()) {
            seen += node.name + " " + util::FoldGuids(node.guids) + ";";
            EXPECT_EQ((*table)->FindByName(node.name), &node);
            for (const uint64_t guid : node.guids) EXPECT_EQ((*table)->FindByGuid(guid), &node);
            num_guids += node.guids.size();
        }
        EXPECT_EQ((*table)->num_guids(), num_guids);
        EXPECT_EQ((*table)->FindByName("node"), nullptr);
        EXPECT_EQ((*table)->FindByGuid(0xffff), nullptr);
        return seen;
    }

private:
    const TemporaryDirectory dir_;
    const std::string path_ = dir_.path() + "/nodes";
};

TEST_F(NodeTableTest, NodesHaveTheHcasOfTheirColumnsAndLines) {
    EXPECT_EQ(Nodes("# racks\r\n\n b[02-03]\t0x10-0x11 0200:0000:00a1:b2c0,7 # two rails\r\na1 0x20\nb03,a1 0x30,0x31"),
              "b02 0x10,0x200000000a1b2c0;b03 0x11,0x7,0x30;a1 0x20,0x31;");
}

TEST_F(NodeTableTest, EveryFaultIsNamedByItsLine) {
    const std::string not_a_guid = "is not a GUID or a range of GUIDs, such as 0x1f, 31 or 0x10-0x1f\n";
    EXPECT_EQ(
        Nodes("a 1\nb[1- 2\nc\nd[1-2] 3-5 0x8 zz\ne,17,0x10,1-2,1-2-3 10-14\nf 0 9-8\ng,h 20,20\n\xff 1\nb 0x1 2"),
        "FILE:2: 'b[1-': at character 5: a number is missing here\n"
        "FILE:3: 'c' has no GUIDs\n"
        "FILE:4: nodes in 'd[1-2]': 2, but GUIDs in '3-5': 3\n"
        "FILE:4: nodes in 'd[1-2]': 2, but GUIDs in '0x8': 1\n"
        "FILE:4: 'zz' " +
            not_a_guid +
            "FILE:5: the name '17' reads as a GUID\n"
            "FILE:5: the name '0x10' reads as a GUID\n"
            "FILE:5: the name '1-2' reads as a GUID\n"
            "FILE:6: '0' is no GUID: GUIDs begin at 1\n"
            "FILE:6: '9-8' is a range that ends before it begins\n"
            "FILE:7: GUID 0x14 of h is g's already, by line 7\n"
            "FILE:8: '\\xff': at character 1: a host name is missing here\n"
            "FILE:9: GUID 0x1 of b is a's already, by line 1");
    EXPECT_TRUE(
        Nodes("a[1-30] 1-30\nb[1-30] 1-30").ends_with("of b20 is a20's already, by line 1\nFILE: 10 faults more"));
    EXPECT_EQ(Nodes("# nothing\n"), "FILE: names no node");
    EXPECT_EQ(NodeTable::Read("/nowhere").status().message(), "/nowhere: cannot be read: No such file or directory");
}

}    // namespace
}    // namespace reservationd
