#include "mapping_test_util.h"
#include "modbus/map/eds_mapping.h"
#include "toolkit/store_fixture.h"

#include <boost/test/unit_test.hpp>

#include <algorithm>
#include <vector>

namespace {

typedef std::pair<regaddr_t, regaddr_t> span_t;

template <class Range> std::vector<span_t> spans(const Range& range) {
    std::vector<span_t> out;
    for (auto it = range.first; it != range.second; ++it)
        out.emplace_back(it->first.first, it->first.second);
    return out;
}

CAddressRange addrs(const char* address, size_t naddrs) {
    return CEdsMapping::get_addrs(make_node({{"Address", address}}), naddrs);
}

} // namespace

BOOST_AUTO_TEST_SUITE(mapping)

BOOST_AUTO_TEST_CASE(address_ranges) {
    const CAddressRange r(10, 12);
    BOOST_TEST(!CAddressRange(0, 9).overlaps(r));
    BOOST_TEST(CAddressRange(0, 10).overlaps(r)); // one address in common
    BOOST_TEST(r.overlaps(CAddressRange(12, 20)));
    BOOST_TEST(!r.overlaps(CAddressRange(13, 20)));
    BOOST_TEST(CAddressRange(11, 11).overlaps(r));
    BOOST_TEST(r.size() == 3u);
    BOOST_TEST(CAddressRange::all_addrs().size() == 65536u);
}

BOOST_AUTO_TEST_CASE(addresses_of_a_node) {
    const CAddressRange hex = addrs("0x10", 2);
    BOOST_TEST(hex.first == 16);
    BOOST_TEST(hex.second == 17);
    const CAddressRange oct = addrs("010", 2);
    BOOST_TEST(oct.first == 8);
    BOOST_TEST(oct.second == 9);
    const CAddressRange last = addrs("65535", 1);
    BOOST_TEST(last.first == 65535);
    BOOST_TEST(last.second == 65535);

    struct {
        const char* address;
        size_t naddrs;
        const char* message;
    } const bad[] = {
        {"12abc", 1, "[] Address = 12abc: not a number"},
        {"", 1, "[] Address = : not a number"},
        {"-1", 1, "[] Address = -1: out of range (0 to 65535)"},
        {"65536", 1, "[] Address = 65536: out of range (0 to 65535)"},
        {"99999999999999999999999", 1, "out of range (0 to 65535)"},
        {"65535", 2, "[] Address = 65535: its 2 addresses run past 65535"},
        {"65000", 600, "[] Address = 65000: its 600 addresses run past 65535"},
    };
    for (const auto& b : bad) {
        const std::string text = refusal([&] { addrs(b.address, b.naddrs); });
        BOOST_TEST(text.find(b.message) != std::string::npos, b.address << ": " << text);
    }
    const std::string text = refusal([] {
        CEdsMapping::get_addrs(make_node({{"Name", "/A/V"}}), 1);
    });
    BOOST_TEST(text.find("[]: no Address") != std::string::npos, text);
}

BOOST_AUTO_TEST_CASE(sample_unit) {
    const CEdsMapping eds(sample_eds("unit.eds"));

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

    const auto discretes = eds.get_discrete_mappings(CAddressRange::all_addrs());
    BOOST_TEST((spans(discretes) == std::vector<span_t>{{5, 5}}));
    BOOST_TEST(discretes.first->second->id() == 2u);
    BOOST_TEST(discretes.first->second->negate());

    const auto events = eds.get_event_mappings(CAddressRange::all_addrs());
    BOOST_TEST((spans(events) == std::vector<span_t>{{256, 259}, {260, 260}}));
    BOOST_TEST(eds.max_event_index() == 4u);

    BOOST_TEST(
        (spans(eds.get_register_mappings(CAddressRange(10, 10))) == std::vector<span_t>{{9, 10}}));
    BOOST_TEST((spans(eds.get_register_mappings(CAddressRange(4, 7))).empty()));
    BOOST_TEST((spans(eds.get_event_mappings(CAddressRange(259, 300))) ==
                std::vector<span_t>{{256, 259}, {260, 260}}));
}

BOOST_AUTO_TEST_CASE(overlapping_mappings) {
    const CEdsMapping eds(sample_eds("overlap.eds"));
    BOOST_TEST((spans(eds.get_register_mappings(CAddressRange(10, 10))) ==
                std::vector<span_t>{{8, 11}, {10, 10}}));
    BOOST_TEST((spans(eds.get_register_mappings(CAddressRange::all_addrs())) ==
                std::vector<span_t>{{8, 11}, {10, 10}, {11, 12}}));

    const CEdsMapping empty(sample_eds("empty.eds"));
    BOOST_TEST(empty.max_event_index() == 0u);
    BOOST_TEST((spans(empty.get_register_mappings(CAddressRange::all_addrs())).empty()));
}

BOOST_AUTO_TEST_CASE(malformed_files) {
    // Each file fails with one error line at the default level: the caller's well-known
    // text, then where (file:line, section, key and value) and why.
    struct {
        const char* file;
        const char* where; // after "<path>:"
        const char* why;
    } const cases[] = {
        {"no_such_file.eds", " cannot open", "No such file"},
        {"malformed_line.eds", "3: [Voltage]", "expected \"key = value\""},
        {"key_before_section.eds", "1: ", "key before the first section"},
        {"missing_name.eds", "2: [Voltage]", ": no Name"},
        {"name_without_slash.eds", "9: [Bad] Name = /Value", "not a value path"},
        {"missing_address.eds", "1: [No address]", ": no Address"},
        {"negative_address.eds", "3: [Negative] Address = -1", "out of range (0 to 65535)"},
        {"address_past_end.eds", "4: [Past the end] Address = 65535", "run past 65535"},
        {"address_not_a_number.eds", "3: [Garbage] Address = 12abc", "not a number"},
        {"missing_type.eds", "1: [Untyped]", "no ExternalValueType"},
        {"unknown_type.eds", "4: [Double] ExternalValueType = DATATYPE_DOUBLE", "unknown type"},
        {"size_too_big.eds", "5: [Huge] Size = 65536", "out of range (1 to 65535)"},
        {"bit_offset_16.eds", "5: [Past the last bit] BitOffset = 16", "out of range (0 to 15)"},
        {"bool_bit_offset_3.eds", "6: [Bit 3] BitOffset = 3", "must be 0 or 8"},
        {"int_bit_offset_4.eds", "7: [Nibble] BitOffset = 4", "bit offset 0 or 8"},
        {"int_size_1_offset_0.eds", "6: [Byte] Size = 1", "needs BitOffset = 8"},
        {"int_size_2_offset_8.eds", "6: [Word] Size = 2", "cannot start at BitOffset = 8"},
        {"int_without_size.eds", "1: [Sizeless]", "no Size"},
        {"float_size_2.eds", "5: [Half float] Size = 2", "Size = 4"},
        {"unknown_units.eds", "6: [Furlongs] Units = furlong", "units the store does not know"},
        {"zero_divider.eds", "6: [Divide by zero] Divider = 0", "must not be 0"},
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
        BOOST_TEST(std::count(text.begin(), text.end(), '\n') == 0, c.file << ": " << text);
    }
}

BOOST_AUTO_TEST_CASE(refused_values) {
    // Values no meaning can be given, each refused with a message naming the line of the key.
    struct {
        const char* keys;
        const char* where;
        const char* why;
    } const cases[] = {
        {"ExternalValueType = DATATYPE_UINT\nSize = 8", "Size = 8", "1 to 4 bytes"},
        {"ExternalValueType = DATATYPE_INT\nSize = 5", "Size = 5", "1 to 4 bytes"},
        {"ExternalValueType = DATATYPE_UINT\nSize = 2\nMultiplier = 0", "Multiplier = 0",
         "must not be 0"},
        {"ExternalValueType = DATATYPE_FLOAT\nSize = 4\nDivider = 2147483648",
         "Divider = 2147483648", "out of range"},
        {"ExternalValueType = DATATYPE_BOOL\nBitOffset = 15", "BitOffset = 15", "0 or 8"},
        {"ExternalValueType = uint\nSize = 2", "ExternalValueType = uint", "unknown type"},
        {"ExternalValueType = DATATYPE_UINT\nSize = 2\nMultiplier = 1e3", "Multiplier = 1e3",
         "not a number"},
    };
    CTempDir dir;
    const std::string path = dir.file("bad.eds");
    for (const auto& c : cases) {
        // The bad node second, so that the line is not the first node's.
        write_text(path, "[Good]\nName = /A/Value\nAddress = 0\nExternalValueType = DATATYPE_UINT\n"
                         "Size = 2\n\n[Bad one]\nName = /B/Value\nAddress = 1\n" +
                             std::string(c.keys) + "\n");
        // The key's line: the tenth, plus the lines before it in c.keys.
        const std::string keys = c.keys;
        const size_t at = keys.find(c.where);
        BOOST_REQUIRE(at != std::string::npos);
        const long line = 10 + std::count(keys.begin(), keys.begin() + at, '\n');
        const std::string text = refusal([&] { CEdsMapping eds(path); });
        const std::string where =
            path + ":" + std::to_string(line) + ": [Bad one] " + c.where + ": ";
        BOOST_TEST(has_text(text, "Error parsing EDS file: '" + path + "': " + where), text);
        BOOST_TEST(has_text(text, c.why), text);
        BOOST_TEST(std::count(text.begin(), text.end(), '\n') == 0, text);
    }
}

BOOST_AUTO_TEST_CASE(likely_mistakes_warn_or_fail_when_strict) {
    // Spellings that have a meaning but are likely mistakes: one warning with the meaning
    // taken; strict, one error. (What they read as is shown end to end by the server suite.)
    struct {
        const char* keys;
        const char* where;
        const char* taken;
    } const cases[] = {
        {"Discrete = true\nNegateValue = yes", "NegateValue = yes", "not negated"},
        {"Discrete = maybe\nExternalValueType = DATATYPE_BOOL", "Discrete = maybe",
         "a register mapping"},
        {"ExternalValueType = DATATYPE_UINT\nSize = 2\nEndianness = ", "Endianness = ",
         "empty; taken as 0: bytes not swapped"},
        {"ExternalValueType = DATATYPE_TIME\nDateSpec = YYmd\nTimestamp = 2", "Timestamp = 2",
         "taken as 1"},
        {"ExternalValueType = DATATYPE_UINT\nSize = 2\nDivider = -3", "Divider = -3",
         "wraps around"},
        {"EventIndex = 65536\nEventProperty = ID\nExternalValueType = DATATYPE_UINT\nSize = 4",
         "EventIndex = 65536", "reads as an empty slot"},
        {"ExternalValueType = DATATYPE_UINT\nSize = 2\nMultipler = 10", "Multipler = 10",
         "unknown key; ignored"},
    };
    CTempDir dir;
    const std::string path = dir.file("likely.eds");
    for (const auto& c : cases) {
        write_text(path, "[Good]\nName = /A/Value\nAddress = 0\nExternalValueType = DATATYPE_UINT\n"
                         "Size = 2\n\n[Odd one]\nName = /B/Value\nAddress = 1\n" +
                             std::string(c.keys) + "\n");
        const std::string keys = c.keys;
        const long line = 10 + std::count(keys.begin(), keys.begin() + keys.find(c.where), '\n');
        const std::string where = path + ":" + std::to_string(line) + ": [Odd one] " + c.where;
        {
            CMappingLog log(0);
            BOOST_CHECK_NO_THROW(CEdsMapping eds(path));
            const std::string text = log.text();
            BOOST_TEST(has_text(text, "WARN [0] "), text);
            BOOST_TEST(has_text(text, where + ": "), text);
            BOOST_TEST(has_text(text, c.taken), text);
            BOOST_TEST(std::count(text.begin(), text.end(), '\n') == 1, text);
        }
        const std::string text = refusal([&] { CEdsMapping eds(path, true); });
        BOOST_TEST(has_text(text, "Error parsing EDS file: '" + path + "': " + where + ": "),
                   text);
        BOOST_TEST(has_text(text, "(mapping files are strict)"), text);
        BOOST_TEST(std::count(text.begin(), text.end(), '\n') == 0, text);
    }
}

BOOST_AUTO_TEST_CASE(warnings_at_load) {
    CTempDir dir;
    const std::string path = dir.file("warn.eds");
    write_text(path, "[S]\n"                           // 1
                     "Name = /Overlap/Shifted/Value\n" // 2
                     "Address = 31\n"                  // 3
                     "ExternalValueType = DATATYPE_UINT\n"
                     "Size = 4\n"
                     "Multipler = 10\n" // 6: misspelt, ignored
                     "[W]\n"            // 7
                     "Name = /Overlap/Wide/Value\n"
                     "Address = 30\n"
                     "ExternalValueType = DATATYPE_UINT\n"
                     "Size = 4\n"
                     "[Inside]\n" // 12
                     "Name = /Overlap/Same A/Value\n"
                     "Address = 31\n"
                     "ExternalValueType = DATATYPE_UINT\n"
                     "Size = 2\n"
                     "Colour = red\n" // 17
                     "[Coil]\n"       // 18
                     "Name = /C/Value\n"
                     "Address = 31\n"
                     "Discrete = true\n"
                     "[Coil again]\n" // 22
                     "Name = /D/Value\n"
                     "Address = 31\n"
                     "Discrete = true\n");
    std::string text;
    {
        CMappingLog log(0);
        const CEdsMapping eds(path);
        text = log.text();
        // Overlaps stay legal: the lookups return both.
        BOOST_TEST((spans(eds.get_register_mappings(CAddressRange(31, 31))) ==
                    std::vector<span_t>{{30, 31}, {31, 32}, {31, 31}}));
    }
    // Unknown keys while the file loads, in file order.
    const std::string unknown = path + ":6: [S] Multipler = 10: unknown key; ignored";
    const std::string colour = path + ":17: [Inside] Colour = red: unknown key; ignored";
    BOOST_TEST(has_text(text, unknown), text);
    BOOST_TEST(has_text(text, colour), text);
    BOOST_TEST(text.find(unknown) < text.find(colour));
    BOOST_TEST(std::count(text.begin(), text.end(), '\n') == 2, text);

    // Overlaps when asked, once per pair.
    CMappingLog quiet(-1);
    const CEdsMapping eds(path);
    quiet.text();
    CMappingLog log(0);
    BOOST_TEST(eds.warn_overlaps() == 4u);
    text = log.text();
    const std::vector<std::string> lines = {
        path + ":7: [W] overlaps [S] (line 1) at registers 31 to 31; [S] wins there",
        path + ":12: [Inside] overlaps [S] (line 1) at registers 31 to 31; [S] wins there",
        path + ":12: [Inside] overlaps [W] (line 7) at registers 31 to 31; [W] wins there",
        path + ":22: [Coil again] overlaps [Coil] (line 18) at discretes 31 to 31; [Coil] wins "
               "there",
    };
    for (const std::string& line : lines)
        BOOST_TEST(has_text(text, line), line << "\n" << text);
    BOOST_TEST(std::count(text.begin(), text.end(), '\n') == long(lines.size()), text);
}

BOOST_AUTO_TEST_SUITE_END()
