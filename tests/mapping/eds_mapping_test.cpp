#include "mapping_test_util.h"
#include "modbus/map/eds_mapping.h"
#include "toolkit/store_fixture.h"

#include <boost/test/unit_test.hpp>

#include <algorithm>
#include <vector>

using toolkit::CElement;

namespace {

typedef std::pair<regaddr_t, regaddr_t> span_t;

template <class Range> std::vector<span_t> spans(const Range& range) {
    std::vector<span_t> out;
    for (auto it = range.first; it != range.second; ++it)
        out.emplace_back(it->first.first, it->first.second);
    return out;
}

CAddressRange addrs(const char* node, size_t naddrs) {
    return CEdsMapping::get_addrs(node_of(node), naddrs);
}

// Writes a file whose second node, "[Odd one]", ends with keys; returns where its `key` is
// as messages name it: "<path>:<line>: [Odd one] <key>".
std::string odd_node(const std::string& path, const std::string& keys, const std::string& key) {
    write_text(path, "[Good]\nName = /A/Value\nAddress = 0\nExternalValueType = DATATYPE_UINT\n"
                     "Size = 2\n\n[Odd one]\nName = /B/Value\nAddress = 1\n" +
                         keys + "\n");
    const size_t at = keys.find(key);
    BOOST_REQUIRE(at != std::string::npos);
    const long line = 10 + std::count(keys.begin(), keys.begin() + at, '\n');
    return path + ":" + std::to_string(line) + ": [Odd one] " + key;
}

long lines_in(const std::string& text) {
    return std::count(text.begin(), text.end(), '\n');
}

} // namespace

BOOST_AUTO_TEST_SUITE(mapping)

BOOST_AUTO_TEST_CASE(address_ranges) {
    BOOST_TEST(CAddressRange(10, 12).size() == 3u);
    BOOST_TEST(CAddressRange::all_addrs().size() == 65536u);
}

BOOST_AUTO_TEST_CASE(refused_nodes) {
    // Nodes made in code name no file: "[]" stands for where.
    struct {
        const char* node;
        size_t naddrs;
        const char* message;
    } const bad[] = {
        {"Address=12abc", 1, "[] Address = 12abc: not a number"},
        {"Address=", 1, "[] Address = : not a number"},
        {"Address=-1", 1, "[] Address = -1: out of range (0 to 65535)"},
        {"Address=65536", 1, "[] Address = 65536: out of range (0 to 65535)"},
        {"Address=99999999999999999999999", 1, "out of range (0 to 65535)"},
        {"Address=65535", 2, "[] Address = 65535: its 2 addresses run past 65535"},
        {"Address=65000", 600, "[] Address = 65000: its 600 addresses run past 65535"},
        {"Name=/A/V", 1, "[]: no Address"},
    };
    for (const auto& b : bad) {
        const std::string text = refusal([&] { addrs(b.node, b.naddrs); });
        BOOST_TEST(has_text(text, b.message), b.node << ": " << text);
    }
    for (const char* name : {"Value", "/Value", ""}) {
        const std::string text =
            refusal([&] { CParamDiscreteMapping(node_of("Name=" + std::string(name)), 1); });
        BOOST_TEST(has_text(text, "[] Name = " + std::string(name) + ": not a value path"), text);
    }
    const std::string text = refusal([] { CParamDiscreteMapping(node_of("Address=1"), 1); });
    BOOST_TEST(has_text(text, "[]: no Name"), text);
    // Relative to the device path, so a name need not start with '/'.
    BOOST_TEST(CParamDiscreteMapping(node_of("Name=A/B/Value"), 1).param_path() == "A/B");
}

BOOST_AUTO_TEST_CASE(sample_unit) {
    const CEdsMapping eds(sample_eds("unit.eds"));
    BOOST_TEST(addrs("Address=0x10", 2).first == 16);
    BOOST_TEST(addrs("Address=65535", 1).first == 65535);

    const auto regs = eds.get_register_mappings(CAddressRange::all_addrs());
    BOOST_TEST((spans(regs) == std::vector<span_t>{{0, 3}, {8, 8}, {9, 10}, {11, 11}}));
    std::vector<size_t> ids;
    std::vector<std::string> paths;
    for (auto it = regs.first; it != regs.second; ++it) {
        ids.push_back(it->second->id());
        paths.push_back(it->second->path());
    }
    // File order: string 1, event (no id), discrete 2, then the registers.
    BOOST_TEST((ids == std::vector<size_t>{1, 3, 4, 5}));
    BOOST_TEST(paths[1] == "/Output/Voltage/Value");
    BOOST_TEST(regs.first->second->param_path() == "/Identity/Serial");
    // The frequency's registers reversed, both ways.
    const CParamRegisterMapping& frequency = *std::next(regs.first, 2)->second;
    BOOST_TEST(to_regs(frequency, CElement::from_float(1.0)) == (regvec_t{0x0000, 0x3F80}));
    BOOST_TEST(from_regs(frequency, {0x0000, 0x3F80}).to_float() == 1.0);

    const auto discretes = eds.get_discrete_mappings(CAddressRange::all_addrs());
    BOOST_TEST((spans(discretes) == std::vector<span_t>{{5, 5}}));
    const CParamDiscreteMapping& breaker = *discretes.first->second;
    BOOST_TEST(breaker.id() == 2u);
    // Negated both ways; a written bit is stamped by the store.
    BOOST_TEST(!breaker.translate(CElement::from_bool(true)));
    BOOST_TEST(breaker.translate(CElement::from_int(0)));
    const CElement written = breaker.translate(true);
    BOOST_TEST((written.is_bool() && !written.to_bool()));
    BOOST_TEST(CElement::is_invalid_time(written.time()));

    const auto events = eds.get_event_mappings(CAddressRange::all_addrs());
    BOOST_TEST((spans(events) == std::vector<span_t>{{256, 259}, {260, 260}}));
    BOOST_TEST(eds.max_event_index() == 4u);

    BOOST_TEST(
        (spans(eds.get_register_mappings(CAddressRange(10, 10))) == std::vector<span_t>{{9, 10}}));
    BOOST_TEST((spans(eds.get_register_mappings(CAddressRange(4, 7))).empty()));
    BOOST_TEST((spans(eds.get_event_mappings(CAddressRange(259, 300))) ==
                std::vector<span_t>{{256, 259}, {260, 260}}));

    const CEdsMapping empty(sample_eds("empty.eds"));
    BOOST_TEST(empty.max_event_index() == 0u);
    BOOST_TEST((spans(empty.get_register_mappings(CAddressRange::all_addrs())).empty()));
}

BOOST_AUTO_TEST_CASE(malformed_files) {
    // Each file fails with one error line at the default level: the caller's well-known
    // text, then where (file:line, section, key and value) and why. The refusals of values
    // have more cases in odd_values, those of nodes without a file in refused_nodes.
    struct {
        const char* file;
        const char* where; // after "<path>:"
        const char* why;
    } const cases[] = {
        {"no_such_file.eds", " cannot open", "No such file"},
        {"malformed_line.eds", "3: [Voltage]", "expected \"key = value\""},
        {"key_before_section.eds", "1: ", "key before the first section"},
        {"missing_type.eds", "1: [Untyped]", "no ExternalValueType"},
        {"int_bit_offset_4.eds", "7: [Nibble] BitOffset = 4", "bit offset 0 or 8"},
        {"int_size_1_offset_0.eds", "6: [Byte] Size = 1", "needs BitOffset = 8"},
        {"int_size_2_offset_8.eds", "6: [Word] Size = 2", "cannot start at BitOffset = 8"},
        {"int_without_size.eds", "1: [Sizeless]", "no Size"},
        {"float_size_2.eds", "5: [Half float] Size = 2", "Size = 4"},
        {"unknown_units.eds", "6: [Furlongs] Units = furlong", "units the store does not know"},
        {"bool_size_3.eds", "6: [Wide bit] Size = 3", "fits one register"},
        {"bad_date_spec.eds", "5: [Date] DateSpec = YYmdx", "each of dHIjmMSuwyYqQ"},
        {"missing_date_spec.eds", "1: [Date]", "no DateSpec"},
        {"date_size_mismatch.eds", "7: [Date] Size = 6", "DateSpec's 4 letters"},
        {"event_lower_case_property.eds", "3: [Event] EventProperty = time", "not one of ID"},
        {"event_without_property.eds", "1: [Event]", "no EventProperty"},
        {"event_negative_index.eds", "2: [Event] EventIndex = -1", "negative"},
    };
    for (const auto& c : cases) {
        const std::string path = sample_eds(c.file);
        const std::string text = refusal([&] { CEdsMapping eds(path); });
        const std::string head = "Error parsing EDS file: '" + path + "': " + path + ":";
        BOOST_TEST(text.find(head + c.where) != std::string::npos, c.file << ": " << text);
        BOOST_TEST(text.find(c.why) != std::string::npos, c.file << ": " << text);
        // One line, so that counting errors counts problems.
        BOOST_TEST(lines_in(text) == 0, c.file << ": " << text);
    }
}

BOOST_AUTO_TEST_CASE(odd_values) {
    // Values no meaning can be given are refused. Spellings that have a meaning but are likely
    // mistakes load with one warning and the meaning taken, and are refused when mapping files
    // are strict. (What they read as is shown end to end by the server suite.) Every message
    // names the line of the key.
    struct {
        const char* keys;
        const char* where;
        const char* why; // the meaning taken, when taken
        bool taken;
    } const cases[] = {
        {"ExternalValueType = DATATYPE_UINT\nSize = 8", "Size = 8", "1 to 4 bytes", false},
        {"ExternalValueType = DATATYPE_INT\nSize = 5", "Size = 5", "1 to 4 bytes", false},
        {"ExternalValueType = DATATYPE_UINT\nSize = 2\nMultiplier = 0", "Multiplier = 0",
         "must not be 0", false},
        {"ExternalValueType = DATATYPE_FLOAT\nSize = 4\nDivider = 2147483648",
         "Divider = 2147483648", "out of range", false},
        {"ExternalValueType = DATATYPE_BOOL\nBitOffset = 15", "BitOffset = 15", "0 or 8", false},
        {"ExternalValueType = uint\nSize = 2", "ExternalValueType = uint", "unknown type", false},
        {"ExternalValueType = DATATYPE_UINT\nSize = 2\nMultiplier = 1e3", "Multiplier = 1e3",
         "not a number", false},
        {"ExternalValueType = DATATYPE_TIME\nDateSpec = YYmd\nBitOffset = 4", "BitOffset = 4",
         "bit offset 0 or 8", false},
        {"Discrete = true\nNegateValue = yes", "NegateValue = yes", "not negated", true},
        {"Discrete = maybe\nExternalValueType = DATATYPE_BOOL", "Discrete = maybe",
         "a register mapping", true},
        {"ExternalValueType = DATATYPE_UINT\nSize = 2\nEndianness = ", "Endianness = ",
         "empty; taken as 0: bytes not swapped", true},
        {"ExternalValueType = DATATYPE_TIME\nDateSpec = YYmd\nTimestamp = 2", "Timestamp = 2",
         "taken as 1", true},
        {"ExternalValueType = DATATYPE_UINT\nSize = 2\nDivider = -3", "Divider = -3",
         "wraps around", true},
        {"EventIndex = 65536\nEventProperty = ID\nExternalValueType = DATATYPE_UINT\nSize = 4",
         "EventIndex = 65536", "reads as an empty slot", true},
        {"ExternalValueType = DATATYPE_UINT\nSize = 2\nMultipler = 10", "Multipler = 10",
         "unknown key; ignored", true},
    };
    CTempDir dir;
    const std::string path = dir.file("odd.eds");
    for (const auto& c : cases) {
        const std::string where = odd_node(path, c.keys, c.where);
        if (c.taken) {
            CSubsystemLog log(SS_MAPPING, 0);
            BOOST_CHECK_NO_THROW(CEdsMapping eds(path));
            const std::string text = log.text();
            BOOST_TEST((has_text(text, "WARN [0] ") && has_text(text, where + ": ")), text);
            BOOST_TEST(has_text(text, c.why), text);
            BOOST_TEST(lines_in(text) == 1, text);
        }
        const std::string text = refusal([&] { CEdsMapping eds(path, c.taken); });
        BOOST_TEST(has_text(text, "Error parsing EDS file: '" + path + "': " + where + ": "), text);
        BOOST_TEST(has_text(text, c.taken ? "(mapping files are strict)" : c.why), text);
        BOOST_TEST(lines_in(text) == 0, text);
    }
}

// Overlapping mappings load silently; asked, the file names each pair once.
BOOST_AUTO_TEST_CASE(overlaps_are_warned_about_when_asked) {
    CTempDir dir;
    const std::string path = dir.file("overlap.eds");
    const std::string uint = "ExternalValueType = DATATYPE_UINT\nSize = ";
    write_text(path, "[S]\nName = /S/Value\nAddress = 31\n" + uint + "4\n" +          // line 1
                         "[W]\nName = /W/Value\nAddress = 30\n" + uint + "4\n" +      // 6
                         "[Inside]\nName = /I/Value\nAddress = 31\n" + uint + "2\n" + // 11
                         "[Coil]\nName = /C/Value\nAddress = 31\nDiscrete = true\n" + // 16
                         "[Coil again]\nName = /D/Value\nAddress = 31\nDiscrete = true\n");
    CSubsystemLog log(SS_MAPPING, 0);
    const CEdsMapping eds(path);
    BOOST_TEST((spans(eds.get_register_mappings(CAddressRange(31, 31))) ==
                std::vector<span_t>{{30, 31}, {31, 32}, {31, 31}}));
    BOOST_TEST(eds.warn_overlaps() == 4u);
    const std::string text = log.text();
    const std::vector<std::string> lines = {
        path + ":6: [W] overlaps [S] (line 1) at registers 31 to 31; [S] wins there",
        path + ":11: [Inside] overlaps [S] (line 1) at registers 31 to 31; [S] wins there",
        path + ":11: [Inside] overlaps [W] (line 6) at registers 31 to 31; [W] wins there",
        path + ":20: [Coil again] overlaps [Coil] (line 16) at discretes 31 to 31; [Coil] wins "
               "there",
    };
    for (const std::string& line : lines)
        BOOST_TEST(has_text(text, line), line << "\n" << text);
    BOOST_TEST(lines_in(text) == long(lines.size()), text);
}

BOOST_AUTO_TEST_SUITE_END()
