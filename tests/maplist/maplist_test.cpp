#include "data/sample_store.h"
#include "modbus/config/modbus_config.h"
#include "support/subsystem_log.h"
#include "test/global_test_data.h"
#include "util/generic_err.h"

#include <boost/test/unit_test.hpp>

#include <algorithm>
#include <ctime>

using toolkit::CElement;

namespace {

// The sample configuration, with requests run the way the handlers run them: one read of
// the leaves a list names, under the device path, then the translation.
struct CSample {
    CTestStore store;
    std::unique_ptr<CCdsHandle> cds;
    std::unique_ptr<CModbusConfig> cfg;
    std::unique_ptr<CEventQueue> events;

    CSample() {
        load_sample_store(store);
        cds = std::make_unique<CCdsHandle>();
        cfg = std::make_unique<CModbusConfig>(CModbusSettings(*cds));
        events = std::make_unique<CEventQueue>(cfg->max_event_index() + 1, "");
    }

    CModbusDeviceConfig& ups() { return *cfg->tcp_config(1); }

    cds_leaf_set_t fetch(const CModbusDeviceConfig& dev, const cds_leaf_set_t& paths) {
        cds_leaf_set_t leaves = paths;
        cds->get(leaves, dev.path());
        return leaves;
    }

    regvec_t read(const CModbusDeviceConfig& dev, regaddr_t first, regaddr_t last) {
        const auto list = dev.get_registers(CAddressRange(first, last));
        const cds_leaf_set_t leaves = fetch(dev, list->get_paths(true, true));
        list->update_configs(leaves);
        return list->translate_vals(leaves, *events);
    }
    regvec_t read(regaddr_t first, regaddr_t last) { return read(ups(), first, last); }

    std::vector<bool> read_bits(regaddr_t first, regaddr_t last) {
        const auto list = ups().get_discretes(CAddressRange(first, last));
        const cds_leaf_set_t leaves = fetch(ups(), list->get_paths(true, true));
        list->update_configs(leaves);
        return list->translate_vals(leaves);
    }

    // The leaves a register write stores, after the padding that check_range asks for.
    cds_leaf_set_t write(regaddr_t first, regvec_t vals, int* checked = nullptr) {
        const auto list = ups().get_registers(
            CAddressRange(first, static_cast<regaddr_t>(first + vals.size() - 1)));
        const cds_leaf_set_t leaves = fetch(ups(), list->get_paths(true, true));
        list->update_configs(leaves);
        const int n = list->check_range(leaves, vals);
        if (checked)
            *checked = n;
        if (n > static_cast<int>(vals.size()))
            vals.resize(static_cast<size_t>(n), 0);
        cds_leaf_set_t out = list->get_vals(leaves, vals);
        cds->set(out, ups().path());
        for (const CCdsLeaf& leaf : out)
            BOOST_TEST(leaf._status == API_STATUS_OK, leaf._path);
        return out;
    }

    cds_leaf_set_t write_bits(regaddr_t first, const std::vector<bool>& vals) {
        const auto list = ups().get_discretes(
            CAddressRange(first, static_cast<regaddr_t>(first + vals.size() - 1)));
        const cds_leaf_set_t leaves = fetch(ups(), list->get_paths(true, true));
        list->update_configs(leaves);
        cds_leaf_set_t out = list->get_vals(leaves, vals);
        cds->set(out, ups().path());
        return out;
    }

    CElement value(const tk_string& path) { return store.value("/Devices/UPS" + path); }
};

std::vector<tk_string> paths_of(const cds_leaf_set_t& leaves) {
    std::vector<tk_string> out;
    for (const CCdsLeaf& leaf : leaves)
        out.push_back(leaf._path);
    std::sort(out.begin(), out.end());
    return out;
}

} // namespace

BOOST_AUTO_TEST_SUITE(maplist)

BOOST_FIXTURE_TEST_CASE(registers_of_every_translator, CSample) {
    const regvec_t want{
        0x5550, 0x532D, 0x3330, 0x3030, // "UPS-3000"
        0x534E, 0x3132, 0x3334, 0x3500, // "SN12345", 7 bytes
        2300,                           // 230 times 10
        1250,                           // 12.5 A times 100, signed
        0x0001, 0x1170,                 // 70000
        0x424A, 0x0000,                 // 50.5 Hz
        0x0000, 0xC03F,                 // 1500 W as 1.5 kW, bytes and words swapped
        0xFFFB,                         // -5
        0x8000,                         // bit at offset 0
        0x0080,                         // bit at offset 8
        0x0012, 0x3456,                 // three bytes from the low byte
    };
    BOOST_TEST(read(0, 20) == want);

    // The time stamp mapping follows the store's stamp of the voltage.
    cds_leaf_set_t probe{CCdsLeaf("/Output/Voltage/Value")};
    cds->get(probe, ups().path());
    const time_t stamp = probe.begin()->_element.time().tv_sec;
    tm t{};
    gmtime_r(&stamp, &t);
    const regvec_t times = read(22, 27);
    BOOST_TEST(
        (regvec_t(times.begin(), times.begin() + 4) == regvec_t{2026, 0x0305, 0x0C22, 0x0038}));
    BOOST_TEST(times[4] == (t.tm_hour << 8 | t.tm_min));
    BOOST_TEST(times[5] == t.tm_sec);

    // Another unit over the same file reads its own device.
    BOOST_TEST((read(*cfg->tcp_config(2), 0, 3) == regvec_t{0x5550, 0x532D, 0x3135, 0x3030}));
    BOOST_TEST((read(*cfg->tcp_config(2), 8, 8) == regvec_t{1200}));
    BOOST_TEST((read(*cfg->serial_config(0, 17), 0, 2) == regvec_t{0x0001, 0xE240, 2305}));
    // The second file of unit 1.
    BOOST_TEST((read(200, 201) == regvec_t{0x0001, 0xE240}));
    BOOST_TEST(
        cfg->tcp_config(2)->get_registers(CAddressRange(200, 201))->get_paths(true, true).empty());
}

BOOST_FIXTURE_TEST_CASE(gaps_failed_leaves_and_zero_fill, CSample) {
    // 21 is unmapped, 50 has no leaf, 51 a writable attribute but no value.
    BOOST_CHECK_THROW(read(19, 22), generic_err);
    BOOST_CHECK_THROW(read(50, 50), generic_err);
    BOOST_CHECK_THROW(read(51, 51), generic_err);
    // Registers that only events cover count as unmapped, and name no leaf to read.
    BOOST_CHECK_THROW(read(255, 256), generic_err);
    BOOST_TEST(ups().get_registers(CAddressRange(256, 266))->get_paths(true, true).empty());

    CModbusDeviceConfig zero(ups().path(), ups().eds(), true);
    BOOST_TEST((read(zero, 19, 22) == regvec_t{0x0012, 0x3456, 0, 0x07EA}));
    BOOST_TEST((read(zero, 49, 52) == regvec_t{0, 0, 0, 0}));
    const auto events_only = zero.get_registers(CAddressRange(256, 266));
    BOOST_TEST(events_only->event_ranges().size() == 1u);
    BOOST_TEST(events_only->translate_vals({}, *this->events) == regvec_t(11, 0));
}

BOOST_FIXTURE_TEST_CASE(edges_and_overlaps, CSample) {
    // "Rack 7A1" on 99..102: a read inside it gives only the registers asked for.
    BOOST_TEST((read(100, 101) == regvec_t{0x636B, 0x2037}));
    CModbusDeviceConfig zero(ups().path(), ups().eds(), true);
    BOOST_TEST((read(zero, 98, 99) == regvec_t{0, 0x5261}));
    BOOST_TEST((read(zero, 102, 103) == regvec_t{0x4131, 0}));

    // Wide (id 14) on 30..31 and Shifted (id 15) on 31..32: the lower id keeps 31.
    BOOST_TEST((read(30, 32) == regvec_t{0x00AA, 0x00BB, 0x00DD}));
    BOOST_TEST((read(31, 31) == regvec_t{0x00BB}));
    BOOST_TEST((read(32, 32) == regvec_t{0x00DD}));
    // Two parameters on 34: the lower id.
    BOOST_TEST((read(34, 34) == regvec_t{0x0101}));
}

BOOST_FIXTURE_TEST_CASE(attributes_are_read_once, CSample) {
    auto list = ups().get_registers(CAddressRange(8, 16));
    BOOST_TEST((paths_of(list->get_paths(false, true)) ==
                std::vector<tk_string>{
                    "/Battery/Charge Cycles/Units", "/Battery/Charge Cycles/Writable",
                    "/Battery/Temperature/Units", "/Battery/Temperature/Writable",
                    "/Input/Frequency/Units", "/Input/Frequency/Writable", "/Input/Power/Units",
                    "/Input/Power/Writable", "/Output/Current/Units", "/Output/Current/Writable",
                    "/Output/Voltage/Units", "/Output/Voltage/Writable"}));
    BOOST_TEST(list->get_paths(true, false).size() == 6u);
    const cds_leaf_set_t leaves = fetch(ups(), list->get_paths(true, true));
    list->update_configs(leaves);

    const auto& c = list->configs();
    BOOST_REQUIRE(c.size() == 6u);
    BOOST_TEST((c[0]->writable() && c[0]->units() == KVR_UNITS_NONE));
    BOOST_TEST((!c[1]->writable() && c[1]->units() == kvr_units_str_to_enum("A")));
    BOOST_TEST((c[2]->writable() && c[2]->units() == KVR_UNITS_NONE));
    BOOST_TEST((!c[4]->writable() && c[4]->units() == kvr_units_str_to_enum("W")));
    // A unit the store does not know leaves none.
    BOOST_TEST((c[5]->writable() && c[5]->units() == KVR_UNITS_NONE));
    for (const auto* cfg : c)
        BOOST_TEST(cfg->updated());

    // The next request over the same parameters asks for their values only, and a change
    // of an attribute in the store is not seen.
    store.define("/Devices/UPS/Output/Voltage/Writable", CElement::TYPE_BOOL,
                 CElement::from_bool(false));
    list = ups().get_registers(CAddressRange(8, 8));
    BOOST_TEST(
        (paths_of(list->get_paths(true, true)) == std::vector<tk_string>{"/Output/Voltage/Value"}));
    list->update_configs(fetch(ups(), list->get_paths(true, true)));
    BOOST_TEST(list->configs()[0]->writable());
}

BOOST_FIXTURE_TEST_CASE(register_writes, CSample) {
    int checked = 0;
    write(8, {2400}, &checked);
    BOOST_TEST(checked == 1);
    BOOST_TEST(value("/Output/Voltage/Value").to_uint() == 240u);
    write(10, {0x0002, 0x0003});
    BOOST_TEST(value("/Battery/Charge Cycles/Value").to_uint() == 0x20003u);

    // Not writable, or no value to merge into: nothing to write, and nothing to cover.
    BOOST_TEST(write(9, {1}, &checked).empty());
    BOOST_TEST(checked == -1);
    BOOST_TEST(write(51, {1}, &checked).empty());
    BOOST_TEST(checked == -1);

    // Half of a two-register parameter: it asks for both, but is not written.
    BOOST_TEST(write(11, {7}, &checked).empty());
    BOOST_TEST(checked == 2);
    BOOST_TEST(value("/Battery/Charge Cycles/Value").to_uint() == 0x20003u);

    // Overlaps: whatever lies wholly inside is written, the lower id first.
    BOOST_TEST((paths_of(write(31, {0x0001, 0x0002})) ==
                std::vector<tk_string>{"/Overlap/Shifted/Value"}));
    BOOST_TEST(value("/Overlap/Shifted/Value").to_uint() == 0x10002u);
    BOOST_TEST(value("/Overlap/Wide/Value").to_uint() == 0x00AA00BBu);
    BOOST_TEST(
        (paths_of(write(30, {0x0003, 0x0004})) == std::vector<tk_string>{"/Overlap/Wide/Value"}));
    BOOST_TEST(value("/Overlap/Wide/Value").to_uint() == 0x30004u);
    BOOST_TEST((paths_of(write(34, {9})) == std::vector<tk_string>{"/Overlap/Same A/Value"}));
    BOOST_TEST(value("/Overlap/Same B/Value").to_uint() == 514u);

    // A time stamp cannot be written.
    CSubsystemLog log(SS_MAPPING, 2);
    BOOST_CHECK_THROW(write(26, {0x0102, 0x0003}), generic_err);
    BOOST_TEST(has_text(log.text(), "Can't set a value's timestamp via Modbus"));
}

BOOST_FIXTURE_TEST_CASE(discretes, CSample) {
    CModbusDeviceConfig zero(ups().path(), ups().eds(), true);
    auto bits = [&](regaddr_t first, regaddr_t last) {
        const auto list = zero.get_discretes(CAddressRange(first, last));
        const cds_leaf_set_t leaves = fetch(zero, list->get_paths(true, true));
        list->update_configs(leaves);
        return list->translate_vals(leaves);
    };
    // Low, Replace, Breaker (negated), gap, Overload, Relay One over Two, missing, ghost.
    BOOST_TEST((bits(0, 7) == std::vector<bool>{1, 1, 0, 0, 0, 1, 0, 0}));
    BOOST_TEST((bits(10, 12) == std::vector<bool>{1, 0, 1}));
    BOOST_TEST((read_bits(0, 2) == std::vector<bool>{1, 1, 0}));
    BOOST_TEST((read_bits(5, 5) == std::vector<bool>{1}));
    BOOST_TEST((read_bits(20, 20) == std::vector<bool>{1})); // the unit's second file
    BOOST_CHECK_THROW(read_bits(10, 12), generic_err);
    BOOST_CHECK_THROW(read_bits(6, 6), generic_err);

    std::string text;
    cds_leaf_set_t written;
    {
        CSubsystemLog log(SS_MAPLIST, 5);
        written = write_bits(0, std::vector<bool>(8, false));
        text = log.text();
    }
    BOOST_TEST(
        (paths_of(written) == std::vector<tk_string>{"/Battery/Low/Value", "/Breaker/Closed/Value",
                                                     "/Relay/One/Value"}));
    BOOST_TEST(!value("/Battery/Low/Value").to_bool());
    BOOST_TEST(value("/Breaker/Closed/Value").to_bool());
    BOOST_TEST(!value("/Relay/One/Value").to_bool());
    BOOST_TEST(value("/Battery/Replace/Value").to_bool());
    for (const char* line :
         {"Param '/Battery/Replace/Value' isn't writable; skipping as a possible mapping.",
          "Param '/Missing Coil/Value' isn't writable; skipping as a possible mapping.",
          "Param '/Ghost Coil/Value' doesn't exist, skipping write...",
          "Adding value path: '/Relay/Two/Value'"})
        BOOST_TEST(has_text(text, line), line);

    BOOST_TEST(write_bits(3, {true}).empty());
    write_bits(2, {true});
    BOOST_TEST(!value("/Breaker/Closed/Value").to_bool());
}

BOOST_FIXTURE_TEST_CASE(ranges_at_the_top, CSample) {
    // A range that would run past 0xFFFF names nothing, so the request ends without a read.
    BOOST_TEST(ups().get_discretes(CAddressRange(0xFFFF, 0x0000))->get_paths(true, true).empty());
    BOOST_TEST(ups().get_registers(CAddressRange(0xFFFE, 0x0001))->get_paths(true, true).empty());

    // A writable parameter on the last four addresses, written from 0xFFFE: padding the
    // write to its size would wrap, so check_range refuses and get_vals throws.
    const tk_string path = store.dir().file("top.eds");
    write_text(path, "[top]\nName = /Top/Value\nAddress = 65532\n"
                     "ExternalValueType = DATATYPE_STRING\nSize = 8\n");
    store.define("/Devices/UPS/Top/Value", CElement::TYPE_STRING,
                 CElement::from_string("abcdefgh"));
    store.define("/Devices/UPS/Top/Writable", CElement::TYPE_BOOL, CElement::from_bool(true));
    const CModbusDeviceConfig top(ups().path(), {std::make_shared<const CEdsMapping>(path)}, false);
    const auto list = top.get_registers(CAddressRange(0xFFFE, 0xFFFE));
    const cds_leaf_set_t leaves = fetch(top, list->get_paths(true, true));
    list->update_configs(leaves);
    BOOST_TEST(list->check_range(leaves, {1}) == -1);
    BOOST_CHECK_THROW(list->get_vals(leaves, {1, 2, 3, 4}), generic_err);
    BOOST_CHECK_THROW(list->get_vals(leaves, {}), generic_err);
    BOOST_TEST(list->get_vals(leaves, {1, 2}).empty());
    BOOST_TEST((read(top, 0xFFFC, 0xFFFF) == regvec_t{0x6162, 0x6364, 0x6566, 0x6768}));
}

// Overlapping mappings declared in descending address order used to abort the server on a
// read (the lookup's ordering was not a strict weak ordering). The lower id must win.
BOOST_FIXTURE_TEST_CASE(overlaps_in_descending_order, CSample) {
    const tk_string path = store.dir().file("descending.eds");
    write_text(path, "[S]\nName = /Overlap/Shifted/Value\nAddress = 31\n"
                     "ExternalValueType = DATATYPE_UINT\nSize = 4\n"
                     "[W]\nName = /Overlap/Wide/Value\nAddress = 30\n"
                     "ExternalValueType = DATATYPE_UINT\nSize = 4\n");
    const CModbusDeviceConfig dev(ups().path(), {std::make_shared<const CEdsMapping>(path)}, false);
    // Shifted 0x00CC00DD on 31..32 (id 1) over Wide 0x00AA00BB on 30..31 (id 2).
    BOOST_TEST((read(dev, 32, 32) == regvec_t{0x00DD}));
    BOOST_TEST((read(dev, 30, 30) == regvec_t{0x00AA}));
    BOOST_TEST((read(dev, 31, 31) == regvec_t{0x00CC}));
    BOOST_TEST((read(dev, 30, 32) == regvec_t{0x00AA, 0x00CC, 0x00DD}));
    BOOST_CHECK_THROW(read(dev, 29, 30), generic_err);
}

// Registers from a file of string mappings in random order and shape, against a model in
// which each register comes from the lowest id that covers it.
BOOST_FIXTURE_TEST_CASE(overlaps_against_a_model, CSample) {
    // Eight parameters whose registers all differ: "<p><k>" in register k of parameter p.
    const unsigned nparams = 8;
    for (unsigned p = 0; p < nparams; ++p) {
        std::string text;
        for (unsigned k = 0; k < 16; ++k)
            text += {static_cast<char>('A' + p), static_cast<char>('a' + k)};
        store.define("/Devices/UPS/R" + std::to_string(p) + "/Value", CElement::TYPE_STRING,
                     CElement::from_string(text));
    }
    const tk_string path = store.dir().file("random.eds");
    CRandom& random = test_data().random();
    for (int round = 0; round < 40; ++round) {
        // A chain and a nest in every round, plus random ones; ids follow file order.
        std::vector<CAddressRange> ranges = {{0, 3}, {4, 7}, {2, 5}, {10, 25}, {12, 13}};
        while (ranges.size() < nparams)
            ranges.emplace_back(random.uniform(0u, 24u), 0);
        for (size_t i = 5; i < ranges.size(); ++i)
            ranges[i].second = static_cast<regaddr_t>(ranges[i].first + random.uniform(0u, 7u));
        for (size_t i = ranges.size() - 1; i > 0; --i)
            std::swap(ranges[i], ranges[random.uniform(0u, static_cast<unsigned>(i))]);
        std::string file;
        for (unsigned p = 0; p < nparams; ++p)
            file += "[R" + std::to_string(p) + "]\nName = /R" + std::to_string(p) +
                    "/Value\nAddress = " + std::to_string(ranges[p].first) +
                    "\nExternalValueType = DATATYPE_STRING\nSize = " +
                    std::to_string(2 * ranges[p].size()) + "\n";
        write_text(path, file);
        CSubsystemLog quiet(SS_MAPPING, -1); // the overlap warnings
        const CModbusDeviceConfig dev(ups().path(), {std::make_shared<const CEdsMapping>(path)},
                                      true);
        const regaddr_t first = static_cast<regaddr_t>(random.uniform(0u, 32u));
        const regaddr_t last = static_cast<regaddr_t>(first + random.uniform(0u, 6u));
        regvec_t want;
        for (unsigned a = first; a <= last; ++a) {
            mbreg_t reg = 0; // zero fill where nothing is mapped
            for (unsigned p = 0; p < nparams; ++p) {
                if (ranges[p].first <= a && a <= ranges[p].second) {
                    const unsigned k = a - ranges[p].first;
                    reg = static_cast<mbreg_t>(('A' + p) << 8 | ('a' + k));
                    break;
                }
            }
            want.push_back(reg);
        }
        BOOST_TEST(read(dev, first, last) == want,
                   "seed " << random.seed() << ", round " << round << ": " << file);
    }
}

BOOST_AUTO_TEST_SUITE_END()
