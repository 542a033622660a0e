// Batched reads and writes on a store of 100,000 leaves, with the store unchanged since the
// previous call and with another connection having written in between; reads by leaf id
// of cached leaves, as the server's I/O thread makes them; writes by leaf id as the server
// answers Modbus writes, one transaction per request or several requests in one.
#include "cds/cds_handle.h"
#include "toolkit/cds_store.h"

#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstdlib>
#include <ftw.h>
#include <unistd.h>

using toolkit::CCds;
using toolkit::CElement;

namespace {

const int k_store_leaves = 100000;
tk_string g_dir;
tk_string g_store;

tk_string leaf_path(int i) {
    char buf[96];
    std::snprintf(buf, sizeof buf, "/Bench/Device %d/Group %d/Param %d", i / 1000, i / 50 % 20,
                  i % 50);
    return buf;
}

CElement::type_t leaf_type(int i) {
    static const CElement::type_t types[] = {CElement::TYPE_INT, CElement::TYPE_FLOAT,
                                             CElement::TYPE_UINT, CElement::TYPE_STRING};
    return types[i % 4];
}

bool make_store() {
    char dir[] = "/tmp/bench_cds_XXXXXX";
    if (!::mkdtemp(dir))
        return false;
    g_dir = dir;
    g_store = g_dir + "/store.db";
    tk_string error;
    if (toolkit::CCdsStore::create(g_store, error) != 0) {
        std::fprintf(stderr, "%s\n", error.c_str());
        return false;
    }
    toolkit::CCdsStore store;
    std::vector<toolkit::CLeafInfo> leaves;
    for (int i = 0; i < k_store_leaves; ++i)
        leaves.push_back({leaf_path(i), leaf_type(i), CElement::from_string(std::to_string(i)), 0});
    if (store.open(g_store) != 0 || store.define(leaves) != 0) {
        std::fprintf(stderr, "%s\n", store.error().c_str());
        return false;
    }
    ::setenv("CDS_STORE", g_store.c_str(), 1);
    return true;
}

void remove_store() {
    auto remove = [](const char* p, const struct stat*, int, struct FTW*) { return ::remove(p); };
    if (!g_dir.empty())
        ::nftw(g_dir.c_str(), remove, 8, FTW_DEPTH | FTW_PHYS);
}

// n paths spread over the store.
std::vector<tk_string> batch(int n, int offset = 0) {
    std::vector<tk_string> paths;
    for (int i = 0; i < n; ++i)
        paths.push_back(leaf_path((offset + i * 997) % k_store_leaves));
    return paths;
}

CCds& connection(CCds& cds) {
    if (!cds.is_initialized())
        cds.set_handle(kvr_init(0));
    return cds;
}

// One leaf that no benchmark reads, written by the other connection.
void write_elsewhere(CCds& other, int64_t value) {
    std::vector<api_status_t> st;
    other.set_leaves({leaf_path(1)}, {CElement::from_int(value)}, {2}, st, "bench");
}

// Writes 10 of the leaves that the 100-leaf batch reads.
void write_in_batch(CCds& other, int64_t value) {
    const std::vector<tk_string> all = batch(100, 3);
    std::vector<tk_string> paths;
    for (size_t i = 0; i < all.size(); i += 10)
        paths.push_back(all[i]);
    std::vector<api_status_t> st;
    other.set_leaves(paths, std::vector<CElement>(paths.size(), CElement::from_int(value % 100)),
                     std::vector<kvr_tribool_t>(paths.size(), 2), st, "bench");
}

enum change_t { UNCHANGED, CHANGED_ELSEWHERE, CHANGED_IN_BATCH };

void get(benchmark::State& state, change_t change) {
    CCds cds, other;
    connection(cds);
    connection(other);
    const std::vector<tk_string> paths = batch(static_cast<int>(state.range(0)), 3);
    std::vector<api_status_t> st;
    std::vector<CElement> values;
    std::vector<element_property_t> sources;
    cds.get_leaves(paths, st, values, sources);
    int64_t n = 0;
    for (auto _ : state) {
        if (change != UNCHANGED) {
            state.PauseTiming();
            if (change == CHANGED_ELSEWHERE)
                write_elsewhere(other, ++n);
            else
                write_in_batch(other, ++n);
            state.ResumeTiming();
        }
        if (cds.get_leaves(paths, st, values, sources) != 0)
            state.SkipWithError("get_leaves failed");
        benchmark::DoNotOptimize(values.data());
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}

void set(benchmark::State& state, bool changed) {
    CCds cds, other;
    connection(cds);
    connection(other);
    const std::vector<tk_string> paths = batch(10, 5);
    std::vector<CElement> values(paths.size(), CElement::from_uint(0));
    const std::vector<kvr_tribool_t> flags(paths.size(), 2);
    std::vector<api_status_t> st;
    uint64_t n = 0;
    for (auto _ : state) {
        if (changed) {
            state.PauseTiming();
            write_elsewhere(other, static_cast<int64_t>(n));
            state.ResumeTiming();
        }
        values[0] = CElement::from_uint(++n);
        if (cds.set_leaves(paths, values, flags, st, "bench") != 0)
            state.SkipWithError("set_leaves failed");
    }
}

void BM_get_unchanged(benchmark::State& state) {
    get(state, UNCHANGED);
}
void BM_get_after_change(benchmark::State& state) {
    get(state, CHANGED_ELSEWHERE);
}
// The other connection wrote 10 of the leaves read.
void BM_get_after_change_in_batch(benchmark::State& state) {
    get(state, CHANGED_IN_BATCH);
}
void BM_set10_unchanged(benchmark::State& state) {
    set(state, false);
}
void BM_set10_after_change(benchmark::State& state) {
    set(state, true);
}

// What the server pays per request: the handle's batch of leaves with a prefix.
void BM_handle_get_unchanged(benchmark::State& state) {
    CCdsHandle handle;
    cds_leaf_set_t leaves;
    for (const tk_string& p : batch(static_cast<int>(state.range(0)), 3))
        leaves.emplace(p.substr(1));
    handle.get(leaves, "");
    for (auto _ : state)
        handle.get(leaves, "");
    state.SetItemsProcessed(state.iterations() * state.range(0));
}

// Reads by id of leaves that nobody changed since the last read: the cost of serving a
// request from the connection's cache.
void BM_read_ids_unchanged(benchmark::State& state) {
    CCds cds;
    connection(cds);
    toolkit::CLeafTable table;
    std::vector<toolkit::leaf_id_t> ids;
    for (const tk_string& p : batch(static_cast<int>(state.range(0)), 3))
        ids.push_back(table.add(p));
    cds.bind(table);
    std::vector<const toolkit::CLeafValue*> out(ids.size());
    if (cds.read(ids.data(), ids.size(), out.data(), true) != 0)
        state.SkipWithError("read failed");
    for (auto _ : state) {
        if (cds.read(ids.data(), ids.size(), out.data(), false) != 0)
            state.SkipWithError("read failed");
        benchmark::DoNotOptimize(out.data());
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}

// The same after another connection wrote one leaf that the batch does not read.
void BM_read_ids_after_change(benchmark::State& state) {
    CCds cds, other;
    connection(cds);
    connection(other);
    toolkit::CLeafTable table;
    std::vector<toolkit::leaf_id_t> ids;
    for (const tk_string& p : batch(static_cast<int>(state.range(0)), 3))
        ids.push_back(table.add(p));
    cds.bind(table);
    std::vector<const toolkit::CLeafValue*> out(ids.size());
    cds.read(ids.data(), ids.size(), out.data(), true);
    int64_t n = 0;
    for (auto _ : state) {
        state.PauseTiming();
        write_elsewhere(other, ++n);
        state.ResumeTiming();
        if (cds.read(ids.data(), ids.size(), out.data(), false) != 0)
            state.SkipWithError("read failed");
        benchmark::DoNotOptimize(out.data());
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}

// The server's cycle for a Modbus write of a string: one 200-byte leaf written by id, then
// read back by id. Arg 1: SQLite checkpoints on its own inside the writes (the default);
// arg 0: automatic checkpoints off and the WAL checkpointed between iterations, outside
// the timing, as the server's idle worker does.
void BM_write_then_read_ids(benchmark::State& state) {
    CCds cds;
    connection(cds);
    const bool auto_checkpoint = state.range(0) != 0;
    cds.set_auto_checkpoint(auto_checkpoint);
    toolkit::CLeafTable table;
    const toolkit::leaf_id_t id = table.add(leaf_path(4003)); // a string leaf
    cds.bind(table);
    const CElement values[] = {CElement::from_string(tk_string(200, 'a')),
                               CElement::from_string(tk_string(200, 'b'))};
    const toolkit::CLeafValue* out = nullptr;
    api_status_t status = 0;
    size_t n = 0;
    for (auto _ : state) {
        if (cds.write(&id, &values[++n % 2], 1, &status, false) != 0 || status != API_STATUS_OK)
            state.SkipWithError("write failed");
        if (cds.read(&id, 1, &out, false) != 0 || out->value.text().size() != 200)
            state.SkipWithError("read failed");
        if (!auto_checkpoint && cds.wal_frames() > 900) {
            state.PauseTiming();
            int left = 0;
            cds.checkpoint(left);
            state.ResumeTiming();
        }
    }
    state.SetItemsProcessed(state.iterations());
}

// Eight requests of one int leaf each, as eight clients' writes reach the server at once.
const int k_requests = 8;

struct CRequests {
    toolkit::CLeafTable table;
    toolkit::leaf_id_t ids[k_requests];
    CElement values[k_requests];
    api_status_t statuses[k_requests];
    CRequests() {
        for (int i = 0; i < k_requests; ++i)
            ids[i] = table.add(leaf_path(i * 1000 + 4)); // int leaves on separate pages
    }
    void next(int64_t n) {
        for (int i = 0; i < k_requests; ++i)
            values[i] = CElement::from_int(n + i);
    }
};

// Each request in a transaction of its own.
void BM_write8_one_each(benchmark::State& state) {
    CCds cds;
    connection(cds);
    CRequests r;
    cds.bind(r.table);
    int64_t n = 0;
    for (auto _ : state) {
        r.next(++n);
        for (int i = 0; i < k_requests; ++i)
            if (cds.write(&r.ids[i], &r.values[i], 1, &r.statuses[i], false) != 0)
                state.SkipWithError("write failed");
    }
    state.SetItemsProcessed(state.iterations() * k_requests);
}

// The eight requests as the parts of one transaction.
void BM_write8_grouped(benchmark::State& state) {
    CCds cds;
    connection(cds);
    CRequests r;
    cds.bind(r.table);
    toolkit::CWritePart parts[k_requests];
    for (int i = 0; i < k_requests; ++i)
        parts[i] = {&r.ids[i], &r.values[i], 1, &r.statuses[i]};
    int64_t n = 0;
    for (auto _ : state) {
        r.next(++n);
        if (cds.write(parts, k_requests, false, [] { return true; }) != 0)
            state.SkipWithError("write failed");
    }
    state.SetItemsProcessed(state.iterations() * k_requests);
}

BENCHMARK(BM_write_then_read_ids)->Arg(1)->Arg(0);
BENCHMARK(BM_write8_one_each);
BENCHMARK(BM_write8_grouped);
BENCHMARK(BM_read_ids_unchanged)->Arg(125)->Arg(2000);
BENCHMARK(BM_read_ids_after_change)->Arg(125);
BENCHMARK(BM_get_unchanged)->Arg(1)->Arg(10)->Arg(100);
BENCHMARK(BM_get_after_change)->Arg(1)->Arg(10)->Arg(100);
BENCHMARK(BM_get_after_change_in_batch)->Arg(100);
BENCHMARK(BM_set10_unchanged);
BENCHMARK(BM_set10_after_change);
BENCHMARK(BM_handle_get_unchanged)->Arg(100);

} // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 1;
    if (!make_store()) {
        remove_store();
        return 1;
    }
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    remove_store();
    return 0;
}
