#include "mapping_test_util.h"
#include "modbus/map/eds_mapping.h"
#include "util/generic_err.h"

#include <boost/test/unit_test.hpp>

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

BOOST_AUTO_TEST_CASE(address_range_ordering) {
    const CAddressRange r(10, 12);
    BOOST_TEST((CAddressRange(0, 9) < r));
    BOOST_TEST(!(CAddressRange(0, 10) < r)); // overlap at one address
    BOOST_TEST(!(r < CAddressRange(12, 20)));
    BOOST_TEST((r < CAddressRange(13, 20)));
    BOOST_TEST(!(r < r));
    BOOST_TEST(r.size() == 3u);
    BOOST_TEST(CAddressRange::all_addrs().first == 0);
    BOOST_TEST(CAddressRange::all_addrs().second == 65535);
    BOOST_TEST(CAddressRange::all_addrs().size() == 65536u);
    BOOST_TEST(aborts([] { (void)(CAddressRange(5, 4) < CAddressRange(0, 1)); }));
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
        {"12abc", 1, nullptr},
        {"", 1, nullptr},
        {"-1", 1, "Address -1 is invalid"},
        {"65536", 1, "Address 65536 is invalid"},
        {"65535", 2, "Address range (65535, 65536) is invalid"},
        {"65000", 600, "Address range (65000, 65599) is invalid"},
    };
    for (const auto& b : bad) {
        CMappingLog log;
        BOOST_CHECK_THROW(addrs(b.address, b.naddrs), generic_err);
        const std::string text = log.text();
        if (b.message)
            BOOST_TEST(text.find(b.message) != std::string::npos, b.address << ": " << text);
        else
            BOOST_TEST(text.empty(), b.address << ": " << text);
    }
    CMappingLog log;
    BOOST_CHECK_THROW(CEdsMapping::get_addrs(make_node({{"Name", "/A/V"}}), 1), generic_err);
    BOOST_TEST(log.text().find("No address specified for mapping") != std::string::npos);
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
    // Each file fails with the error line it should log, or none where the caller's
    // "Error parsing EDS file" is all the user gets.
    struct {
        const char* file;
        const char* message;
    } const cases[] = {
        {"no_such_file.eds", "Can't open EDS file '"},
        {"malformed_line.eds", "Encountered error while processing '"},
        {"key_before_section.eds", "Encountered error while processing '"},
        {"missing_name.eds", nullptr},
        {"name_without_slash.eds", nullptr},
        {"missing_address.eds", "No address specified for mapping"},
        {"negative_address.eds", "Address -1 is invalid"},
        {"address_past_end.eds", "Address range (65535, 65536) is invalid"},
        {"address_not_a_number.eds", nullptr},
        {"missing_type.eds", nullptr},
        {"unknown_type.eds", nullptr},
        {"size_too_big.eds", nullptr},
        {"bit_offset_16.eds", nullptr},
        {"int_bit_offset_4.eds", nullptr},
        {"int_size_1_offset_0.eds", nullptr},
        {"int_size_2_offset_8.eds", nullptr},
        {"int_without_size.eds", nullptr},
        {"float_size_2.eds", nullptr},
        {"unknown_units.eds", nullptr},
        {"zero_divider.eds", nullptr},
        {"bool_size_3.eds", nullptr},
        {"bad_date_spec.eds", nullptr},
        {"missing_date_spec.eds", nullptr},
        {"date_size_mismatch.eds", nullptr},
        {"event_lower_case_property.eds", "Event mapping has invalid type: 'time'"},
        {"event_without_property.eds", "No type specified for event mapping"},
        {"event_negative_index.eds", "Bad index: -1"},
        {"event_index_too_big.eds", "Bad index: 65536"},
    };
    for (const auto& c : cases) {
        CMappingLog log;
        BOOST_CHECK_THROW(CEdsMapping eds(sample_eds(c.file)), generic_err);
        const std::string text = log.text();
        if (c.message)
            BOOST_TEST(text.find(c.message) != std::string::npos, c.file << ": " << text);
        else
            BOOST_TEST(text.empty(), c.file << ": " << text);
    }
}

BOOST_AUTO_TEST_CASE(bit_offset_other_than_0_or_8_aborts) {
    // Kept on purpose: the register count asserts while the file is parsed.
    BOOST_TEST(aborts([] { CEdsMapping eds(sample_eds("bool_bit_offset_3.eds")); }));
}

BOOST_AUTO_TEST_SUITE_END()
