// Costs of the mapping model: translating a full 125-register read both ways, and parsing
// a mapping file of 10,000 mappings.
#include "modbus/map/eds_mapping.h"
#include "util/log.h"

#include <benchmark/benchmark.h>

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

using toolkit::CElement;

namespace {

struct CSample {
    std::unique_ptr<CParamRegisterMapping> mapping;
    CElement value;
};

// One of each kind a device map mixes, repeated until 125 registers are covered.
std::vector<CSample> read_of_125_registers() {
    const timeval now{1772719629, 250000};
    const struct {
        toolkit::node_map_t node;
        CElement value;
    } kinds[] = {
        {{{"ExternalValueType", "DATATYPE_UINT"}, {"Size", "2"}}, CElement::from_uint(2301)},
        {{{"ExternalValueType", "DATATYPE_INT"}, {"Size", "4"}, {"Multiplier", "10"}},
         CElement::from_int(-123456)},
        {{{"ExternalValueType", "DATATYPE_FLOAT"}, {"Size", "4"}}, CElement::from_float(49.98)},
        {{{"ExternalValueType", "DATATYPE_FLOAT"}, {"Size", "4"}, {"WordOrder", "1"}},
         CElement::from_float(-0.25)},
        {{{"ExternalValueType", "DATATYPE_STRING"}, {"Size", "16"}},
         CElement::from_string("UPS-3000-XL")},
        {{{"ExternalValueType", "DATATYPE_BOOL"}, {"BitOffset", "8"}}, CElement::from_bool(true)},
        {{{"ExternalValueType", "DATATYPE_TIME"}, {"DateSpec", "YYmdHMSS"}},
         CElement::from_time(now)},
        {{{"ExternalValueType", "DATATYPE_INT"},
          {"Size", "3"},
          {"BitOffset", "8"},
          {"Endianness", "1"}},
         CElement::from_int(-77)},
    };
    std::vector<CSample> out;
    size_t regs = 0;
    for (size_t i = 0; regs < 125; ++i) {
        toolkit::node_map_t node = kinds[i % 8].node;
        node.emplace("Name", "/Device/P" + std::to_string(i) + "/Value");
        auto m = std::make_unique<CParamRegisterMapping>(node, i + 1);
        if (regs + m->reg_count() > 125)
            continue;
        regs += m->reg_count();
        out.push_back({std::move(m), kinds[i % 8].value});
    }
    return out;
}

void to_registers(benchmark::State& state) {
    const std::vector<CSample> samples = read_of_125_registers();
    const CModbusParamDynamicConfig cfg;
    regvec_t response(125);
    for (auto _ : state) {
        mbreg_t* out = response.data();
        for (const CSample& s : samples) {
            s.mapping->to_registers(s.value, cfg, out);
            out += s.mapping->reg_count();
        }
        benchmark::DoNotOptimize(response.data());
    }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations()) * 125);
    state.counters["mappings"] = static_cast<double>(samples.size());
}

void from_registers(benchmark::State& state) {
    const std::vector<CSample> samples = read_of_125_registers();
    const CModbusParamDynamicConfig cfg;
    std::vector<regvec_t> request;
    for (const CSample& s : samples) {
        request.emplace_back(s.mapping->reg_count());
        s.mapping->to_registers(s.value, cfg, request.back().data());
    }
    for (auto _ : state) {
        for (size_t i = 0; i < samples.size(); ++i) {
            CElement el;
            samples[i].mapping->from_registers(request[i].data(), cfg, el);
            benchmark::DoNotOptimize(el);
        }
    }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations()) * 125);
}

// A file of n mappings of mixed kinds at consecutive addresses, removed when done.
class CGeneratedEds {
public:
    explicit CGeneratedEds(size_t n) {
        char name[] = "/tmp/bench_mapping_XXXXXX";
        const int fd = ::mkstemp(name);
        if (fd < 0)
            std::abort();
        ::close(fd);
        _path = name;
        std::ofstream out(_path);
        unsigned address = 0;
        for (size_t i = 0; i < n; ++i) {
            out << "[Parameter " << i << "]\nName = /Device/P" << i << "/Value\n";
            switch (i % 5) {
            case 0:
                out << "ExternalValueType = DATATYPE_UINT\nSize = 2\nMultiplier = 10\n";
                break;
            case 1:
                out << "ExternalValueType = DATATYPE_FLOAT\nSize = 4\nWordOrder = 1\n";
                break;
            case 2:
                out << "ExternalValueType = DATATYPE_STRING\nSize = 8\n";
                break;
            case 3:
                out << "Discrete = true\n";
                break;
            case 4:
                out << "ExternalValueType = DATATYPE_TIME\nDateSpec = YYmdHMSS\n";
                break;
            }
            out << "Address = " << address << "\n\n";
            static const unsigned width[] = {1, 2, 4, 0, 4};
            address = (address + width[i % 5]) % 60000;
        }
    }
    ~CGeneratedEds() { std::remove(_path.c_str()); }
    const std::string& path() const { return _path; }

private:
    std::string _path;
};

void parse_eds(benchmark::State& state) {
    const size_t n = static_cast<size_t>(state.range(0));
    const CGeneratedEds file(n);
    for (auto _ : state) {
        CEdsMapping eds(file.path());
        benchmark::DoNotOptimize(&eds);
    }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * n));
}

} // namespace

BENCHMARK(to_registers);
BENCHMARK(from_registers);
BENCHMARK(parse_eds)->Arg(10000)->Unit(benchmark::kMillisecond);

BENCHMARK_MAIN();
