#include "data/sample_store.h"
#include "modbus/config/modbus_config.h"
#include "modbus/core/modbus_function.h"
#include "settings_store.h"
#include "util/error.h"

#include <boost/test/unit_test.hpp>

using toolkit::CElement;

namespace {

tk_string uint_node(const char* name, unsigned address) {
    return "[p]\nName = /" + tk_string(name) + "/Value\nAddress = " + std::to_string(address) +
           "\nExternalValueType = DATATYPE_UINT\nSize = 2\n";
}

} // namespace

BOOST_AUTO_TEST_SUITE(config)

// The settings of the sample store and the registry they make.
BOOST_AUTO_TEST_CASE(sample_registry) {
    CTestStore store;
    load_sample_store(store, "/dev/ttyTEST0");
    CScopedVerbosity settings_level(SS_SETTINGS, 3);
    CSubsystemLog log(SS_CONFIG, 5);
    const CModbusSettings settings = read_settings();
    CModbusConfig cfg(settings);
    const std::string text = log.text();

    BOOST_TEST(settings.tcp().port() == 1502u);
    for (const char* line :
         {"Zero fill default: 0", "TCP listening port: 1502", "TCP timeout: 1000",
          "TCP Unit1: Unit ID: 1", "TCP Unit2: device path: '/Devices/UPS2'", "Serial timeout: 500",
          "Serial interface number COM1: serial device name: '/dev/ttyTEST0'",
          "Serial COM1: Baud Rate: 19200", "Serial COM1: Parity : 2", "Serial COM1: Stop Bits: 0",
          "idstr: COM1,  subnode: Slave2", "iface_id: COM1, path: Slave2",
          "Serial COM1:Slave2: slave address: 17",
          "Serial COM1:Slave2: device path: /Devices/Meter"})
        BOOST_TEST(has_text(text, line), line);
    BOOST_TEST(count_of(text, "TCP Unit1: EDS: '") == 2u);

    // Three distinct files for four units, each parsed once, in path order.
    BOOST_TEST(count_of(text, "Parsing EDS file '") == 3u);
    const tk_string parsing = "Parsing EDS file '" + sample_data("eds/");
    BOOST_TEST(text.find(parsing + "meter.eds") < text.find(parsing + "ups.eds"));
    BOOST_TEST(has_text(text, "Unit ID 1 : EDS '" + sample_data("eds/ups_extra.eds") + "'"));
    BOOST_TEST(
        has_text(text, "Interface ID 0, Serial Port Name /dev/ttyTEST0, Slave Address 17 : EDS '" +
                           sample_data("eds/meter.eds") + "'"));

    BOOST_TEST(cfg.tcp_count() == 2u);
    BOOST_TEST(cfg.serial_count() == 2u);
    CModbusDeviceConfig* u1 = cfg.tcp_config(1);
    CModbusDeviceConfig* u2 = cfg.tcp_config(2);
    CModbusDeviceConfig* s1 = cfg.serial_config(0, 1);
    BOOST_REQUIRE((u1 && u2 && s1));
    BOOST_TEST(cfg.serial_config(0, 17) != nullptr);
    BOOST_TEST((cfg.tcp_config(3) == nullptr && cfg.serial_config(1, 1) == nullptr));

    BOOST_TEST(u1->path() == "/Devices/UPS");
    BOOST_TEST(u2->path() == "/Devices/UPS2");
    BOOST_REQUIRE(u1->eds().size() == 2u);
    BOOST_REQUIRE(u2->eds().size() == 1u);
    BOOST_TEST(u1->eds()[0].get() == u2->eds()[0].get());
    BOOST_TEST(u1->eds()[0].get() == s1->eds()[0].get());
    BOOST_TEST(u1->eds()[1].get() != u1->eds()[0].get());
    BOOST_TEST(!u1->zero_fill());
    // Units over one file resolve its mappings under their own device, so that each keeps
    // leaves and attributes of its own.
    const auto& on_u1 = u1->unit().registers()[0].items();
    const auto& on_u2 = u2->unit().registers()[0].items();
    BOOST_REQUIRE(!on_u1.empty());
    BOOST_REQUIRE_EQUAL(on_u1.size(), on_u2.size());
    BOOST_TEST(on_u1[0].mapping == on_u2[0].mapping);
    BOOST_TEST(cfg.leaves().path(on_u1[0].value) == "/Devices/UPS/Identity/Model/Value");
    BOOST_TEST(cfg.leaves().path(on_u2[0].value) == "/Devices/UPS2/Identity/Model/Value");
    BOOST_TEST(cfg.leaves().path(on_u2[0].writable) == "/Devices/UPS2/Identity/Model/Writable");

    BOOST_TEST((cfg.tcp_timeout() == 1000u && cfg.tcp_working_limit() == 900u));
    BOOST_TEST((cfg.serial_timeout() == 500u && cfg.serial_working_limit() == 450u));
    // ups_extra.eds maps the fourth newest event.
    BOOST_TEST(cfg.max_event_index() == 3u);
}

BOOST_FIXTURE_TEST_CASE(working_limits_and_empty_registry, CSettingsStore) {
    const struct {
        uint64_t timeout;
        uint32_t tcp_limit, serial_limit;
    } cases[] = {{15, 13, 13}, {1, 0, 0}, {3600000, 3240000, 3240000}, {0, 0, 900}};
    for (const auto& c : cases) {
        put(tcp_node + "Timeout", c.timeout);
        put(serial_timeout, c.timeout);
        const CModbusConfig cfg(read_settings());
        BOOST_TEST(cfg.tcp_working_limit() == c.tcp_limit);
        // A serial time-out of 0 is refused: the line would never learn its slaves.
        BOOST_TEST(cfg.serial_working_limit() == c.serial_limit);
        BOOST_TEST(cfg.tcp_count() == 0u);
        BOOST_TEST(cfg.max_event_index() == 0u);
    }
}

// One start names every broken file.
BOOST_FIXTURE_TEST_CASE(unparsable_files_stop_the_configuration, CSettingsStore) {
    const tk_string good = eds("good.eds", uint_node("A", 1));
    const tk_string broken = eds("broken.eds", "[p]\nthis is not a key\n");
    const tk_string missing = store.dir().file("missing.eds");
    const tk_string bad_size =
        eds("size.eds", "[e]\nName = /A/Value\nAddress = 0\nExternalValueType = DATATYPE_UINT\n"
                        "Size = 8\n");
    unit("u", 1, broken + ";" + good + ";" + missing + ";" + bad_size);
    const CModbusSettings settings = read_settings();
    CScopedVerbosity mapping_level(SS_MAPPING, 1);
    CSubsystemLog log(SS_CONFIG, 0);
    bool reported = false;
    try {
        CModbusConfig cfg(settings);
        BOOST_ERROR("no CError thrown");
    } catch (const CError& e) {
        reported = e.reported();
    }
    const std::string text = log.text();
    // The file's own line, where the registry caught it, then the registry's: once each,
    // and not again by whoever gets the registry's error.
    BOOST_TEST(reported);
    for (const auto& c :
         {std::make_pair(broken, "malformed line"), std::make_pair(missing, "cannot open"),
          std::make_pair(bad_size, "Size = 8")}) {
        BOOST_TEST(count_of(text, "Error parsing EDS file: '" + c.first + "': ") == 1u, text);
        BOOST_TEST(count_of(text, "Error parsing EDS file: '" + c.first + "'\n") == 1u, text);
        BOOST_TEST(has_text(text, c.second), text);
    }
    BOOST_TEST(!has_text(text, "Error parsing EDS file: '" + good + "'"));
}

// Each missing leaf once, whoever maps it; past a screenful only how many more.
BOOST_FIXTURE_TEST_CASE(missing_leaves_are_warned_about_once, CSettingsStore) {
    const tk_string a = eds("a.eds", uint_node("Here", 1) + uint_node("Gone", 2) +
                                         "[c]\nName = /Coil/Value\nAddress = 0\nDiscrete = true\n"
                                         "[e]\nEventIndex = 0\nEventProperty = ID\nAddress = 9\n"
                                         "ExternalValueType = DATATYPE_UINT\nSize = 4\n");
    unit("one", 1, a, "/Dev");
    unit("two", 2, a, "/Dev"); // the same leaves: one warning each
    slave("ttyS0", "s", 3, a, "/Other");
    // A wrong device path: every leaf of the unit, sorted after the others.
    tk_string many;
    for (unsigned i = 0; i < CModbusConfig::max_missing_lines; ++i)
        many += uint_node(("P" + std::to_string(i)).c_str(), i);
    unit("wrong", 4, eds("many.eds", many), "/Wrong");
    store.define("/Dev/Here/Value", CElement::TYPE_UINT, CElement::from_uint(1));
    store.define("/Dev/Coil/Value", CElement::TYPE_BOOL, CElement::from_bool(true));
    CModbusConfig cfg(read_settings());
    BOOST_TEST(cfg.tcp_config(1)->mapping_count() == 4u);
    CCdsHandle cds;
    CSubsystemLog log(SS_CONFIG, 0);
    BOOST_TEST(cfg.warn_missing_leaves(cds) == CModbusConfig::max_missing_lines + 4);
    const std::string text = log.text();
    BOOST_TEST(count_of(text, "WARN [0]") == CModbusConfig::max_missing_lines + 1, text);
    BOOST_TEST(has_text(text, "'/Dev/Gone/Value' is not in the store (mapped by TCP unit 1 in '" +
                                  a + "')"),
               text);
    for (const char* leaf : {"/Other/Here/Value", "/Other/Gone/Value", "/Other/Coil/Value"})
        BOOST_TEST(has_text(text, "'" + tk_string(leaf) +
                                      "' is not in the store (mapped by serial interface 0 "
                                      "slave 3 in '"),
                   leaf);
    BOOST_TEST(count_of(text, "is not in the store") == CModbusConfig::max_missing_lines);
    BOOST_TEST(has_text(text, "4 more mapped leaves are not in the store"));
}

// Each file says once which of its mappings overlap, however many units share it.
BOOST_FIXTURE_TEST_CASE(overlaps_are_warned_about_per_file, CSettingsStore) {
    const tk_string a = eds("a.eds", uint_node("A", 1) + uint_node("B", 1));
    unit("one", 1, a);
    unit("two", 2, a);
    const CModbusConfig cfg(read_settings());
    CSubsystemLog log(SS_MAPPING, 0);
    BOOST_TEST(cfg.warn_overlaps() == 1u);
    BOOST_TEST(count_of(log.text(), "WARN [0]") == 1u, log.text());
}

BOOST_FIXTURE_TEST_CASE(duplicate_units_keep_the_first, CSettingsStore) {
    const tk_string a = eds("a.eds", uint_node("A", 1));
    const tk_string b = eds("b.eds", uint_node("B", 1));
    unit("first", 7, a, "/First");
    unit("second", 7, b, "/Second");
    slave("ttyS0", "first", 9, a, "/First");
    slave("ttyS0", "second", 9, b, "/Second");
    const CModbusSettings settings = read_settings();
    CSubsystemLog log(SS_CONFIG, 0);
    CModbusConfig cfg(settings);
    const std::string text = log.text();
    BOOST_TEST(has_text(text, "Duplicate Unit ID 7"));
    BOOST_TEST(has_text(text, "Duplicate Slave Address 9 on interface 0"));
    BOOST_TEST(cfg.tcp_count() == 1u);
    BOOST_TEST(cfg.serial_count() == 1u);
    BOOST_REQUIRE(cfg.tcp_config(7));
    BOOST_TEST(cfg.tcp_config(7)->path() == "/First");
    BOOST_TEST(cfg.serial_config(0, 9)->path() == "/First");
}

BOOST_FIXTURE_TEST_CASE(files_of_a_unit_in_order, CSettingsStore) {
    // Both files map address 5 with id 1: the file listed first supplies the register.
    const tk_string a = eds("a.eds", uint_node("A", 5) + uint_node("OnlyA", 6));
    const tk_string b = eds("b.eds", uint_node("B", 5) + uint_node("OnlyB", 7));
    unit("ab", 1, a + ";" + b);
    unit("ba", 2, b + ";" + a);
    for (const char* name : {"A", "B", "OnlyA", "OnlyB"})
        store.define("/Dev/" + tk_string(name) + "/Value", CElement::TYPE_UINT,
                     CElement::from_uint(name[0] == 'A'   ? 10
                                         : name[0] == 'B' ? 20
                                                          : 30));
    CModbusConfig cfg(read_settings());
    CCdsHandle cds;
    cds.bind(cfg.leaves());
    const CModbusFunction* f = CModbusFunction::find(3);
    for (unit_id_t id : {1, 2}) {
        CModbusPdu pdu;
        pdu.function = 3;
        pdu.data = {0, 5, 0, 3};
        CModbusRequest req;
        req.pdu = &pdu;
        req.unit = &cfg.tcp_config(id)->unit();
        BOOST_REQUIRE(f->plan(req) == MB_NO_ERROR);
        req.values.resize(req.reads.size());
        BOOST_REQUIRE(cds.read(req.reads.data(), req.reads.size(), req.values.data(), true) == 0);
        BOOST_REQUIRE(f->answer(req) == MB_NO_ERROR);
        const uint8_t first = id == 1 ? 10 : 20;
        BOOST_TEST(pdu.data == (iobuf_t{6, 0, first, 0, 30, 0, 30}), "unit " << unsigned(id));
    }
}

BOOST_AUTO_TEST_SUITE_END()
