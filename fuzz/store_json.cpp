// Fuzz target: the JSON that "cdsctl load" reads. The input is parsed into leaves; leaves it
// accepts are defined in a store (which may still refuse them) and dumped back as
// "cdsctl dump" does, in both forms. What the store holds must survive the round trip: the
// dump parses again into the same paths, types, values and properties.
#include "support/fuzz_log.h"
#include "support/fuzz_store.h"

#include "leaf_json.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>

namespace {

void check(bool ok, const char* what, const tk_string& detail = tk_string()) {
    if (!ok) {
        std::fprintf(stderr, "store_json: %s %s\n", what, detail.c_str());
        std::abort();
    }
}

void sort_by_path(std::vector<toolkit::CLeafInfo>& leaves) {
    std::sort(
        leaves.begin(), leaves.end(),
        [](const toolkit::CLeafInfo& a, const toolkit::CLeafInfo& b) { return a.path < b.path; });
}

void check_same(std::vector<toolkit::CLeafInfo> back, const std::vector<toolkit::CLeafInfo>& stored,
                const char* form) {
    sort_by_path(back);
    check(back.size() == stored.size(), "a dump reads back another number of leaves:", form);
    for (size_t i = 0; i < back.size(); ++i) {
        check(back[i].path == stored[i].path, "a dumped path reads back changed:", stored[i].path);
        check(back[i].type == stored[i].type, "a dumped type reads back changed:", stored[i].path);
        check(back[i].property == stored[i].property,
              "a dumped property reads back changed:", stored[i].path);
        check(CLeafJson::leaf_value(back[i]) == CLeafJson::leaf_value(stored[i]),
              "a dumped value reads back changed:", stored[i].path);
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static CFuzzStore* env = [] {
        fuzz_quiet_logs();
        return new CFuzzStore;
    }();

    const tk_string text(reinterpret_cast<const char*>(data), size);
    std::vector<toolkit::CLeafInfo> leaves;
    tk_string error;
    if (!CLeafJson::parse(text, "input", leaves, error)) {
        check(!error.empty(), "refused without a message");
        return 0;
    }
    if (env->store().define(leaves, true) != 0)
        return 0;

    std::vector<toolkit::CLeafInfo> stored;
    if (env->store().list("/", stored) != 0)
        return 0; // an empty store has nothing to list
    sort_by_path(stored);

    // Some paths that load in the flat form (a name starting with "$") have no tree form;
    // the tree dump then refuses with a message, and only the flat dump must hold.
    nlohmann::json tree;
    std::vector<toolkit::CLeafInfo> back;
    if (CLeafJson::to_tree(stored, tree, error)) {
        check(CLeafJson::parse(tree.dump(2), "tree dump", back, error),
              "a tree dump does not load:", error);
        check_same(back, stored, "tree");
        back.clear();
    } else {
        check(!error.empty(), "the tree dump refused without a message");
    }
    check(CLeafJson::parse(CLeafJson::to_flat(stored).dump(), "flat dump", back, error),
          "a flat dump does not load:", error);
    check_same(back, stored, "flat");
    return 0;
}
