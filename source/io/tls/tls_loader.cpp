#include "io/tls/tls_loader.h"

#include "util/log.h"

#include <dlfcn.h>
#include <limits.h>
#include <mutex>
#include <unistd.h>
#include <vector>

namespace {

// The folder of the running program, with its slash; empty when it cannot be read.
std::string program_folder() {
    char path[PATH_MAX];
    const ssize_t n = ::readlink("/proc/self/exe", path, sizeof path - 1);
    if (n <= 0)
        return std::string();
    const std::string exe(path, static_cast<size_t>(n));
    const size_t slash = exe.rfind('/');
    return slash == std::string::npos ? std::string() : exe.substr(0, slash + 1);
}

} // namespace

mb_tls_engine_fn CTlsLoader::entry() {
    static std::mutex lock;
    static mb_tls_engine_fn found = nullptr;
    std::lock_guard<std::mutex> hold(lock);
    if (found != nullptr)
        return found;
    std::vector<std::string> paths;
    const std::string beside = program_folder();
    if (!beside.empty()) {
        paths.push_back(beside + "modbus_tls.so");
        paths.push_back(beside + MB_TLS_MODULE_FROM_BIN);
    }
    paths.push_back(MB_TLS_MODULE_PATH);
    std::string tried;
    for (const std::string& path : paths) {
        if (::access(path.c_str(), F_OK) != 0) {
            tried += (tried.empty() ? "" : ", ") + path + " (missing)";
            continue;
        }
        void* module = ::dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
        const char* failure = module == nullptr ? ::dlerror() : nullptr;
        if (module != nullptr) {
            found = reinterpret_cast<mb_tls_engine_fn>(::dlsym(module, MB_TLS_ENGINE_SYMBOL));
            if (found != nullptr) {
                LOG_INFO(SS_TCP_IO, 1, "TLS module: %s", path.c_str());
                return found;
            }
            failure = "no " MB_TLS_ENGINE_SYMBOL " in it";
            ::dlclose(module);
        }
        tried += (tried.empty() ? "" : ", ") + path + " (" + (failure ? failure : "?") + ")";
    }
    throw error("no usable TLS module: " + tried);
}

std::shared_ptr<CTlsEngine> CTlsLoader::engine(const std::string& certificate,
                                               const std::string& private_key,
                                               const std::string& ca_bundle,
                                               const std::string& tls12_ciphers) {
    const mb_tls_engine_fn make = entry();
    char why[512] = "";
    CTlsEngine* engine = make(certificate.c_str(), private_key.c_str(), ca_bundle.c_str(),
                              tls12_ciphers.c_str(), why, sizeof why);
    if (engine == nullptr)
        throw error(why[0] != '\0' ? why : "the TLS module made no engine");
    return std::shared_ptr<CTlsEngine>(engine);
}
