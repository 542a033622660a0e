#include "fuzz_store.h"

#include "fuzz_log.h"
#include "leaf_json.h"

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <sys/stat.h>

#include <ftw.h>

namespace {

tk_string read_all(const tk_string& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in)
        fuzz_setup_failed("cannot read " + path);
    return tk_string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

void replace_all(tk_string& text, const tk_string& from, const tk_string& to) {
    for (size_t pos = text.find(from); pos != tk_string::npos;
         pos = text.find(from, pos + to.size()))
        text.replace(pos, from.size(), to);
}

} // namespace

void fuzz_setup_failed(const tk_string& what) {
    std::fprintf(stderr, "fuzz set-up failed: %s\n", what.c_str());
    std::abort();
}

void fuzz_write_file(const tk_string& path, const uint8_t* data, size_t size) {
    FILE* f = std::fopen(path.c_str(), "wb");
    if (!f || (size && std::fwrite(data, 1, size, f) != size) || std::fclose(f) != 0)
        fuzz_setup_failed("cannot write " + path);
}

CFuzzStore::CFuzzStore() {
    struct stat st;
    const bool shm = ::stat("/dev/shm", &st) == 0 && S_ISDIR(st.st_mode);
    tk_string pattern = shm ? "/dev/shm/mb_fuzz_XXXXXX" : "/tmp/mb_fuzz_XXXXXX";
    if (!::mkdtemp(&pattern[0]))
        fuzz_setup_failed("mkdtemp " + pattern);
    _dir = pattern;
    _path = file("store.db");
    ::setenv("CDS_STORE", _path.c_str(), 1);
    tk_string error;
    if (toolkit::CCdsStore::create(_path, error) != 0)
        fuzz_setup_failed(error);
    if (_store.open(_path) != 0)
        fuzz_setup_failed(_store.error());
}

CFuzzStore::~CFuzzStore() {
    auto remove = [](const char* p, const struct stat*, int, struct FTW*) { return ::remove(p); };
    ::nftw(_dir.c_str(), remove, 16, FTW_DEPTH | FTW_PHYS);
}

const std::vector<toolkit::CLeafInfo>& CFuzzStore::sample_leaves() {
    static const std::vector<toolkit::CLeafInfo> leaves = [] {
        const tk_string data = tk_string(MB_SOURCE_DIR) + "/tests/data";
        tk_string text = read_all(data + "/store.json");
        replace_all(text, "@DATA@", data);
        replace_all(text, "@SERIAL_PORT@", "/dev/null");
        std::vector<toolkit::CLeafInfo> out;
        tk_string error;
        const auto doc = nlohmann::json::parse(text, nullptr, false);
        if (doc.is_discarded() || !CLeafJson::from_json(doc, out, error))
            fuzz_setup_failed("sample store.json: " + error);
        return out;
    }();
    return leaves;
}
