#include "io/tls/tls_context.h"

#include <openssl/err.h>
#include <openssl/ssl.h>
#include <openssl/x509v3.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <sys/stat.h>

namespace {

// Forward-secret AEAD suites first; AES128-SHA256 (RSA key exchange) is the suite secure
// Modbus masters must all have.
const char* const default_tls12_ciphers =
    "ECDHE-ECDSA-AES128-GCM-SHA256:ECDHE-RSA-AES128-GCM-SHA256:"
    "ECDHE-ECDSA-AES256-GCM-SHA384:ECDHE-RSA-AES256-GCM-SHA384:"
    "ECDHE-ECDSA-CHACHA20-POLY1305:ECDHE-RSA-CHACHA20-POLY1305:"
    "AES128-SHA256";

// OpenSSL's reason for the latest failure, for the message, with its queue emptied.
std::string openssl_reason() {
    std::string reason;
    while (const unsigned long code = ERR_get_error()) {
        char text[256];
        ERR_error_string_n(code, text, sizeof text);
        reason = text;
    }
    return reason.empty() ? "unknown error" : reason;
}

} // namespace

void CTlsContext::check_readable(const std::string& what, const std::string& path) {
    std::FILE* file = std::fopen(path.c_str(), "rb");
    if (file == nullptr)
        throw error(what + " '" + path + "' cannot be read: " + std::strerror(errno));
    std::fclose(file);
}

void CTlsContext::check_private(const std::string& path) {
    struct stat st {};
    if (::stat(path.c_str(), &st) != 0)
        throw error("private key '" + path + "' cannot be read: " + std::strerror(errno));
    if ((st.st_mode & 077) != 0) {
        char mode[8];
        std::snprintf(mode, sizeof mode, "%04o", static_cast<unsigned>(st.st_mode & 07777));
        throw error("private key '" + path + "' may be read by group or others (mode " + mode +
                    "); allow its owner only (chmod 600)");
    }
}

std::shared_ptr<boost::asio::ssl::context> CTlsContext::create(const std::string& certificate,
                                                               const std::string& private_key,
                                                               const std::string& ca_bundle,
                                                               const std::string& tls12_ciphers) {
    namespace ssl = boost::asio::ssl;
    check_readable("certificate", certificate);
    check_readable("private key", private_key);
    check_private(private_key);
    check_readable("CA bundle", ca_bundle);

    auto context = std::make_shared<ssl::context>(ssl::context::tls_server);
    SSL_CTX* ctx = context->native_handle();
    ERR_clear_error();
    if (SSL_CTX_set_min_proto_version(ctx, TLS1_2_VERSION) != 1 ||
        SSL_CTX_set_max_proto_version(ctx, TLS1_3_VERSION) != 1)
        throw error("TLS versions 1.2 to 1.3 cannot be set: " + openssl_reason());
    SSL_CTX_set_options(ctx, SSL_OP_NO_RENEGOTIATION | SSL_OP_NO_COMPRESSION |
                                 SSL_OP_CIPHER_SERVER_PREFERENCE);
    const std::string ciphers = tls12_ciphers.empty() ? default_tls12_ciphers : tls12_ciphers;
    if (SSL_CTX_set_cipher_list(ctx, ciphers.c_str()) != 1)
        throw error("the TLS 1.2 cipher list '" + ciphers +
                    "' names no suite this OpenSSL offers: " + openssl_reason());
    if (SSL_CTX_load_verify_locations(ctx, ca_bundle.c_str(), nullptr) != 1)
        throw error("CA bundle '" + ca_bundle +
                    "' holds no usable certificate: " + openssl_reason());
    if (SSL_CTX_use_certificate_chain_file(ctx, certificate.c_str()) != 1)
        throw error("certificate '" + certificate +
                    "' is not a usable certificate: " + openssl_reason());
    if (SSL_CTX_use_PrivateKey_file(ctx, private_key.c_str(), SSL_FILETYPE_PEM) != 1)
        throw error("private key '" + private_key + "' is not a usable key for certificate '" +
                    certificate + "': " + openssl_reason());
    if (SSL_CTX_check_private_key(ctx) != 1)
        throw error("private key '" + private_key + "' does not match certificate '" + certificate +
                    "': " + openssl_reason());
    SSL_CTX_set_verify(ctx, SSL_VERIFY_PEER | SSL_VERIFY_FAIL_IF_NO_PEER_CERT, nullptr);
    return context;
}

boost::optional<std::string> CTlsContext::peer_extension(SSL* ssl, const std::string& oid) {
    X509* cert = SSL_get1_peer_certificate(ssl);
    if (cert == nullptr)
        return boost::none;
    boost::optional<std::string> value;
    ASN1_OBJECT* object = OBJ_txt2obj(oid.c_str(), 1);
    const int index = object == nullptr ? -1 : X509_get_ext_by_OBJ(cert, object, -1);
    if (index >= 0) {
        const ASN1_OCTET_STRING* data = X509_EXTENSION_get_data(X509_get_ext(cert, index));
        const unsigned char* p = ASN1_STRING_get0_data(data);
        ASN1_UTF8STRING* text = d2i_ASN1_UTF8STRING(nullptr, &p, ASN1_STRING_length(data));
        if (text != nullptr) {
            value = std::string(reinterpret_cast<const char*>(ASN1_STRING_get0_data(text)),
                                static_cast<size_t>(ASN1_STRING_length(text)));
            ASN1_UTF8STRING_free(text);
        }
    }
    ASN1_OBJECT_free(object);
    X509_free(cert);
    ERR_clear_error();
    return value;
}
