// Freshness of what the real server answers while another process writes the store: a
// value written through the store library, or over Modbus on one connection, must be what
// the very next read returns, on any connection, whatever the other connections are reading
// at the same time. Whatever the server keeps between requests must not outlive a write.
#include "server_process.h"

#include <boost/test/unit_test.hpp>

#include <atomic>
#include <thread>

namespace {

using toolkit::CElement;

const tk_string dev = "/Dev";
const unsigned written_regs = 10; // R0..R9 at 0..9, changed by the tests
const unsigned steady_regs = 10;  // R10..R19 at 10..19, never written: 1000 + i
const uint16_t wide_address = 30; // a UINT32, high word first

tk_string reg_leaf(unsigned i) {
    return dev + "/R" + std::to_string(i) + "/Value";
}

// Unit 1 on a free port: registers R0..R19, a 32-bit value and one coil, all writable.
struct CLiveStore {
    CLiveStore() {
        tk_string eds;
        std::vector<toolkit::CLeafInfo> leaves;
        auto leaf = [&](const tk_string& path, CElement::type_t type, const CElement& value) {
            leaves.push_back({path, type, value, 0});
        };
        for (unsigned i = 0; i < written_regs + steady_regs; ++i) {
            eds += "[R" + std::to_string(i) + "]\nName = /R" + std::to_string(i) +
                   "/Value\nAddress = " + std::to_string(i) +
                   "\nExternalValueType = DATATYPE_UINT\nSize = 2\n";
            leaf(reg_leaf(i), CElement::TYPE_UINT, CElement::from_uint(1000 + i));
            leaf(dev + "/R" + std::to_string(i) + "/Writable", CElement::TYPE_BOOL,
                 CElement::from_bool(true));
        }
        eds += "[Wide]\nName = /Wide/Value\nAddress = " + std::to_string(wide_address) +
               "\nExternalValueType = DATATYPE_UINT\nSize = 4\n"
               "[Coil]\nName = /Coil/Value\nAddress = 0\nDiscrete = true\n";
        write_text(store.dir().file("live.eds"), eds);
        leaf(dev + "/Wide/Value", CElement::TYPE_UINT, CElement::from_uint(0));
        leaf(dev + "/Wide/Writable", CElement::TYPE_BOOL, CElement::from_bool(true));
        leaf(dev + "/Coil/Value", CElement::TYPE_BOOL, CElement::from_bool(false));
        leaf(dev + "/Coil/Writable", CElement::TYPE_BOOL, CElement::from_bool(true));

        const tk_string unit = tcp_node + "Mappings/Live/";
        leaf(port_leaf, CElement::TYPE_UINT, CElement::from_uint(port));
        leaf(tcp_node + "Timeout/Value", CElement::TYPE_UINT, CElement::from_uint(1000));
        leaf("/Software/Data Servers/Modbus/Zero Fill Default/Value", CElement::TYPE_BOOL,
             CElement::from_bool(false));
        leaf(unit + "Slave ID/Value", CElement::TYPE_UINT, CElement::from_uint(1));
        leaf(unit + "Device Path/Value", CElement::TYPE_STRING, CElement::from_string(dev));
        leaf(unit + "EDS Paths/Value", CElement::TYPE_STRING,
             CElement::from_string(store.dir().file("live.eds")));
        leaf(ups_leaf, CElement::TYPE_INT, CElement::from_int(1));
        store.define(leaves);
    }
    CTestStore store;
    uint16_t port = free_port();
};

// A device process's own connection to the store (the one CDS_STORE names).
struct CDeviceProcess {
    CDeviceProcess() {
        cds.set_handle(kvr_init(0));
        BOOST_REQUIRE_MESSAGE(cds.is_initialized(), kvr_last_error());
    }
    // Writes the leaves in one batch; every one must be taken.
    void write(const std::vector<tk_string>& paths, const std::vector<CElement>& values) {
        std::vector<api_status_t> statuses;
        BOOST_REQUIRE_MESSAGE(
            cds.set_leaves(paths, values,
                           std::vector<kvr_tribool_t>(paths.size(), KVR_INDETERMINATE), statuses,
                           "live_store_test") == 0,
            cds.error());
        for (size_t i = 0; i < paths.size(); ++i)
            BOOST_REQUIRE_MESSAGE(statuses[i] == API_STATUS_OK, paths[i] << ": " << statuses[i]);
    }
    void write(const tk_string& path, const CElement& value) {
        write(std::vector<tk_string>(1, path), std::vector<CElement>(1, value));
    }
    uint64_t read(const tk_string& path) {
        api_status_t status = 0;
        CElement value;
        element_property_t source = 0;
        BOOST_REQUIRE_EQUAL(cds.get_leaf(path, status, value, source), 0);
        BOOST_REQUIRE_EQUAL(status, API_STATUS_OK);
        return value.to_uint();
    }
    toolkit::CCds cds;
};

// A libmodbus TCP connection to unit 1.
class CMaster {
public:
    explicit CMaster(uint16_t port) : _ctx(modbus_client(port)) {}

    // The registers, or an empty vector when there was no normal answer.
    std::vector<uint16_t> read(int address, int count) {
        std::vector<uint16_t> regs(count);
        if (modbus_read_registers(_ctx.get(), address, count, regs.data()) != count)
            regs.clear();
        return regs;
    }
    int read_one(int address) {
        const std::vector<uint16_t> r = read(address, 1);
        return r.empty() ? -1 : r[0];
    }
    uint32_t read_wide() {
        const std::vector<uint16_t> r = read(wide_address, 2);
        return r.empty() ? 0xdeadbeefu : (uint32_t(r[0]) << 16) | r[1];
    }
    int read_coil() {
        uint8_t bit = 0;
        return modbus_read_bits(_ctx.get(), 0, 1, &bit) == 1 ? bit : -1;
    }
    bool write_one(int address, uint16_t value) {
        return modbus_write_register(_ctx.get(), address, value) == 1;
    }
    bool write_wide(uint32_t value) {
        const uint16_t regs[2] = {uint16_t(value >> 16), uint16_t(value & 0xffff)};
        return modbus_write_registers(_ctx.get(), wide_address, 2, regs) == 2;
    }

private:
    std::shared_ptr<modbus_t> _ctx;
};

// A value that differs from the one before it on the same register.
uint16_t round_value(unsigned round) {
    return static_cast<uint16_t>(round * 131u + 17u);
}

// Rounds of store writes, each read back over Modbus at once: single registers, the whole
// block after a one-batch write of all of it, the 32-bit value and the coil.
void check_store_writes_are_fresh(CDeviceProcess& device, CMaster& master, unsigned rounds) {
    std::vector<uint16_t> model(written_regs);
    for (unsigned i = 0; i < written_regs; ++i)
        model[i] = static_cast<uint16_t>(master.read_one(int(i)));
    for (unsigned round = 0; round < rounds; ++round) {
        const unsigned reg = round % written_regs;
        const uint16_t v = round_value(round);
        if (round % 5 == 4) {
            std::vector<tk_string> paths;
            std::vector<CElement> values;
            for (unsigned i = 0; i < written_regs; ++i) {
                model[i] = static_cast<uint16_t>(v + i);
                paths.push_back(reg_leaf(i));
                values.push_back(CElement::from_uint(model[i]));
            }
            device.write(paths, values);
        } else {
            model[reg] = v;
            device.write(reg_leaf(reg), CElement::from_uint(v));
            BOOST_REQUIRE_EQUAL(master.read_one(int(reg)), v);
        }
        // The block answer must not mix the new value with old neighbours.
        BOOST_REQUIRE(master.read(0, int(written_regs)) == model);
        if (round % 3 == 0) {
            const uint32_t wide = 0x01000193u * (round + 1);
            device.write(dev + "/Wide/Value", CElement::from_uint(wide));
            BOOST_REQUIRE_EQUAL(master.read_wide(), wide);
            device.write(dev + "/Coil/Value", CElement::from_bool(round % 2 == 0));
            BOOST_REQUIRE_EQUAL(master.read_coil(), round % 2 == 0 ? 1 : 0);
        }
    }
}

// Another master reading in a loop until told to stop; with check, the registers must keep
// their first values.
struct CHammer {
    CHammer(uint16_t port, int address, int count, bool check)
        : _thread([=] {
              CMaster master(port);
              std::vector<uint16_t> first;
              while (!stop) {
                  const std::vector<uint16_t> regs = master.read(address, count);
                  if (regs.empty())
                      ++failures;
                  else if (first.empty())
                      first = regs;
                  else if (check && regs != first)
                      ++changes;
                  ++reads;
              }
          }) {}
    ~CHammer() {
        stop = true;
        _thread.join();
    }
    std::atomic<bool> stop{false};
    std::atomic<unsigned> reads{0}, failures{0}, changes{0};

private:
    std::thread _thread;
};

// The server on that store, a device process and a master that it answers.
struct CLiveServer : CLiveStore {
    CLiveServer() {
        // Serving, so that the first round's time is not start-up.
        BOOST_REQUIRE_MESSAGE(
            eventually([&] { return master.read_one(10) == 1000 + int(written_regs); }),
            server.log());
    }
    ~CLiveServer() { BOOST_TEST(server.wait(0) == -1, server.log()); }
    CServerProcess server{store.dir(), {"-Ns"}};
    CDeviceProcess device;
    CMaster master{port};
};

} // namespace

BOOST_FIXTURE_TEST_SUITE(server_live_store, CLiveServer)

BOOST_AUTO_TEST_CASE(store_writes_are_read_at_once_while_others_read) {
    {
        // Registers nobody writes: they must answer their values all along.
        CHammer others(port, int(written_regs), int(steady_regs), true);
        check_store_writes_are_fresh(device, master, 300);
        others.stop = true;
        BOOST_TEST(others.reads > 10u);
        BOOST_TEST(others.failures == 0u);
        BOOST_TEST(others.changes == 0u);
    }
    {
        // The very registers being written, read in between the writes and reads.
        CHammer same(port, 0, int(written_regs + steady_regs), false);
        check_store_writes_are_fresh(device, master, 300);
        same.stop = true;
        BOOST_TEST(same.reads > 10u);
        BOOST_TEST(same.failures == 0u);
    }
}

BOOST_AUTO_TEST_CASE(modbus_writes_are_read_on_another_connection) {
    CMaster& a = master;
    CMaster b(port);
    CHammer others(port, int(written_regs), int(steady_regs), true);
    for (unsigned round = 0; round < 200; ++round) {
        const unsigned reg = round % written_regs;
        const uint16_t v = round_value(round);
        BOOST_REQUIRE(a.write_one(int(reg), v));
        BOOST_REQUIRE_EQUAL(b.read_one(int(reg)), v);
        BOOST_REQUIRE_EQUAL(device.read(reg_leaf(reg)), v);
        // A store write after it wins on both connections, the writer's too.
        const uint16_t w = static_cast<uint16_t>(v ^ 0x5a5a);
        device.write(reg_leaf(reg), CElement::from_uint(w));
        BOOST_REQUIRE_EQUAL(a.read_one(int(reg)), w);
        BOOST_REQUIRE_EQUAL(b.read_one(int(reg)), w);
        if (round % 4 == 0) {
            const uint32_t wide = 0x9e3779b9u * (round + 1);
            BOOST_REQUIRE(b.write_wide(wide));
            BOOST_REQUIRE_EQUAL(a.read_wide(), wide);
            BOOST_REQUIRE_EQUAL(device.read(dev + "/Wide/Value"), wide);
        }
    }
    others.stop = true;
    BOOST_TEST(others.failures == 0u);
    BOOST_TEST(others.changes == 0u);
}

BOOST_AUTO_TEST_SUITE_END()
