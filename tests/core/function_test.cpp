#include "cds/cds_handle.h"
#include "data/sample_store.h"
#include "modbus/config/modbus_config.h"
#include "modbus/core/modbus_function.h"
#include "modbus/core/request_runner.h"
#include "support/subsystem_log.h"
#include "test/global_test_data.h"
#include "util/build_info.h"

#include <boost/test/unit_test.hpp>

#include <algorithm>
#include <ctime>
#include <map>
#include <memory>
#include <string>
#include <vector>

using toolkit::CElement;

namespace {

// Big-endian words, as a request's data carries them.
iobuf_t words(std::initializer_list<unsigned> list) {
    iobuf_t out;
    for (const unsigned w : list) {
        out.push_back(static_cast<uint8_t>(w >> 8));
        out.push_back(static_cast<uint8_t>(w));
    }
    return out;
}

// The data of a function 16 request.
iobuf_t write_registers_data(unsigned start, const regvec_t& regs) {
    iobuf_t out = words({start, static_cast<unsigned>(regs.size())});
    out.push_back(static_cast<uint8_t>(2 * regs.size()));
    for (const mbreg_t r : regs) {
        out.push_back(static_cast<uint8_t>(r >> 8));
        out.push_back(static_cast<uint8_t>(r));
    }
    return out;
}

// The data of a function 23 request: the read range, then a function 16 write.
iobuf_t read_write_data(unsigned read_start, unsigned read_quantity, unsigned start,
                        const regvec_t& regs) {
    iobuf_t out = words({read_start, read_quantity});
    const iobuf_t write = write_registers_data(start, regs);
    out.insert(out.end(), write.begin(), write.end());
    return out;
}

// The data of a function 15 request: bits packed from the least significant one.
iobuf_t write_coils_data(unsigned start, const std::vector<bool>& bits) {
    iobuf_t out = words({start, static_cast<unsigned>(bits.size())});
    out.push_back(static_cast<uint8_t>((bits.size() + 7) / 8));
    out.resize(out.size() + (bits.size() + 7) / 8, 0);
    for (size_t i = 0; i < bits.size(); ++i)
        if (bits[i])
            out[5 + i / 8] |= static_cast<uint8_t>(1u << (i % 8));
    return out;
}

// The sample configuration, with requests run through the function table the way the
// protocol handler runs them, but synchronously: plan, one read of the planned leaves, the
// write step and one store write, then the answer.
struct CCore {
    CTestStore store;
    std::unique_ptr<CCdsHandle> cds; // bound to the configuration's leaves
    std::unique_ptr<CModbusConfig> cfg;
    // Units a test builds itself, resolved into a table of their own with their own
    // connection.
    toolkit::CLeafTable table;
    std::unique_ptr<CCdsHandle> own;
    std::vector<std::unique_ptr<CModbusDeviceConfig>> devices;

    // The last request: its PDU (the response after a success), the leaves it read and
    // those it wrote (paths relative to the unit's device).
    CModbusPdu pdu;
    std::vector<tk_string> read_paths;
    std::vector<tk_string> written;

    CCore() {
        load_sample_store(store);
        cds = std::make_unique<CCdsHandle>();
        cfg = std::make_unique<CModbusConfig>(CModbusSettings(*cds));
        cds->bind(cfg->leaves());
        own = std::make_unique<CCdsHandle>();
    }

    CModbusDeviceConfig& ups() { return *cfg->tcp_config(1); }

    const CModbusDeviceConfig& device(const tk_string& path, const eds_mapvec_t& eds,
                                      bool zero_fill) {
        devices.push_back(std::make_unique<CModbusDeviceConfig>(path, eds, zero_fill));
        devices.back()->resolve(table);
        own->bind(table);
        return *devices.back();
    }
    const CModbusDeviceConfig& device(const tk_string& eds_file, bool zero_fill) {
        return device(ups().path(), {std::make_shared<const CEdsMapping>(eds_file)}, zero_fill);
    }
    // Unit 1 with zero fill.
    const CModbusDeviceConfig& zero() { return device(ups().path(), ups().eds(), true); }

    bool is_own(const CModbusDeviceConfig& dev) const {
        for (const auto& d : devices)
            if (d.get() == &dev)
                return true;
        return false;
    }

    tk_string relative(const CModbusDeviceConfig& dev, toolkit::leaf_id_t id) const {
        const tk_string path((is_own(dev) ? table : cfg->leaves()).path(id));
        return path.compare(0, dev.path().size(), dev.path()) == 0 ? path.substr(dev.path().size())
                                                                   : path;
    }

    // One request through the request runner, with the store work it asks for done on a
    // store connection (via overrides the unit's); MB_NO_ERROR leaves the response's data in
    // pdu.data, or nothing when the runner stays silent.
    modbus_err_t request(const CModbusDeviceConfig& dev, uint8_t fc, const iobuf_t& data,
                         CCdsHandle* via = nullptr) {
        CCdsHandle& handle = via ? *via : is_own(dev) ? *own : *cds;
        read_paths.clear();
        written.clear();
        reads = writes = 0;
        pdu.function = fc;
        pdu.data = data;
        CRequestRunner::context_t context;
        context.transport = transport;
        context.events = events;
        context.serial = serial;
        context.block_writes = block_writes;
        context.access = access;
        CRequestRunner runner(context);
        CUnitCounters spare;
        const CRequestRunner::unit_t unit{&dev.unit(), counters ? counters : &spare,
                                          dev.zero_fill()};
        CRequestRunner::step_t step = runner.start(pdu, unit, 1, broadcast);
        for (;;) {
            if (step == CRequestRunner::READ) {
                const auto& ids = runner.reads();
                reads = ids.size();
                if (handle.read(ids.data(), ids.size(), runner.values(), true) != 0) {
                    step = runner.store_failed();
                    continue;
                }
                for (const toolkit::leaf_id_t id : ids)
                    read_paths.push_back(relative(dev, id));
                std::sort(read_paths.begin(), read_paths.end());
                step = runner.read_done();
            } else if (step == CRequestRunner::WRITE) {
                const auto& ids = runner.write_ids();
                BOOST_REQUIRE(runner.write_values().size() == ids.size());
                writes = ids.size();
                std::vector<api_status_t> statuses(ids.size(), API_STATUS_NONE);
                if (handle.write(ids.data(), runner.write_values().data(), ids.size(),
                                 statuses.data()) != 0) {
                    step = runner.store_failed();
                    continue;
                }
                for (const toolkit::leaf_id_t id : ids)
                    written.push_back(relative(dev, id));
                std::sort(written.begin(), written.end());
                step = runner.write_done(statuses.data());
            } else {
                silent = step == CRequestRunner::SILENT;
                if (silent || (pdu.function & 0x80) == 0)
                    return MB_NO_ERROR;
                return static_cast<modbus_err_t>(pdu.data.at(0));
            }
        }
    }

    bool block_writes = false;
    const CEventQueue* events = nullptr;
    CUnitCounters* counters = nullptr;
    const CTransportCounters* transport = nullptr;
    bool serial = false;
    bool broadcast = false;
    const CAccessRule* access = nullptr;
    // What the last request did: leaves read and written, and whether it stayed silent.
    size_t reads = 0;
    size_t writes = 0;
    bool silent = false;

    // Registers first..last by function 3, or empty after an exception (then error holds it).
    modbus_err_t error = MB_NO_ERROR;
    regvec_t read(const CModbusDeviceConfig& dev, unsigned first, unsigned last) {
        error = request(dev, 0x03, words({first, last - first + 1}));
        if (error != MB_NO_ERROR)
            return {};
        BOOST_REQUIRE(pdu.data.size() == 1 + 2 * (last - first + 1));
        BOOST_REQUIRE(pdu.data[0] == pdu.data.size() - 1);
        regvec_t out;
        for (size_t i = 1; i + 1 < pdu.data.size(); i += 2)
            out.push_back(static_cast<mbreg_t>(pdu.data[i] << 8 | pdu.data[i + 1]));
        return out;
    }
    regvec_t read(unsigned first, unsigned last) { return read(ups(), first, last); }
    modbus_err_t read_error(const CModbusDeviceConfig& dev, unsigned first, unsigned last) {
        read(dev, first, last);
        return error;
    }

    // Bits first..last by function 1, or empty after an exception.
    std::vector<bool> read_bits(const CModbusDeviceConfig& dev, unsigned first, unsigned last) {
        const unsigned n = last - first + 1;
        error = request(dev, 0x01, words({first, n}));
        if (error != MB_NO_ERROR)
            return {};
        BOOST_REQUIRE(pdu.data.size() == 1 + (n + 7) / 8);
        std::vector<bool> out;
        for (unsigned i = 0; i < n; ++i)
            out.push_back((pdu.data[1 + i / 8] >> (i % 8)) & 1);
        return out;
    }

    // Registers by function 16; the leaves stored are in written.
    modbus_err_t write(const CModbusDeviceConfig& dev, unsigned first, const regvec_t& regs) {
        return request(dev, 0x10, write_registers_data(first, regs));
    }
    modbus_err_t write(unsigned first, const regvec_t& regs) { return write(ups(), first, regs); }
    modbus_err_t write_bits(unsigned first, const std::vector<bool>& bits) {
        return request(ups(), 0x0F, write_coils_data(first, bits));
    }

    CElement value(const tk_string& path) { return store.value("/Devices/UPS" + path); }
};

typedef std::vector<tk_string> paths_t;

} // namespace

BOOST_AUTO_TEST_SUITE(core)

// A scaled integer written to a parameter the store keeps as a float keeps its fraction; an
// integer leaf still gets the whole quotient.
BOOST_FIXTURE_TEST_CASE(scaled_writes_to_float_leaves_keep_their_fraction, CCore) {
    const CModbusDeviceConfig& meter = *cfg->serial_config(0, 17);
    BOOST_TEST(write(meter, 2, {2351}) == MB_NO_ERROR);
    BOOST_TEST(store.value("/Devices/Meter/Voltage/Value").to_float() == 235.1,
               boost::test_tools::tolerance(1e-9));
    BOOST_TEST(read(meter, 2, 2) == regvec_t{2351});
    BOOST_TEST(write(8, {2351}) == MB_NO_ERROR);
    BOOST_TEST(value("/Output/Voltage/Value").to_uint() == 235u);
}

BOOST_FIXTURE_TEST_CASE(registers_of_every_translator, CCore) {
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
    // Function 4 reads the same registers.
    const iobuf_t by3 = pdu.data;
    BOOST_TEST(request(ups(), 0x04, words({0, 21})) == MB_NO_ERROR);
    BOOST_TEST(pdu.data == by3);

    // The time stamp mapping follows the store's stamp of the voltage.
    std::unordered_set<CCdsLeaf> probe{CCdsLeaf("/Output/Voltage/Value")};
    cds->get(probe, ups().path());
    const time_t stamp = probe.begin()->_element.time().tv_sec;
    tm t{};
    gmtime_r(&stamp, &t);
    const regvec_t times = read(22, 27);
    BOOST_REQUIRE(times.size() == 6u);
    BOOST_TEST(
        (regvec_t(times.begin(), times.begin() + 4) == regvec_t{2026, 0x0305, 0x0C22, 0x0038}));
    BOOST_TEST(times[4] == (t.tm_hour << 8 | t.tm_min));
    BOOST_TEST(times[5] == t.tm_sec);

    // Another unit over the same file reads its own device.
    BOOST_TEST((read(*cfg->tcp_config(2), 0, 3) == regvec_t{0x5550, 0x532D, 0x3135, 0x3030}));
    BOOST_TEST((read(*cfg->tcp_config(2), 8, 8) == regvec_t{1200}));
    BOOST_TEST((read(*cfg->serial_config(0, 17), 0, 2) == regvec_t{0x0001, 0xE240, 2305}));
    // The second file of unit 1, which unit 2 does not have: nothing to read there.
    BOOST_TEST((read(200, 201) == regvec_t{0x0001, 0xE240}));
    BOOST_TEST(read_error(*cfg->tcp_config(2), 200, 201) == MB_ILLEGAL_DATA_ADDRESS);
    BOOST_TEST(read_paths.empty());
}

BOOST_FIXTURE_TEST_CASE(gaps_failed_leaves_and_zero_fill, CCore) {
    // 21 is unmapped, 50 has no leaf, 51 a writable attribute but no value.
    BOOST_TEST(read_error(ups(), 19, 22) == MB_ILLEGAL_DATA_ADDRESS);
    BOOST_TEST(read_error(ups(), 50, 50) == MB_ILLEGAL_DATA_ADDRESS);
    BOOST_TEST(read_error(ups(), 51, 51) == MB_ILLEGAL_DATA_ADDRESS);
    // Registers that only events cover count as unmapped, and name no leaf to read.
    BOOST_TEST(read_error(ups(), 255, 256) == MB_ILLEGAL_DATA_ADDRESS);

    const CModbusDeviceConfig& z = zero();
    BOOST_TEST((read(z, 19, 22) == regvec_t{0x0012, 0x3456, 0, 0x07EA}));
    BOOST_TEST((read(z, 49, 52) == regvec_t{0, 0, 0, 0}));
    // Zero fill fills gaps between mappings; a range with no mapping at all is still
    // refused, before the store is asked.
    BOOST_TEST(read_error(z, 256, 266) == MB_ILLEGAL_DATA_ADDRESS);
    BOOST_TEST(read_paths.empty());
    BOOST_TEST(read_error(z, 28, 29) == MB_ILLEGAL_DATA_ADDRESS);
}

BOOST_FIXTURE_TEST_CASE(edges_and_overlaps, CCore) {
    // "Rack 7A1" on 99..102: a read inside it gives only the registers asked for.
    BOOST_TEST((read(100, 101) == regvec_t{0x636B, 0x2037}));
    const CModbusDeviceConfig& z = zero();
    BOOST_TEST((read(z, 98, 99) == regvec_t{0, 0x5261}));
    BOOST_TEST((read(z, 102, 103) == regvec_t{0x4131, 0}));

    // Wide (id 14) on 30..31 and Shifted (id 15) on 31..32: the lower id keeps 31.
    BOOST_TEST((read(30, 32) == regvec_t{0x00AA, 0x00BB, 0x00DD}));
    BOOST_TEST((read(31, 31) == regvec_t{0x00BB}));
    BOOST_TEST((read(32, 32) == regvec_t{0x00DD}));
    // Two parameters on 34: the lower id.
    BOOST_TEST((read(34, 34) == regvec_t{0x0101}));
}

BOOST_FIXTURE_TEST_CASE(attributes_are_read_once, CCore) {
    BOOST_TEST(read(8, 16).size() == 9u);
    paths_t want;
    for (const char* p : {"/Battery/Charge Cycles", "/Battery/Temperature", "/Input/Frequency",
                          "/Input/Power", "/Output/Current", "/Output/Voltage"})
        for (const char* leaf : {"/Units", "/Value", "/Writable"})
            want.push_back(tk_string(p) + leaf);
    BOOST_TEST(read_paths == want, boost::test_tools::per_element());
    // What the attributes say: 9 has no Writable leaf, 14..15 a false one; a unit the store
    // does not know (16) leaves the parameter writable.
    BOOST_TEST(write(8, {2400}) == MB_NO_ERROR);
    BOOST_TEST(value("/Output/Voltage/Value").to_uint() == 240u);
    BOOST_TEST(write(9, {1}) == MB_ILLEGAL_DATA_ADDRESS);
    BOOST_TEST(write(14, {1, 2}) == MB_ILLEGAL_DATA_ADDRESS);
    BOOST_TEST(write(16, {0xFFFA}) == MB_NO_ERROR);
    BOOST_TEST(value("/Battery/Temperature/Value").to_int() == -6);

    // The next request over the same parameters asks for their values only, and a change
    // of an attribute in the store is not seen.
    store.define("/Devices/UPS/Output/Voltage/Writable", CElement::TYPE_BOOL,
                 CElement::from_bool(false));
    BOOST_TEST((read(8, 8) == regvec_t{2400}));
    BOOST_TEST((read_paths == paths_t{"/Output/Voltage/Value"}));
    BOOST_TEST(write(8, {2500}) == MB_NO_ERROR);
    BOOST_TEST(value("/Output/Voltage/Value").to_uint() == 250u);
}

BOOST_FIXTURE_TEST_CASE(register_writes, CCore) {
    BOOST_TEST(write(10, {0x0002, 0x0003}) == MB_NO_ERROR);
    BOOST_TEST(value("/Battery/Charge Cycles/Value").to_uint() == 0x20003u);
    // One register of a two-register parameter is padded with zeros to its size.
    BOOST_TEST(request(ups(), 0x06, words({10, 5})) == MB_NO_ERROR);
    BOOST_TEST(value("/Battery/Charge Cycles/Value").to_uint() == 0x50000u);
    // The count a write must reach is the size of the last writable mapping it touches,
    // not the span of all of them: Frequency (two registers) after Cycles refuses three.
    BOOST_TEST(write(10, {0, 7, 0x4248}) == MB_ILLEGAL_DATA_ADDRESS);
    BOOST_TEST(write(12, {0x4248, 0, 1}) == MB_ILLEGAL_DATA_ADDRESS);
    BOOST_TEST(value("/Input/Frequency/Value").to_float() == 50.5);
    BOOST_TEST(write(10, {0, 7}) == MB_NO_ERROR);
    BOOST_TEST((written == paths_t{"/Battery/Charge Cycles/Value"}));

    // Not writable, or no value to merge into: nothing to write.
    BOOST_TEST(write(9, {1}) == MB_ILLEGAL_DATA_ADDRESS);
    BOOST_TEST(write(51, {1}) == MB_ILLEGAL_DATA_ADDRESS);
    BOOST_TEST(written.empty());

    // Half of a two-register parameter straddles the written range: not written.
    BOOST_TEST(write(11, {9}) == MB_ILLEGAL_DATA_ADDRESS);
    BOOST_TEST(value("/Battery/Charge Cycles/Value").to_uint() == 7u);

    // Overlaps: whatever lies wholly inside is written, the lower id first.
    BOOST_TEST(write(31, {0x0001, 0x0002}) == MB_NO_ERROR);
    BOOST_TEST((written == paths_t{"/Overlap/Shifted/Value"}));
    BOOST_TEST(value("/Overlap/Shifted/Value").to_uint() == 0x10002u);
    BOOST_TEST(value("/Overlap/Wide/Value").to_uint() == 0x00AA00BBu);
    BOOST_TEST(write(30, {0x0003, 0x0004}) == MB_NO_ERROR);
    BOOST_TEST((written == paths_t{"/Overlap/Wide/Value"}));
    BOOST_TEST(value("/Overlap/Wide/Value").to_uint() == 0x30004u);
    BOOST_TEST(write(34, {9}) == MB_NO_ERROR);
    BOOST_TEST((written == paths_t{"/Overlap/Same A/Value"}));
    BOOST_TEST(value("/Overlap/Same A/Value").to_uint() == 9u);
    BOOST_TEST(value("/Overlap/Same B/Value").to_uint() == 514u);

    // A time stamp cannot be written.
    CSubsystemLog log(SS_MAPPING, 2);
    BOOST_TEST(write(26, {0x0102, 0x0003}) == MB_ILLEGAL_DATA_ADDRESS);
    BOOST_TEST(has_text(log.text(), "Can't set a value's timestamp via Modbus"));
}

BOOST_FIXTURE_TEST_CASE(discretes, CCore) {
    const CModbusDeviceConfig& z = zero();
    // Low, Replace, Breaker (negated), gap, Overload, Relay One over Two, missing, ghost.
    BOOST_TEST((read_bits(z, 0, 7) == std::vector<bool>{1, 1, 0, 0, 0, 1, 0, 0}));
    BOOST_TEST((read_bits(z, 10, 12) == std::vector<bool>{1, 0, 1}));
    BOOST_TEST((read_bits(ups(), 0, 2) == std::vector<bool>{1, 1, 0}));
    BOOST_TEST((read_bits(ups(), 5, 5) == std::vector<bool>{1}));
    BOOST_TEST((read_bits(ups(), 20, 20) == std::vector<bool>{1})); // the unit's second file
    BOOST_TEST(read_bits(ups(), 10, 12).empty());
    BOOST_TEST(error == MB_ILLEGAL_DATA_ADDRESS);
    BOOST_TEST(read_bits(ups(), 6, 6).empty());
    BOOST_TEST(error == MB_ILLEGAL_DATA_ADDRESS);

    // Replace is not writable, Missing and Ghost have no value, Two loses 5 to One.
    BOOST_TEST(write_bits(0, std::vector<bool>(8, false)) == MB_NO_ERROR);
    BOOST_TEST(
        (written == paths_t{"/Battery/Low/Value", "/Breaker/Closed/Value", "/Relay/One/Value"}));
    BOOST_TEST(!value("/Battery/Low/Value").to_bool());
    BOOST_TEST(value("/Breaker/Closed/Value").to_bool());
    BOOST_TEST(!value("/Relay/One/Value").to_bool());
    BOOST_TEST(!value("/Relay/Two/Value").to_bool());
    BOOST_TEST(value("/Battery/Replace/Value").to_bool());

    BOOST_TEST(write_bits(3, {true}) == MB_ILLEGAL_DATA_ADDRESS);
    BOOST_TEST(write_bits(1, {false}) == MB_ILLEGAL_DATA_ADDRESS);
    BOOST_TEST(value("/Battery/Replace/Value").to_bool());
    BOOST_TEST(request(ups(), 0x05, words({2, 0xFF00})) == MB_NO_ERROR);
    BOOST_TEST(!value("/Breaker/Closed/Value").to_bool());
}

BOOST_FIXTURE_TEST_CASE(ranges_at_the_top, CCore) {
    // A writable parameter on the last four addresses, written from 0xFFFE: padding the
    // write to its size would wrap, so nothing is written.
    const tk_string path = store.dir().file("top.eds");
    write_text(path, "[top]\nName = /Top/Value\nAddress = 65532\n"
                     "ExternalValueType = DATATYPE_STRING\nSize = 8\n");
    store.define("/Devices/UPS/Top/Value", CElement::TYPE_STRING,
                 CElement::from_string("abcdefgh"));
    store.define("/Devices/UPS/Top/Writable", CElement::TYPE_BOOL, CElement::from_bool(true));
    const CModbusDeviceConfig& top = device(path, false);
    BOOST_TEST(request(top, 0x06, words({0xFFFE, 1})) == MB_ILLEGAL_DATA_ADDRESS);
    BOOST_TEST(write(top, 0xFFFE, {1, 2}) == MB_ILLEGAL_DATA_ADDRESS);
    BOOST_TEST(value("/Top/Value").str() == "abcdefgh");
    BOOST_TEST((read(top, 0xFFFC, 0xFFFF) == regvec_t{0x6162, 0x6364, 0x6566, 0x6768}));
    BOOST_TEST((read(top, 0xFFFF, 0xFFFF) == regvec_t{0x6768}));
    // From its first address it is written, and the answer names 0xFFFC and 4.
    BOOST_TEST(write(top, 0xFFFC, {0x7778, 0x797A, 0x3031, 0x3233}) == MB_NO_ERROR);
    BOOST_TEST(pdu.data == words({0xFFFC, 4}));
    BOOST_TEST(value("/Top/Value").str() == "wxyz0123");
}

// String mappings in random order and shape, against a model of the overlap rules: a read
// takes each register from the lowest id that covers it; a write is padded to the size of
// the last touching mapping in address order (file order among equal first addresses),
// then stores, by id, every touching mapping wholly inside the padded range that still has
// a register no lower id took. The shuffled file order declares overlaps in descending
// address order too, which once aborted a read.
BOOST_FIXTURE_TEST_CASE(overlaps_against_a_model, CCore) {
    const unsigned nparams = 8;
    // Every register of every parameter differs: "<p><k>" in register k of parameter p.
    std::vector<std::string> initial;
    for (unsigned p = 0; p < nparams; ++p) {
        std::string text;
        for (unsigned k = 0; k < 16; ++k)
            text += {static_cast<char>('A' + p), static_cast<char>('a' + k)};
        initial.push_back(text);
        store.define("/Devices/UPS/R" + std::to_string(p) + "/Writable", CElement::TYPE_BOOL,
                     CElement::from_bool(true));
    }
    const tk_string path = store.dir().file("random.eds");
    CRandom& random = test_data().random();
    for (int round = 0; round < 40; ++round) {
        for (unsigned p = 0; p < nparams; ++p)
            store.define("/Devices/UPS/R" + std::to_string(p) + "/Value", CElement::TYPE_STRING,
                         CElement::from_string(initial[p]));
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
        const CModbusDeviceConfig& dev = device(path, true);
        const std::string context =
            "seed " + std::to_string(random.seed()) + ", round " + std::to_string(round);

        // A read.
        unsigned first = random.uniform(0u, 32u);
        unsigned last = first + random.uniform(0u, 6u);
        regvec_t want;
        for (unsigned a = first; a <= last; ++a) {
            mbreg_t reg = 0; // zero fill where nothing is mapped
            for (unsigned p = 0; p < nparams; ++p) {
                if (ranges[p].first <= a && a <= ranges[p].second) {
                    reg = static_cast<mbreg_t>(('A' + p) << 8 | ('a' + (a - ranges[p].first)));
                    break;
                }
            }
            want.push_back(reg);
        }
        bool any = false;
        for (unsigned p = 0; p < nparams; ++p)
            any |= ranges[p].first <= last && ranges[p].second >= first;
        const regvec_t got = read(dev, first, last);
        if (any)
            BOOST_TEST(got == want, context << ", read " << first << ".." << last << "\n" << file);
        else
            BOOST_TEST(error == MB_ILLEGAL_DATA_ADDRESS, context);

        // A write of letter pairs no parameter holds yet.
        first = random.uniform(0u, 32u);
        last = first + random.uniform(0u, 6u);
        regvec_t regs;
        for (unsigned a = first; a <= last; ++a)
            regs.push_back(static_cast<mbreg_t>(('0' + random.uniform(0u, 9u)) << 8 | ('a' + a)));
        // The padding: the size of the touching mapping last in address order.
        int padded_by = -1;
        for (unsigned p = 0; p < nparams; ++p)
            if (ranges[p].first <= last && ranges[p].second >= first &&
                (padded_by < 0 || ranges[p].first >= ranges[padded_by].first))
                padded_by = static_cast<int>(p);
        size_t covered = padded_by < 0 ? 0 : ranges[padded_by].size();
        std::vector<std::string> expect = initial;
        bool stored = false;
        if (covered >= regs.size()) {
            regvec_t all = regs;
            all.resize(covered, 0);
            std::vector<bool> taken(covered, false);
            for (unsigned p = 0; p < nparams; ++p) {
                // Only the mappings the request touches are candidates.
                if (ranges[p].first < first || ranges[p].first > last ||
                    ranges[p].second >= first + covered)
                    continue;
                bool free = false;
                std::string text;
                for (unsigned a = ranges[p].first; a <= ranges[p].second; ++a) {
                    free |= !taken[a - first];
                    taken[a - first] = true;
                    text += {static_cast<char>(all[a - first] >> 8),
                             static_cast<char>(all[a - first] & 0xFF)};
                }
                if (free) {
                    expect[p] = text.substr(0, text.find('\0'));
                    stored = true;
                }
            }
        }
        const modbus_err_t e = write(dev, first, regs);
        BOOST_TEST(e == (stored ? MB_NO_ERROR : MB_ILLEGAL_DATA_ADDRESS),
                   context << ", write " << first << ".." << last << "\n"
                           << file);
        for (unsigned p = 0; p < nparams; ++p)
            BOOST_TEST(value("/R" + std::to_string(p) + "/Value").str() == expect[p],
                       context << ", write " << first << ".." << last << ", R" << p << "\n"
                               << file);
    }
}

// The exception rules of every function code, and the exact answer of a good request.
BOOST_FIXTURE_TEST_CASE(exceptions_and_answers, CCore) {
    struct row_t {
        uint8_t fc;
        iobuf_t data;
        bool zero_fill;
        modbus_err_t want;
    };
    const modbus_err_t ok = MB_NO_ERROR, fn = MB_ILLEGAL_FUNCTION, addr = MB_ILLEGAL_DATA_ADDRESS,
                       val = MB_ILLEGAL_DATA_VALUE;
    std::vector<row_t> rows;
    // Reads: the limits are 2000 bits and 125 registers. The range is checked before the
    // quantity.
    for (const uint8_t fc : {0x01, 0x02, 0x03, 0x04}) {
        const unsigned limit = fc <= 0x02 ? 2000 : 125;
        const unsigned gap = fc <= 0x02 ? 3 : 21;
        rows.push_back({fc, {0, 0, 0}, false, fn});
        rows.push_back({fc, {0, 0, 0, 1, 0}, false, fn});
        rows.push_back({fc, {}, false, fn});
        rows.push_back({fc, words({0, 0}), false, val});
        rows.push_back({fc, words({0, limit + 1}), true, val});
        rows.push_back({fc, words({0, limit}), true, ok});
        rows.push_back({fc, words({0xFFFF, 2}), true, addr});
        rows.push_back({fc, words({0xFFFF, limit + 1}), true, addr});
        rows.push_back({fc, words({gap, 1}), false, addr});
        rows.push_back({fc, words({0xF000, 1}), true, addr}); // nothing mapped at all
    }
    // Single writes.
    for (const uint8_t fc : {0x05, 0x06}) {
        rows.push_back({fc, {0, 0, 0}, false, val});
        rows.push_back({fc, {0, 0, 0, 0, 0}, false, val});
        rows.push_back({fc, words({fc == 0x05 ? 3u : 21u, 0}), false, addr});
    }
    rows.push_back({0x05, words({0, 0x1234}), false, val});
    rows.push_back({0x05, words({0, 0x00FF}), false, val});
    // Multiple writes: 1968 bits and 120 registers; the byte count must match both the
    // quantity and the bytes that follow.
    for (const uint8_t fc : {0x0F, 0x10}) {
        const bool bits = fc == 0x0F;
        const unsigned limit = bits ? 1968 : 120;
        auto multiple = [&](unsigned start, unsigned n) {
            return bits ? write_coils_data(start, std::vector<bool>(n, false))
                        : write_registers_data(start, regvec_t(n, 0));
        };
        rows.push_back({fc, {0, 0, 0, 1}, false, val});
        iobuf_t none = words({0, 0});
        none.push_back(0); // quantity 0, byte count 0
        rows.push_back({fc, none, false, val});
        rows.push_back({fc, multiple(0, limit + 1), false, val});
        rows.push_back({fc, multiple(0xFFFF, 2), false, addr});
        rows.push_back({fc, multiple(bits ? 3 : 21, 1), false, addr});
        iobuf_t more = multiple(0, 1);
        more.push_back(0); // one byte past the count
        rows.push_back({fc, more, false, val});
        iobuf_t short_count = multiple(0, 9);
        short_count[4] = static_cast<uint8_t>(short_count[4] - 1);
        short_count.pop_back();
        rows.push_back({fc, short_count, false, val});
    }
    // At the limit the quantity passes; what it covers decides.
    rows.push_back({0x0F, write_coils_data(0, std::vector<bool>(1968, false)), false, ok});
    rows.push_back({0x10, write_registers_data(0, regvec_t(120, 0)), false, addr});
    // Codes the server does not answer.
    for (const uint8_t fc : {0x00, 0x07, 0x0C, 0x2C, 0x81})
        rows.push_back({fc, words({0, 1}), false, fn});

    const CModbusDeviceConfig& z = zero();
    for (const row_t& row : rows) {
        const modbus_err_t got = request(row.zero_fill ? z : ups(), row.fc, row.data);
        BOOST_TEST(got == row.want, "function " << int(row.fc) << ", " << row.data.size()
                                                << " data bytes, zero fill " << row.zero_fill);
    }
}

BOOST_FIXTURE_TEST_CASE(answers_of_good_requests, CCore) {
    struct row_t {
        uint8_t fc;
        iobuf_t data;
        iobuf_t answer;
    };
    const std::vector<row_t> rows = {
        // Low, Replace, Breaker (negated): 1 1 0 from the least significant bit.
        {0x01, words({0, 3}), {1, 0x03}},
        {0x02, words({0, 3}), {1, 0x03}},
        {0x03, words({8, 2}), {4, 0x08, 0xFC, 0x04, 0xE2}},
        {0x04, words({8, 2}), {4, 0x08, 0xFC, 0x04, 0xE2}},
        // Single writes echo the request.
        {0x05, words({0, 0x0000}), words({0, 0x0000})},
        {0x06, words({8, 2400}), words({8, 2400})},
        // Multiple writes answer start and quantity.
        {0x0F, write_coils_data(0, {true, false, false}), words({0, 3})},
        {0x10, write_registers_data(10, {0, 9}), words({10, 2})},
    };
    for (const row_t& row : rows) {
        BOOST_TEST(request(ups(), row.fc, row.data) == MB_NO_ERROR, "function " << int(row.fc));
        BOOST_TEST(pdu.function == row.fc);
        BOOST_TEST(pdu.data == row.answer, "function " << int(row.fc));
    }
    BOOST_TEST(value("/Battery/Low/Value").to_bool());    // 0x05 cleared it, 0x0F set it
    BOOST_TEST(value("/Breaker/Closed/Value").to_bool()); // negated
    BOOST_TEST(value("/Output/Voltage/Value").to_uint() == 240u);
    BOOST_TEST(value("/Battery/Charge Cycles/Value").to_uint() == 9u);

    // Ten coils: two bytes, the top six bits of the second clear.
    BOOST_TEST(request(zero(), 0x01, words({0, 10})) == MB_NO_ERROR);
    BOOST_TEST((pdu.data == iobuf_t{2, 0x23, 0x00}));
}

// A serial frame is handed on only once it holds what its function needs.
BOOST_AUTO_TEST_CASE(complete_frames) {
    struct row_t {
        uint8_t fc;
        iobuf_t data;
        bool complete;
    };
    std::vector<row_t> rows;
    for (const uint8_t fc : {0x01, 0x02, 0x03, 0x04, 0x05, 0x06}) {
        rows.push_back({fc, {}, false});
        rows.push_back({fc, {0, 0, 0}, false});
        rows.push_back({fc, {0, 0, 0, 1}, true});
        // Longer data is complete too; the function answers it with an exception.
        rows.push_back({fc, {0, 0, 0, 1, 0}, true});
    }
    for (const uint8_t fc : {0x0F, 0x10}) {
        rows.push_back({fc, {0, 0, 0, 2}, false});
        rows.push_back({fc, {0, 0, 0, 2, 4}, false});
        rows.push_back({fc, {0, 0, 0, 2, 4, 1, 2, 3}, false});
        rows.push_back({fc, {0, 0, 0, 2, 4, 1, 2, 3, 4}, true});
        rows.push_back({fc, {0, 0, 0, 0, 0}, true}); // nothing announced
    }
    // Read/write multiple: the byte count is the ninth data byte.
    rows.push_back({0x17, {0, 0, 0, 1, 0, 0, 0, 1, 2, 7}, false});
    rows.push_back({0x17, {0, 0, 0, 1, 0, 0, 0, 1, 2, 7, 8}, true});
    rows.push_back({0x16, {0, 8, 0xFF, 0, 0}, false});
    rows.push_back({0x16, {0, 8, 0xFF, 0, 0, 0x25}, true});
    // Diagnostics: a sub-function and one word on a serial line; the event counter: nothing.
    rows.push_back({0x08, {0, 0, 0}, false});
    rows.push_back({0x08, {0, 0, 0, 0}, true});
    rows.push_back({0x0B, {}, true});
    for (const row_t& row : rows) {
        const CModbusFunction* f = CModbusFunction::find(row.fc);
        BOOST_REQUIRE(f != nullptr);
        BOOST_TEST(f->code == row.fc);
        CModbusPdu pdu;
        pdu.function = row.fc;
        pdu.data = row.data;
        BOOST_TEST(f->complete(pdu) == row.complete,
                   "function " << int(row.fc) << ", " << row.data.size() << " data bytes");
    }
    BOOST_TEST(CModbusFunction::find(0x07) == nullptr);
}

// 22: the register's present value through the masks, written as function 6 would.
// 23: the write first, then the read of what the store holds.
BOOST_FIXTURE_TEST_CASE(mask_write_and_read_write, CCore) {
    // 2300 is 0x08FC: (0x08FC AND 0xFF00) OR (0x0025 AND 0x00FF) = 0x0825 = 2085, stored /10.
    BOOST_TEST(request(ups(), 0x16, words({8, 0xFF00, 0x0025})) == MB_NO_ERROR);
    BOOST_TEST(pdu.data == words({8, 0xFF00, 0x0025}));
    BOOST_TEST(value("/Output/Voltage/Value").to_uint() == 208u);
    BOOST_TEST(request(ups(), 0x16, words({9, 0, 0})) == MB_ILLEGAL_DATA_ADDRESS); // read-only
    BOOST_TEST(request(ups(), 0x16, words({40000, 0, 0})) == MB_ILLEGAL_DATA_ADDRESS);
    BOOST_TEST(request(ups(), 0x16, words({8, 0})) == MB_ILLEGAL_DATA_VALUE);

    // Read 8..9 after writing 8: the answer holds the new value.
    BOOST_TEST(request(ups(), 0x17, read_write_data(8, 2, 8, {2400})) == MB_NO_ERROR);
    BOOST_TEST((pdu.data == iobuf_t{4, 0x09, 0x60, 0x04, 0xE2}));
    BOOST_TEST(written == paths_t{"/Output/Voltage/Value"});
    // Quantities and byte counts; a read range without parameters writes nothing.
    BOOST_TEST(request(ups(), 0x17, read_write_data(8, 0, 8, {1})) == MB_ILLEGAL_DATA_VALUE);
    BOOST_TEST(request(ups(), 0x17, read_write_data(8, 126, 8, {1})) == MB_ILLEGAL_DATA_VALUE);
    BOOST_TEST(request(ups(), 0x17, read_write_data(8, 1, 8, regvec_t(122, 0))) ==
               MB_ILLEGAL_DATA_VALUE);
    iobuf_t short_count = read_write_data(8, 1, 8, {1, 2});
    short_count.pop_back();
    BOOST_TEST(request(ups(), 0x17, short_count) == MB_ILLEGAL_DATA_VALUE);
    BOOST_TEST(request(ups(), 0x17, read_write_data(0xFFFF, 2, 8, {1})) == MB_ILLEGAL_DATA_ADDRESS);
    BOOST_TEST(request(ups(), 0x17, read_write_data(40000, 1, 8, {2500})) ==
               MB_ILLEGAL_DATA_ADDRESS);
    BOOST_TEST(value("/Output/Voltage/Value").to_uint() == 240u);
}

// 17 and 43/14 read the unit's identification leaves; what the store lacks reads as its
// default.
// Appends object id, length and text to an identification answer.
void add_object(iobuf_t& out, uint8_t id, const tk_string& text) {
    out.push_back(id);
    out.push_back(static_cast<uint8_t>(text.size()));
    out.insert(out.end(), text.begin(), text.end());
}

BOOST_FIXTURE_TEST_CASE(identification, CCore) {
    // Without identification leaves the program's own: the unit id, running, its name; the
    // three objects every device reports.
    BOOST_TEST(request(ups(), 0x11, {}) == MB_NO_ERROR);
    const tk_string own = MB_PRODUCT_NAME " " MB_VERSION;
    iobuf_t own_id{static_cast<uint8_t>(2 + own.size()), 1, 0xFF};
    own_id.insert(own_id.end(), own.begin(), own.end());
    BOOST_TEST(pdu.data == own_id);
    BOOST_TEST(request(ups(), 0x2B, {0x0E, 1, 0}) == MB_NO_ERROR);
    iobuf_t own_basic{0x0E, 1, 0x82, 0, 0, 3};
    add_object(own_basic, 0, MB_VENDOR_NAME);
    add_object(own_basic, 1, MB_PRODUCT_CODE);
    add_object(own_basic, 2, MB_VERSION);
    BOOST_TEST(pdu.data == own_basic);
    BOOST_TEST(tk_string(MB_VENDOR_NAME).size() * tk_string(MB_PRODUCT_CODE).size() *
                   tk_string(MB_VERSION).size() !=
               0u);

    const auto define = [&](const char* name, const CElement& value) {
        store.define("/Devices/UPS/Identification/" + tk_string(name) + "/Value", value.type(),
                     value);
    };
    define("Vendor Name", CElement::from_string("Acme"));
    define("Product Code", CElement::from_string("U1"));
    define("Revision", CElement::from_string("1.2"));
    define("Product Name", CElement::from_string("Power unit"));
    define("Server ID", CElement::from_uint(7));
    define("Run Indicator", CElement::from_bool(false));
    BOOST_TEST(request(ups(), 0x11, {}) == MB_NO_ERROR);
    const tk_string name = "Power unit";
    iobuf_t want{12, 7, 0x00};
    want.insert(want.end(), name.begin(), name.end());
    BOOST_TEST(pdu.data == want);

    // Basic objects; an object id the stream lacks starts it from 0; one object alone.
    const iobuf_t basic{0x0E, 1, 0x82, 0,   0,   3, 0, 4,   'A', 'c', 'm',
                        'e',  1, 2,    'U', '1', 2, 3, '1', '.', '2'};
    BOOST_TEST(request(ups(), 0x2B, {0x0E, 1, 0}) == MB_NO_ERROR);
    BOOST_TEST(pdu.data == basic);
    BOOST_TEST(request(ups(), 0x2B, {0x0E, 1, 9}) == MB_NO_ERROR);
    BOOST_TEST(pdu.data == basic);
    BOOST_TEST(request(ups(), 0x2B, {0x0E, 4, 1}) == MB_NO_ERROR);
    BOOST_TEST((pdu.data == iobuf_t{0x0E, 4, 0x82, 0, 0, 1, 1, 2, 'U', '1'}));
    BOOST_TEST(request(ups(), 0x2B, {0x0E, 2, 0}) == MB_NO_ERROR);
    BOOST_TEST(pdu.data[5] == 7u);

    // Objects that do not fit one answer come in pages.
    define("Vendor URL", CElement::from_string(tk_string(200, 'u')));
    define("Model Name", CElement::from_string(tk_string(100, 'm')));
    BOOST_TEST(request(ups(), 0x2B, {0x0E, 2, 0}) == MB_NO_ERROR);
    BOOST_TEST(pdu.data[3] == 0xFF);
    BOOST_TEST(pdu.data[4] == 5u); // Model Name did not fit
    BOOST_TEST(pdu.data[5] == 5u);
    BOOST_TEST(pdu.data.size() <= 252u);
    BOOST_TEST(request(ups(), 0x2B, {0x0E, 2, 5}) == MB_NO_ERROR);
    BOOST_TEST(pdu.data[3] == 0x00);
    BOOST_TEST(pdu.data[5] == 2u);

    // Malformed: length, interface, code, object.
    BOOST_TEST(request(ups(), 0x11, {0}) == MB_ILLEGAL_DATA_VALUE);
    BOOST_TEST(request(ups(), 0x2B, {0x0E, 1}) == MB_ILLEGAL_DATA_VALUE);
    BOOST_TEST(request(ups(), 0x2B, {0x0D, 1, 0}) == MB_ILLEGAL_FUNCTION);
    // Another MEI type is refused whatever follows it.
    BOOST_TEST(request(ups(), 0x2B, {0x0D}) == MB_ILLEGAL_FUNCTION);
    BOOST_TEST(request(ups(), 0x2B, {0x0D, 1, 0, 0}) == MB_ILLEGAL_FUNCTION);
    BOOST_TEST(request(ups(), 0x2B, {0x0E, 5, 0}) == MB_ILLEGAL_DATA_VALUE);
    BOOST_TEST(request(ups(), 0x2B, {0x0E, 4, 7}) == MB_ILLEGAL_DATA_ADDRESS);
}

// Event mappings read the newest events; they cannot be written.
BOOST_FIXTURE_TEST_CASE(event_registers, CCore) {
    CEventQueue queue(2, "");
    toolkit::CEvent older;
    older.kind = 4;
    older.id = 5;
    older.time = {1700000000, 0};
    older.source = tk_string("/Devices/UPS/Output/Voltage");
    queue.add(older);
    toolkit::CEvent newest = older;
    newest.id = 0x12345678;
    newest.url = tk_string("/wave/77.dat");
    queue.add(newest);
    events = &queue;
    BOOST_TEST((read(260, 261) == regvec_t{0x1234, 0x5678}));
    BOOST_TEST((read(263, 264) == regvec_t{0, 77}));
    BOOST_TEST(read(256, 264).size() == 9u);
    BOOST_TEST(read_paths.empty());
    BOOST_TEST(write(260, {1, 2}) == MB_ILLEGAL_DATA_ADDRESS);
    BOOST_TEST(read_error(ups(), 255, 256) == MB_ILLEGAL_DATA_ADDRESS); // 255 is unmapped
    // Without an event queue the same registers read as unmapped.
    events = nullptr;
    BOOST_TEST(read_error(ups(), 260, 261) == MB_ILLEGAL_DATA_ADDRESS);
}

// The setting for blocks of setpoints: every parameter of the range, or nothing.
BOOST_FIXTURE_TEST_CASE(block_writes_span_parameters_all_or_none, CCore) {
    const regvec_t block{0, 7, 0x4270, 0x0000};              // charge cycles 7, frequency 60.0
    BOOST_TEST(write(10, block) == MB_ILLEGAL_DATA_ADDRESS); // off: the last parameter's size
    block_writes = true;
    BOOST_TEST(write(10, block) == MB_NO_ERROR);
    BOOST_TEST((written == paths_t{"/Battery/Charge Cycles/Value", "/Input/Frequency/Value"}));
    BOOST_TEST(value("/Battery/Charge Cycles/Value").to_uint() == 7u);
    BOOST_TEST(value("/Input/Frequency/Value").to_float() == 60.0);
    // A read-only register inside (9, 14), a parameter straddling an edge (10..11), an
    // unmapped register: refused, and nothing written.
    BOOST_TEST(write(8, {2400, 1, 0, 8}) == MB_ILLEGAL_DATA_ADDRESS);
    BOOST_TEST(write(11, {8, 0x4270, 0}) == MB_ILLEGAL_DATA_ADDRESS);
    BOOST_TEST(write(12, {0x4270, 0, 1}) == MB_ILLEGAL_DATA_ADDRESS);
    BOOST_TEST(write(16, {1, 0, 0, 0, 0, 0, 0, 0}) == MB_ILLEGAL_DATA_ADDRESS);
    BOOST_TEST(value("/Output/Voltage/Value").to_uint() == 230u);
    BOOST_TEST(value("/Battery/Charge Cycles/Value").to_uint() == 7u);
    // Single register writes keep their rule.
    BOOST_TEST(request(ups(), 0x06, words({10, 3})) == MB_NO_ERROR);
    BOOST_TEST(value("/Battery/Charge Cycles/Value").to_uint() == 0x30000u);
}

// A store that refuses the write: the master must not be told it was written.
BOOST_FIXTURE_TEST_CASE(write_the_store_refuses, CCore) {
    store.define("/ReadOnlyCDS", CElement::TYPE_BOOL, CElement::from_bool(true));
    CCdsHandle read_only;
    read_only.bind(cfg->leaves());
    BOOST_TEST(request(ups(), 0x06, words({8, 2400}), &read_only) == MB_SLAVE_DEVICE_FAILURE);
    BOOST_TEST(writes == 1u);
    BOOST_TEST(request(ups(), 0x0F, write_coils_data(0, {false, false, false}), &read_only) ==
               MB_SLAVE_DEVICE_FAILURE);
    // A read/write whose write is refused reads nothing and answers the write's exception.
    BOOST_TEST(request(ups(), 0x17, read_write_data(8, 2, 8, {2400}), &read_only) ==
               MB_SLAVE_DEVICE_FAILURE);
    BOOST_TEST(reads == 1u);
    BOOST_TEST(value("/Output/Voltage/Value").to_uint() == 230u);
    BOOST_TEST(value("/Battery/Low/Value").to_bool());
    // Reads still work through it.
    BOOST_TEST(request(ups(), 0x03, words({8, 1}), &read_only) == MB_NO_ERROR);
}

BOOST_FIXTURE_TEST_CASE(diagnostics_and_event_counter, CCore) {
    CUnitCounters unit;
    CTransportCounters line;
    counters = &unit;
    transport = &line;
    const modbus_err_t fn = MB_ILLEGAL_FUNCTION, val = MB_ILLEGAL_DATA_VALUE;
    // Malformed requests, unknown sub-functions, and listen-only mode off a serial line.
    struct row_t {
        iobuf_t data;
        bool serial;
        modbus_err_t want;
    };
    const std::vector<row_t> rows = {
        {{0, 0, 0}, true, val},
        {words({0x0002, 0}), true, fn},
        {words({0x0013, 0}), true, fn},
        {words({0x0004, 0}), false, fn},
        {words({0x000A, 1}), true, val},
        {words({0x000B, 0, 0}), true, val},
        {words({0x0001, 0x00FF}), true, val},
    };
    for (const row_t& row : rows) {
        serial = row.serial;
        BOOST_TEST(request(ups(), 0x08, row.data) == row.want, "sub " << int(row.data[1]));
    }
    BOOST_TEST(request(ups(), 0x0B, {0}) == val);

    // Query data comes back as it was, whatever its length.
    serial = true;
    const iobuf_t query = {0, 0, 1, 2, 3, 4, 5};
    BOOST_TEST(request(ups(), 0x08, query) == MB_NO_ERROR);
    BOOST_TEST(pdu.data == query);

    // The counters, 16 bits of them; the line's counted since the unit's last clear. Each
    // request counts itself before it is answered.
    unit = CUnitCounters();
    line.messages = 0x10007;
    line.checksum_errors = 3;
    unit.base.messages = 2;
    unit.requests = 9;
    unit.unanswered = 4;
    unit.events = 0x12345;
    unit.count_exception(MB_ILLEGAL_DATA_ADDRESS);
    unit.count_exception(MB_SLAVE_DEVICE_BUSY);
    const std::vector<std::pair<unsigned, unsigned>> want = {
        {0x0B, 5}, {0x0C, 3}, {0x0D, 2}, {0x0E, 13}, {0x0F, 4}, {0x10, 0}, {0x11, 1}, {0x12, 0}};
    for (const auto& w : want) {
        BOOST_TEST(request(ups(), 0x08, words({w.first, 0})) == MB_NO_ERROR);
        BOOST_TEST(pdu.data == words({w.first, w.second}), "sub " << w.first);
    }
    // The event counter counts what was carried out, but not its own requests.
    BOOST_TEST(request(ups(), 0x0B, {}) == MB_NO_ERROR);
    BOOST_TEST(pdu.data == words({0, 0x234D}));

    // Clearing zeroes the unit's counts and takes the line's where they stand.
    BOOST_TEST(request(ups(), 0x08, words({0x0A, 0})) == MB_NO_ERROR);
    BOOST_TEST(pdu.data == words({0x0A, 0}));
    BOOST_TEST((unit.requests == 0 && unit.exceptions == 0 && unit.events == 0));
    ++line.messages;
    BOOST_TEST(request(ups(), 0x08, words({0x0B, 0})) == MB_NO_ERROR);
    BOOST_TEST(pdu.data == words({0x0B, 1}));

    // Listen-only mode: set without an answer; a restart leaves it, again without one, and
    // a restart outside it is answered.
    BOOST_TEST(request(ups(), 0x08, words({0x04, 0})) == MB_NO_ERROR);
    BOOST_TEST((unit.listen_only && silent));
    unit.requests = 5;
    BOOST_TEST(request(ups(), 0x08, words({0x01, 0xFF00})) == MB_NO_ERROR);
    BOOST_TEST((!unit.listen_only && silent && unit.requests == 0));
    BOOST_TEST(request(ups(), 0x08, words({0x01, 0})) == MB_NO_ERROR);
    BOOST_TEST((!silent && pdu.data == words({0x01, 0})));
}

BOOST_AUTO_TEST_SUITE_END()
