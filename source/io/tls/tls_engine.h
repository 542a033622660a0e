#pragma once
// The server side of TLS as the TCP connection sees it: a session over one accepted socket,
// made by an engine that holds the context (certificate, key, CA bundle, cipher list).
//
// OpenSSL is not linked into the server: the engine lives in a module (modbus_tls.so) that
// CTlsLoader opens only when a secure port is configured, so that a device without one
// spends no memory on libssl and libcrypto. Nothing of OpenSSL appears here for that reason.
//
// Completions run on the socket's I/O context like any asio operation; a session must
// outlive its pending operations (the connection keeps it until it is destroyed) and the
// socket must outlive the session.
#include <boost/asio/buffer.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/optional.hpp>
#include <boost/system/error_code.hpp>

#include <functional>
#include <memory>
#include <string>

class CTlsSession {
public:
    using handshake_done_t = std::function<void(const boost::system::error_code&)>;
    using io_done_t = std::function<void(const boost::system::error_code&, size_t)>;

    CTlsSession() = default;
    CTlsSession(const CTlsSession&) = delete;
    CTlsSession& operator=(const CTlsSession&) = delete;
    virtual ~CTlsSession() = default;

    // The server side of the handshake.
    virtual void async_handshake(handshake_done_t done) = 0;
    // Some decrypted bytes into buffer.
    virtual void async_read_some(boost::asio::mutable_buffer buffer, io_done_t done) = 0;
    // All of buffer, encrypted.
    virtual void async_write(boost::asio::const_buffer buffer, io_done_t done) = 0;
    // After a failed handshake: why the client's certificate was refused; empty when it was
    // not (or none was looked at).
    virtual std::string verify_failure() const = 0;
    // The UTF8String held in the client certificate's extension oid (dotted text); none
    // when there is no certificate, no such extension, or it holds no UTF8String.
    virtual boost::optional<std::string> peer_extension(const std::string& oid) const = 0;
};

class CTlsEngine {
public:
    CTlsEngine() = default;
    CTlsEngine(const CTlsEngine&) = delete;
    CTlsEngine& operator=(const CTlsEngine&) = delete;
    virtual ~CTlsEngine() = default;

    // A session over socket, which is connected and not yet read from.
    virtual std::unique_ptr<CTlsSession> session(boost::asio::ip::tcp::socket& socket) = 0;
};

// The module's one entry point, by this name: an engine for the files and cipher list
// (empty: the built-in list), or null with why the context could not be made (naming the
// file) in why, cut to why_size. It throws nothing.
extern "C" {
typedef CTlsEngine* (*mb_tls_engine_fn)(const char* certificate, const char* private_key,
                                        const char* ca_bundle, const char* tls12_ciphers,
                                        char* why, size_t why_size);
}
#define MB_TLS_ENGINE_SYMBOL "mb_tls_engine"
