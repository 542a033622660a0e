#pragma once
// Opens the TLS module when the first secure port is set up, and makes its engine. The
// module is looked for beside the running program first (a build tree), then where the
// package installs it, seen from the program's folder (a package unpacked elsewhere) and as
// the absolute path; it stays loaded until the process ends, as its engines' code is in it.
#include "io/tls/tls_engine.h"

#include <memory>
#include <stdexcept>
#include <string>

class CTlsLoader {
public:
    // Why there is no engine: the module is missing or broken (naming the paths tried), or
    // the context could not be made (naming the file).
    struct error : std::runtime_error {
        using std::runtime_error::runtime_error;
    };

    // tls12_ciphers: an OpenSSL cipher list; empty for the built-in one. Throws error.
    static std::shared_ptr<CTlsEngine> engine(const std::string& certificate,
                                              const std::string& private_key,
                                              const std::string& ca_bundle,
                                              const std::string& tls12_ciphers = std::string());

private:
    static mb_tls_engine_fn entry();
};
