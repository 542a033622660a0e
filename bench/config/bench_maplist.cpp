// Costs of one 125-register request through a register map list: building the list and the
// leaves it names, translating the leaves read into registers, and turning written
// registers into leaves. Run over files of 1,000 and 10,000 mappings: the cost should follow
// the mappings the range touches, not the size of the file.
//
// The leaves are filled in memory as a store read fills them, so that only the map list's
// own work is measured (bench_cds measures the store).
#include "modbus/config/modbus_device_config.h"

#include <benchmark/benchmark.h>

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <map>
#include <memory>
#include <string>

using toolkit::CElement;

namespace {

const regaddr_t first = 1000;
const regaddr_t last = first + 124;

// n register mappings of mixed kinds at consecutive addresses, in a file removed when done.
class CGeneratedEds {
public:
    explicit CGeneratedEds(size_t n) {
        char name[] = "/tmp/bench_maplist_XXXXXX";
        const int fd = ::mkstemp(name);
        if (fd < 0)
            std::abort();
        ::close(fd);
        _path = name;
        std::ofstream out(_path);
        unsigned address = 0;
        for (size_t i = 0; i < n; ++i) {
            static const char* const kinds[] = {
                "DATATYPE_UINT\nSize = 2\nMultiplier = 10\n",
                "DATATYPE_FLOAT\nSize = 4\nWordOrder = 1\n",
                "DATATYPE_STRING\nSize = 8\n",
                "DATATYPE_INT\nSize = 4\nDivider = 10\n",
                "DATATYPE_BOOL\n",
            };
            static const unsigned width[] = {1, 2, 4, 2, 1};
            out << "[P" << i << "]\nName = /P" << i << "/Value\nAddress = " << address
                << "\nExternalValueType = " << kinds[i % 5] << "\n";
            address += width[i % 5];
        }
    }
    ~CGeneratedEds() { std::remove(_path.c_str()); }
    const std::string& path() const { return _path; }

private:
    std::string _path;
};

// A device over one generated file, its attributes already read (as after the first
// request), and the leaves of the benchmark's range as a store read leaves them.
struct CBenchDevice {
    explicit CBenchDevice(size_t n)
        : file(n),
          device("/Devices/Bench", {std::make_shared<const CEdsMapping>(file.path())}, false),
          events(1, "") {
        const auto list = device.get_registers(CAddressRange(first, last));
        leaves = list->get_paths(true, true);
        for (const CCdsLeaf& leaf : leaves) {
            leaf._status = API_STATUS_OK;
            leaf._element = value_of(leaf._path);
        }
        list->update_configs(leaves);
        for (CModbusParamDynamicConfig* cfg : list->configs())
            writable += cfg->writable();
    }

    // Parameter i keeps the kind of mapping i of the file.
    static CElement value_of(const tk_string& path) {
        if (path.size() > 9 && path.compare(path.size() - 9, 9, "/Writable") == 0)
            return CElement::from_bool(true);
        if (path.size() > 6 && path.compare(path.size() - 6, 6, "/Units") == 0)
            return CElement();
        switch (std::stoul(path.substr(2)) % 5) {
        case 0:
            return CElement::from_uint(230);
        case 1:
            return CElement::from_float(49.98);
        case 2:
            return CElement::from_string("UPS-3000");
        case 3:
            return CElement::from_int(-12345);
        default:
            return CElement::from_bool(true);
        }
    }

    CGeneratedEds file;
    CModbusDeviceConfig device;
    CEventQueue events;
    cds_leaf_set_t leaves;
    size_t writable = 0;
};

CBenchDevice& bench_device(size_t n) {
    static std::map<size_t, std::unique_ptr<CBenchDevice>> devices;
    auto& d = devices[n];
    if (!d)
        d = std::make_unique<CBenchDevice>(n);
    return *d;
}

void build_list(benchmark::State& state) {
    CBenchDevice& d = bench_device(static_cast<size_t>(state.range(0)));
    size_t nleaves = 0;
    for (auto _ : state) {
        const auto list = d.device.get_registers(CAddressRange(first, last));
        const cds_leaf_set_t leaves = list->get_paths(true, true);
        nleaves = leaves.size();
        benchmark::DoNotOptimize(nleaves);
    }
    state.counters["leaves"] = static_cast<double>(nleaves);
}

void translate(benchmark::State& state) {
    CBenchDevice& d = bench_device(static_cast<size_t>(state.range(0)));
    const auto list = d.device.get_registers(CAddressRange(first, last));
    for (auto _ : state) {
        list->update_configs(d.leaves);
        const regvec_t regs = list->translate_vals(d.leaves, d.events);
        benchmark::DoNotOptimize(regs.data());
    }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations()) * 125);
}

void write_back(benchmark::State& state) {
    CBenchDevice& d = bench_device(static_cast<size_t>(state.range(0)));
    const auto list = d.device.get_registers(CAddressRange(first, last));
    const regvec_t regs = list->translate_vals(d.leaves, d.events);
    size_t nleaves = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(list->check_range(d.leaves, regs));
        const cds_leaf_set_t out = list->get_vals(d.leaves, regs);
        nleaves = out.size();
    }
    state.counters["leaves"] = static_cast<double>(nleaves);
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations()) * 125);
}

} // namespace

BENCHMARK(build_list)->Arg(1000)->Arg(10000);
BENCHMARK(translate)->Arg(1000)->Arg(10000);
BENCHMARK(write_back)->Arg(1000)->Arg(10000);

BENCHMARK_MAIN();
