// The TLS module: asio's SSL stream over the connection's socket, with the context
// CTlsContext makes. Built as modbus_tls.so with every symbol hidden but the entry point,
// so that its own copies of the libraries it links (static ones, on MB_STATIC builds) cannot
// clash with the server's.
#include "io/tls/tls_context.h"
#include "io/tls/tls_engine.h"

#include <boost/asio/ssl/stream.hpp>
#include <boost/asio/write.hpp>
#include <openssl/x509.h>

#include <cstring>
#include <exception>

namespace {

class CAsioTlsSession : public CTlsSession {
public:
    CAsioTlsSession(boost::asio::ip::tcp::socket& socket, boost::asio::ssl::context& context)
        : _stream(socket, context) {}

    void async_handshake(handshake_done_t done) override {
        _stream.async_handshake(boost::asio::ssl::stream_base::server, std::move(done));
    }
    void async_read_some(boost::asio::mutable_buffer buffer, io_done_t done) override {
        _stream.async_read_some(buffer, std::move(done));
    }
    void async_write(boost::asio::const_buffer buffer, io_done_t done) override {
        boost::asio::async_write(_stream, buffer, std::move(done));
    }
    std::string verify_failure() const override {
        const long verify = SSL_get_verify_result(native());
        return verify == X509_V_OK ? std::string() : X509_verify_cert_error_string(verify);
    }
    boost::optional<std::string> peer_extension(const std::string& oid) const override {
        return CTlsContext::peer_extension(native(), oid);
    }

private:
    // OpenSSL's getters take a non-const SSL.
    SSL* native() const {
        return const_cast<stream_t&>(_stream).native_handle();
    }

    using stream_t = boost::asio::ssl::stream<boost::asio::ip::tcp::socket&>;
    stream_t _stream;
};

class CAsioTlsEngine : public CTlsEngine {
public:
    explicit CAsioTlsEngine(std::shared_ptr<boost::asio::ssl::context> context)
        : _context(std::move(context)) {}

    std::unique_ptr<CTlsSession> session(boost::asio::ip::tcp::socket& socket) override {
        return std::unique_ptr<CTlsSession>(new CAsioTlsSession(socket, *_context));
    }

private:
    std::shared_ptr<boost::asio::ssl::context> _context;
};

void copy_why(const char* text, char* why, size_t why_size) {
    if (why_size == 0)
        return;
    std::strncpy(why, text, why_size - 1);
    why[why_size - 1] = '\0';
}

} // namespace

extern "C" __attribute__((visibility("default"))) CTlsEngine*
mb_tls_engine(const char* certificate, const char* private_key, const char* ca_bundle,
              const char* tls12_ciphers, char* why, size_t why_size) {
    try {
        return new CAsioTlsEngine(
            CTlsContext::create(certificate, private_key, ca_bundle, tls12_ciphers));
    } catch (const std::exception& e) {
        copy_why(e.what(), why, why_size);
    } catch (...) {
        copy_why("unknown failure", why, why_size);
    }
    return nullptr;
}
