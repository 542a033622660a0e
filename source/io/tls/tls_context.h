#pragma once
// The server side of TLS: a context that speaks TLS 1.2 and 1.3 only, without renegotiation
// or compression, and that admits only clients whose certificate chains to the CA bundle.
// TLS 1.2 offers ECDHE with AEAD ciphers, and AES128-SHA256 for clients that need exactly
// that suite, unless given another list; TLS 1.3 keeps OpenSSL's suites.
#include <boost/asio/ssl/context.hpp>
#include <boost/optional.hpp>

#include <memory>
#include <stdexcept>
#include <string>

class CTlsContext {
public:
    // Why the context could not be made, naming the file: missing, unreadable, not a
    // certificate or key, a key that does not match the certificate, or a key file that
    // group or others may read.
    struct error : std::runtime_error {
        using std::runtime_error::runtime_error;
    };

    // tls12_ciphers: an OpenSSL cipher list; empty for the default. Throws error.
    static std::shared_ptr<boost::asio::ssl::context>
    create(const std::string& certificate, const std::string& private_key,
           const std::string& ca_bundle, const std::string& tls12_ciphers = std::string());

    // The UTF8String held in the peer certificate's extension oid (dotted text); none when
    // there is no peer certificate, no such extension, or it holds no UTF8String.
    static boost::optional<std::string> peer_extension(SSL* ssl, const std::string& oid);

private:
    static void check_readable(const std::string& what, const std::string& path);
    static void check_private(const std::string& path);
};
