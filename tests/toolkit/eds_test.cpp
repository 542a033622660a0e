#include "toolkit/eds.h"
#include "toolkit/store_fixture.h"

#include <boost/test/unit_test.hpp>

using toolkit::CEds;
using toolkit::node_map_t;

namespace {

// Reads every node of a file; returns the last next_node result (> 0 at the end).
int read_all(const tk_string& path, std::vector<node_map_t>& nodes, tk_string& error) {
    CEds eds;
    nodes.clear();
    if (eds.open(path) != 0) {
        error = eds.error();
        return -1;
    }
    node_map_t node;
    int rc;
    while ((rc = eds.next_node(node)) == 0)
        nodes.push_back(node);
    error = eds.error();
    return rc;
}

tk_string value(const node_map_t& node, const tk_string& key) {
    BOOST_REQUIRE_EQUAL(node.count(key), 1u);
    return node.find(key)->second;
}

} // namespace

BOOST_AUTO_TEST_SUITE(toolkit)
BOOST_AUTO_TEST_SUITE(eds)

BOOST_AUTO_TEST_CASE(reads_nodes) {
    CTempDir dir;
    const tk_string path = dir.file("good.eds");
    write_text(path, "\xEF\xBB\xBF# mapping file\r\n"
                     "; another comment\n"
                     "\n"
                     "  [ Voltage L1 ]  \n"
                     "Address = 1000\n"
                     "  Name=/Measurements/Voltage L1  \r\n"
                     "Address = 2000\n"
                     "Description = a; b # c = d\n"
                     "Empty =\n"
                     "   # indented comment\n"
                     "[]\n"
                     "[Last]\n"
                     "Type = float");
    std::vector<node_map_t> nodes;
    tk_string error;
    BOOST_TEST(read_all(path, nodes, error) > 0);
    BOOST_TEST(error.empty());
    BOOST_REQUIRE_EQUAL(nodes.size(), 3u);
    BOOST_TEST(nodes[0].size() == 4u);
    BOOST_TEST(value(nodes[0], "Address") == "1000"); // the first one counts
    BOOST_TEST(value(nodes[0], "Name") == "/Measurements/Voltage L1");
    BOOST_TEST(value(nodes[0], "Description") == "a; b # c = d");
    BOOST_TEST(value(nodes[0], "Empty") == "");
    BOOST_TEST(nodes[1].empty());
    BOOST_TEST(value(nodes[2], "Type") == "float");

    // Where each node and key came from, for the messages about them.
    BOOST_TEST(nodes[0].path() == path);
    BOOST_TEST(nodes[0].label() == "Voltage L1");
    BOOST_TEST(nodes[0].line() == 4u);
    BOOST_TEST(nodes[0].line_of("Address") == 5u); // the first one, as its value
    BOOST_TEST(nodes[0].line_of("Name") == 6u);
    BOOST_TEST(nodes[0].line_of("Empty") == 9u);
    BOOST_TEST(nodes[0].line_of("Missing") == 4u); // a key not read: the node's line
    BOOST_TEST(nodes[1].label() == "");
    BOOST_TEST(nodes[1].line() == 11u);
    BOOST_TEST(nodes[2].label() == "Last");
    BOOST_TEST(nodes[2].line() == 12u);
    BOOST_TEST(nodes[2].line_of("Type") == 13u);
    // Nodes made in code come from nowhere.
    const node_map_t inline_node = {{"Size", "2"}};
    BOOST_TEST(inline_node.path().empty());
    BOOST_TEST(inline_node.line_of("Size") == 0u);
}

BOOST_AUTO_TEST_CASE(errors_name_file_and_line) {
    CTempDir dir;
    struct {
        const char* text;
        const char* where;
        const char* why;
        size_t good_nodes;
    } cases[] = {
        {"# c\nAddress = 1\n[a]\n", ":2: ", "before the first section", 0},
        {"[a]\nx = 1\n[b]\njust words\n", ":4: [b] ", "key = value", 1},
        {"[a]\n[b\n", ":2: ", "']'", 0},
        {"[a]\n = 5\n", ":2: ", "empty key", 0},
        {"[a]\nx = 1\n[b] trailing\n", ":3: ", "']'", 0},
    };
    for (const auto& c : cases) {
        const tk_string path = dir.file("bad.eds");
        write_text(path, c.text);
        std::vector<node_map_t> nodes;
        tk_string error;
        BOOST_TEST(read_all(path, nodes, error) < 0, c.text);
        BOOST_TEST(has_text(error, path + c.where), error);
        BOOST_TEST(has_text(error, c.why), error);
        BOOST_TEST(nodes.size() == c.good_nodes, c.text);
    }
    // Once failed, the reader stays failed.
    CEds eds;
    BOOST_REQUIRE_EQUAL(eds.open(dir.file("bad.eds")), 0);
    node_map_t node;
    BOOST_TEST(eds.next_node(node) < 0);
    BOOST_TEST(eds.next_node(node) < 0);
}

BOOST_AUTO_TEST_CASE(files_that_cannot_be_read) {
    CTempDir dir;
    CEds eds;
    BOOST_TEST(eds.open(dir.file("missing.eds")) != 0);
    BOOST_TEST(has_text(eds.error(), dir.file("missing.eds")));
    BOOST_TEST(has_text(eds.error(), "No such file"));
    BOOST_TEST(eds.open(dir.path()) != 0);
    BOOST_TEST(has_text(eds.error(), "not a regular file"));
    node_map_t node;
    BOOST_TEST(eds.next_node(node) < 0);
    // An empty file has no nodes; binary junk is a malformed line, not a crash.
    write_text(dir.file("empty.eds"), "");
    BOOST_REQUIRE_EQUAL(eds.open(dir.file("empty.eds")), 0);
    BOOST_TEST(eds.next_node(node) > 0);
    write_text(dir.file("junk.eds"), tk_string("[a]\n\x01\x02\0\xff\n", 9));
    BOOST_REQUIRE_EQUAL(eds.open(dir.file("junk.eds")), 0);
    BOOST_TEST(eds.next_node(node) < 0);
    BOOST_TEST(has_text(eds.error(), ":2: "));
}

BOOST_AUTO_TEST_SUITE_END()
BOOST_AUTO_TEST_SUITE_END()
