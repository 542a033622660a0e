// Replays fuzz inputs through a target without libFuzzer: every file named on the command
// line, or every file of every folder named, is passed to LLVMFuzzerTestOneInput once. Used
// to keep the corpora as regression tests in the normal build; a crash ends the process.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include <dirent.h>
#include <sys/stat.h>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);
extern "C" __attribute__((weak)) int LLVMFuzzerInitialize(int* argc, char*** argv);

namespace {

bool is_dir(const std::string& path) {
    struct stat st;
    return ::stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

// Files of a folder, sorted so that a failing run names the same file every time.
std::vector<std::string> folder_files(const std::string& dir) {
    std::vector<std::string> files;
    if (DIR* d = ::opendir(dir.c_str())) {
        while (const dirent* e = ::readdir(d)) {
            const std::string path = dir + "/" + e->d_name;
            if (e->d_name[0] != '.' && !is_dir(path))
                files.push_back(path);
        }
        ::closedir(d);
    }
    std::sort(files.begin(), files.end());
    return files;
}

} // namespace

int main(int argc, char** argv) {
    if (LLVMFuzzerInitialize)
        LLVMFuzzerInitialize(&argc, &argv);
    std::vector<std::string> files;
    for (int i = 1; i < argc; ++i) {
        if (is_dir(argv[i])) {
            const auto more = folder_files(argv[i]);
            files.insert(files.end(), more.begin(), more.end());
        } else {
            files.push_back(argv[i]);
        }
    }
    if (files.empty()) {
        std::fprintf(stderr, "replay: no input files in the arguments\n");
        return 1;
    }
    for (const std::string& name : files) {
        std::ifstream in(name, std::ios::binary);
        if (!in) {
            std::fprintf(stderr, "replay: cannot read %s\n", name.c_str());
            return 1;
        }
        const std::vector<char> bytes((std::istreambuf_iterator<char>(in)),
                                      std::istreambuf_iterator<char>());
        std::fprintf(stderr, "replay: %s (%zu bytes)\n", name.c_str(), bytes.size());
        LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size());
    }
    std::fprintf(stderr, "replay: %zu inputs, no crash\n", files.size());
    return 0;
}
