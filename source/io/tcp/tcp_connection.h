#pragma once
// The messenger of one accepted TCP socket. Its handler, made when the connection is served,
// is handed every byte received and not yet consumed, and says what to do. Requests are
// served strictly one at a time: nothing is read while a request is being answered, and bytes
// of a pipelined request wait in the buffer until the answer has been written. The receive
// buffer starts at 256 bytes, grows by 256 while a request is incomplete, and shrinks back
// to 256 whenever everything received has been consumed. Any I/O error or the peer's close
// ends only this connection. With an idle time-out, a connection that sends nothing for that
// long while it waits for a request is closed; the clock is a time stamp taken when bytes
// arrive or an answer leaves, checked by one coarse timer, so a request costs no timer call.
//
// For its listener to choose whom to evict at the connection limit, it also stamps when it
// took its client's last whole request; bytes that never make one do not count. With a frame
// time-out, bytes that wait that long while the connection reads, without its handler taking
// them, close it; a timer runs only while such bytes wait.
//
// With a TLS context the connection first completes the server side of a handshake, within a
// time-out, then hands the peer's identity to its handler and reads and writes through the
// TLS stream; a failed or silent handshake is reported once and ends the connection.
#include "io/io_messenger.h"
#include "io/tcp/tcp_listener_options.h"
#include "io/tls/tls_engine.h"

#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/steady_timer.hpp>

#include <chrono>
#include <functional>
#include <string>

class CTcpConnection : public CIoMessenger {
public:
    static constexpr size_t buffer_step = 256;

    // make_handler: called once the connection is served (after a TLS handshake). tls: null
    // for a plain connection.
    static std::shared_ptr<CTcpConnection>
    create(CIoManager& manager, handler_factory_t make_handler,
           const std::shared_ptr<CTlsEngine>& tls = nullptr);
    ~CTcpConnection() override;

    boost::asio::ip::tcp::socket& socket() { return _sock; }
    // The peer's address as people write it (an IPv4-mapped one as IPv4), or "unknown".
    std::string peer_name() const;
    // Called once, when the socket is closed.
    void set_on_close(std::function<void()> on_close) { _on_close = std::move(on_close); }
    // Told once how the TLS handshake ended: an empty text when it succeeded, else why it
    // failed. The listener decides what to log.
    using handshake_report_t = std::function<void(const std::string& failure)>;
    void set_on_handshake(handshake_report_t report) { _on_handshake = std::move(report); }
    // Starts the idle clock of an accepted connection; 0 leaves it open however long it is
    // silent.
    void watch_idle(std::chrono::seconds timeout);
    // Serves an accepted connection as options say: the handshake first when it has TLS,
    // then the idle clock and the first read.
    void serve(const CTcpListenerOptions& options);
    // When the last whole request was taken off the buffer; the accept when none was yet.
    // Only moves while options.evict_after_s is not 0.
    std::chrono::steady_clock::time_point last_request() const { return _last_request; }
    // Open, and waiting for its client: for the next request, or still in its TLS handshake.
    // False while a request is being served or its answer written.
    bool waiting_for_client() const;

    void close() override;

private:
    CTcpConnection(CIoManager& manager, handler_factory_t make_handler,
                   const std::shared_ptr<CTlsEngine>& tls);
    std::shared_ptr<CTcpConnection> self();
    // Makes the handler and reads the first request.
    void start();
    void read_more();
    void handle_read(const boost::system::error_code& error, size_t count);
    void write(const uint8_t* data, size_t size);
    void handle_write(const boost::system::error_code& error);
    // Hands the unconsumed bytes to the handler until it wants more, answers or waits.
    void process();
    // Acts on what the handler said; true when process() may go on with the bytes left.
    bool act(const CProtocolHandler::action_t& action);
    void resumed() override;
    void handle_handshake(const boost::system::error_code& error);
    void handshake_failed(const std::string& reason);
    void handshake_timed_out(const boost::system::error_code& error);
    void wait_idle(std::chrono::steady_clock::time_point until);
    void handle_idle(const boost::system::error_code& error);
    // Starts the frame clock when bytes are left at the front (moved: the front changed).
    void watch_frame(bool moved);
    void arm_frame_timer(std::chrono::steady_clock::time_point deadline);
    void handle_frame_timer(const boost::system::error_code& error);

    handler_factory_t _make_handler;
    iobuf_t _rbuf;
    // Bytes received and not yet consumed, at the front of _rbuf.
    size_t _offset = 0;
    boost::asio::ip::tcp::socket _sock;
    // Keeps the engine alive as long as the session it made.
    std::shared_ptr<CTlsEngine> _tls_engine;
    std::unique_ptr<CTlsSession> _tls;
    // What serve() was given, for after the handshake.
    std::chrono::seconds _serve_idle{0};
    std::chrono::seconds _handshake_timeout{0};
    std::string _identity_oid;
    bool _handshake_done = false;
    std::function<void()> _on_close;
    handshake_report_t _on_handshake;
    boost::asio::steady_timer _idle;
    std::chrono::seconds _idle_timeout{0};
    // When a byte arrived or an answer left last.
    std::chrono::steady_clock::time_point _last_heard;
    // A read is pending: the connection waits for its client, not for an answer.
    bool _reading = false;
    // Completing a write that send() finished at once.
    bool _sending_inline = false;
    std::chrono::steady_clock::time_point _last_request;
    // Without eviction nobody reads the stamp, and a request need not read the clock.
    bool _stamp_requests = false;
    std::chrono::milliseconds _frame_timeout{0};
    boost::asio::steady_timer _frame_timer;
    bool _frame_timer_armed = false;
    // Bytes wait at the front of _rbuf, since _partial_since.
    bool _partial = false;
    std::chrono::steady_clock::time_point _partial_since;
};
