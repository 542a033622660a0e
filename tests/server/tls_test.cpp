// The secure Modbus TCP port of the real server: certificates made by scripts/tls-certs.sh,
// clients speaking TLS over loopback, roles deciding what each client may ask. These run under
// qemu too; tls_e2e.py tries the refusals and broken handshakes with pymodbus and openssl.
#include "server_process.h"
#include "support/subsystem_log.h"

#include <boost/asio/connect.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/read.hpp>
#include <boost/asio/ssl.hpp>
#include <boost/asio/write.hpp>
#include <boost/test/unit_test.hpp>

#include <cstdlib>
#include <memory>
#include <sys/stat.h>

namespace {

using toolkit::CElement;
namespace ssl = boost::asio::ssl;
using boost::asio::ip::tcp;

// Read register 8 of unit 1 (2300 in the sample store), and write it back unchanged.
const std::vector<uint8_t> read_request{0, 1, 0, 0, 0, 6, 1, 3, 0, 8, 0, 1};
const std::vector<uint8_t> write_request{0, 2, 0, 0, 0, 6, 1, 6, 0, 8, 0x08, 0xFC};
const std::vector<uint8_t> read_answer{0, 1, 0, 0, 0, 5, 1, 3, 2, 0x08, 0xFC};

// A TLS client with the named certificate of the test CA's folder ("" for none). Every
// operation has five seconds, so a server that stops answering fails the test, not hangs it.
class CTlsClient {
public:
    CTlsClient(const tk_string& certs, const tk_string& name, uint16_t port)
        : _context(ssl::context::tls_client) {
        _context.load_verify_file(certs + "/ca.crt");
        _context.set_verify_mode(ssl::verify_peer);
        if (!name.empty()) {
            _context.use_certificate_chain_file(certs + "/" + name + ".crt");
            _context.use_private_key_file(certs + "/" + name + ".key", ssl::context::pem);
        }
        // The stream takes its certificate from the context when it is made.
        _stream.reset(new ssl::stream<tcp::socket>(_io, _context));
        boost::system::error_code ec;
        _stream->lowest_layer().connect(
            tcp::endpoint(boost::asio::ip::make_address("127.0.0.1"), port), ec);
        if (!ec)
            ec = run(
                [this](auto done) { _stream->async_handshake(ssl::stream_base::client, done); });
        _ok = !ec;
    }

    // The answer of expect bytes to request; empty when the server refused or closed.
    std::vector<uint8_t> ask(const std::vector<uint8_t>& request, size_t expect) {
        std::vector<uint8_t> answer(expect);
        if (!_ok || run([&](auto done) {
                boost::asio::async_write(*_stream, boost::asio::buffer(request), done);
            }) ||
            run([&](auto done) {
                boost::asio::async_read(*_stream, boost::asio::buffer(answer), done);
            }))
            return {};
        return answer;
    }

private:
    template <class Start> boost::system::error_code run(Start start) {
        boost::system::error_code result = boost::asio::error::timed_out;
        bool finished = false;
        start([&](const boost::system::error_code& e, auto&&...) {
            result = e;
            finished = true;
        });
        _io.restart();
        _io.run_for(std::chrono::seconds(5));
        if (!finished) {
            boost::system::error_code ignored;
            _stream->lowest_layer().close(ignored);
            _io.restart();
            _io.run();
        }
        return result;
    }

    boost::asio::io_context _io;
    ssl::context _context;
    std::unique_ptr<ssl::stream<tcp::socket>> _stream;
    bool _ok = false;
};

// The certificates, made once for the suite.
struct CCerts {
    CCerts() {
        const tk_string command =
            "bash " MB_SOURCE_DIR "/scripts/tls-certs.sh " + dir.path() + " >/dev/null";
        BOOST_REQUIRE_EQUAL(std::system(command.c_str()), 0);
    }
    CTempDir dir;
};

const CCerts& certs() {
    static const CCerts made;
    return made;
}

// The server with a secure port (and no plain one) and roles Operator (functions 1 to 6, 15,
// 16) and Viewer (reads only); key_mode: the server key file's mode; tcp: more settings, by
// their names under the TCP node (these win).
struct CTlsServer : CServerStore {
    explicit CTlsServer(mode_t key_mode = 0600, bool wait_serving = true,
                        const char* log_level = "1",
                        const std::vector<std::pair<tk_string, CElement>>& more = {},
                        const tk_string& program = MB_BINARY_DIR "/modbus_server") {
        const tk_string dir = certs().dir.path();
        const std::vector<std::pair<tk_string, CElement>> settings{
            {"Port", CElement::from_uint(tls_port)},
            {"Certificate", CElement::from_string(dir + "/server.crt")},
            {"Private Key", CElement::from_string(key_file())},
            {"CA Bundle", CElement::from_string(dir + "/ca.crt")},
            {"Handshake Timeout", CElement::from_uint(1)},
            {"Roles/Operator/Function Codes", CElement::from_string("1-6,15,16")},
            {"Roles/Viewer/Function Codes", CElement::from_string("1-4")},
            {"Roles/Viewer/Unit IDs", CElement::from_string("1")}};
        for (const auto& s : settings)
            tcp("Security/" + s.first, s.second);
        for (const auto& s : more)
            tcp(s.first, s.second);
        // A copy of the key, so that its mode can differ from case to case.
        const tk_string copy = "cp " + dir + "/server.key " + key_file();
        BOOST_REQUIRE_EQUAL(std::system(copy.c_str()), 0);
        BOOST_REQUIRE_EQUAL(::chmod(key_file().c_str(), key_mode), 0);
        server.reset(new CServerProcess(store.dir(), {"-Ns", "-D", log_level}, program));
        if (wait_serving)
            BOOST_REQUIRE_MESSAGE(server->says("Serving Modbus TCP over TLS"), server->log());
    }
    tk_string key_file() const { return store.dir().file("server.key"); }
    std::unique_ptr<CTlsClient> client(const tk_string& name) {
        return std::make_unique<CTlsClient>(certs().dir.path(), name, tls_port);
    }
    // Whether the log tells within a second that a handshake failed with text in its reason.
    bool handshake_failed(const tk_string& text) {
        const bool told = eventually(
            [&] {
                const tk_string log = server->log();
                return has_text(log, "TLS handshake with '127.0.0.1' failed") &&
                       has_text(log, text);
            },
            std::chrono::seconds(1));
        BOOST_TEST_MESSAGE(server->log());
        return told;
    }

    uint16_t tls_port = free_port();
    std::unique_ptr<CServerProcess> server;
};

// An exception answer of function fc with code.
std::vector<uint8_t> exception(uint8_t id, uint8_t fc, uint8_t code) {
    return {0, id, 0, 0, 0, 3, 1, static_cast<uint8_t>(fc | 0x80), code};
}

} // namespace

BOOST_AUTO_TEST_SUITE(server_tls)

BOOST_AUTO_TEST_CASE(roles_decide_what_clients_may_ask) {
    CTlsServer s;

    const auto operator_client = s.client("client-Operator");
    BOOST_TEST(operator_client->ask(read_request, 11) == read_answer);
    BOOST_TEST(operator_client->ask(write_request, 12) == write_request);

    const auto viewer = s.client("client-Viewer");
    BOOST_TEST(viewer->ask(read_request, 11) == read_answer);
    BOOST_TEST(viewer->ask(write_request, 9) == exception(2, 6, 1));
    // Viewer may address unit 1 only: unit 2 is refused with exception 1 as well.
    const std::vector<uint8_t> unit2{0, 3, 0, 0, 0, 6, 2, 3, 0, 8, 0, 1};
    const std::vector<uint8_t> refused{0, 3, 0, 0, 0, 3, 2, 0x83, 1};
    BOOST_TEST(viewer->ask(unit2, 9) == refused);

    // No role and no default role: nothing at all, yet the connection is served.
    BOOST_TEST(s.client("client-none")->ask(read_request, 9) == exception(1, 3, 1));
}

BOOST_AUTO_TEST_CASE(failed_handshakes_are_logged_once_per_burst_by_default) {
    CTlsServer s(0600, true, "0");
    for (int i = 0; i < 3; ++i)
        BOOST_TEST(s.client("client-foreign")->ask(read_request, 11).empty());
    BOOST_TEST(s.client("client-Operator")->ask(read_request, 11).size() == 11u);
    BOOST_TEST(s.client("")->ask(read_request, 11).empty());
    BOOST_TEST(s.handshake_failed("peer did not return a certificate"));
    const tk_string log = s.server->log();
    // The first failure of each burst; the end of the first burst with its count.
    BOOST_TEST(count_of(log, "failed: ") == 2u, log);
    BOOST_TEST(has_text(log, "A TLS handshake succeeded again; 3 had failed before"), log);
}

// The connection limit on the secure port: clients that complete their handshake and then say
// nothing, and one that never finishes its handshake, make room for an Operator once they have
// been silent for Evict After; the one that connected first goes first.
BOOST_AUTO_TEST_CASE(silent_clients_make_room) {
    CTlsServer s(0600, true, "0",
                 {{"Evict After", CElement::from_uint(1)},
                  {"Security/Handshake Timeout", CElement::from_uint(30)}});
    CTestClient stalled(s.tls_port);
    BOOST_REQUIRE(stalled.fd() >= 0);
    std::vector<std::unique_ptr<CTlsClient>> silent;
    for (int i = 0; i < 63; ++i)
        silent.push_back(s.client("client-Viewer"));
    // Refused until a second has passed, then served.
    std::unique_ptr<CTlsClient> operators[2];
    for (auto& op : operators)
        BOOST_REQUIRE(eventually(
            [&] {
                op = s.client("client-Operator");
                return op->ask(read_request, 11) == read_answer;
            },
            std::chrono::seconds(10)));
    BOOST_TEST(stalled.peer_closed());
    BOOST_TEST(silent[0]->ask(read_request, 11).empty());
    BOOST_TEST(silent[1]->ask(read_request, 11) == read_answer);
    BOOST_TEST(operators[0]->ask(read_request, 11) == read_answer);
    const tk_string log = s.server->log();
    BOOST_TEST(count_of(log, "Closed the TCP connection from '127.0.0.1'") == 1u, log);
    BOOST_TEST(!has_text(log, "TLS handshake with"), log);
}

BOOST_AUTO_TEST_CASE(key_readable_by_others_stops_start_up) {
    CTlsServer s(0644, false);
    BOOST_TEST(s.server->wait(5000) == 1, s.server->log());
    const tk_string message = "Couldn't open the secure Modbus TCP port " +
                              std::to_string(s.tls_port) + ": private key '" + s.key_file() +
                              "' may be read by group or others (mode 0644)";
    BOOST_TEST(has_text(s.server->log(), message), s.server->log());
}

// OpenSSL is in a module beside the program; a copy of the program elsewhere has none.
// Under qemu-user the copy finds the module beside the original: left to native builds.
#ifndef MB_EMULATED
BOOST_AUTO_TEST_CASE(a_missing_tls_module_stops_start_up) {
    CTempDir bin;
    const tk_string program = bin.file("modbus_server");
    const tk_string copy = "cp " MB_BINARY_DIR "/modbus_server " + program;
    BOOST_REQUIRE_EQUAL(std::system(copy.c_str()), 0);
    CTlsServer s(0600, false, "1", {}, program);
    BOOST_TEST(s.server->wait(5000) == 1, s.server->log());
    const tk_string message = "Couldn't open the secure Modbus TCP port " +
                              std::to_string(s.tls_port) + ": no usable TLS module: " +
                              bin.file("modbus_tls.so") + " (missing)";
    BOOST_TEST(has_text(s.server->log(), message), s.server->log());
}
#endif

BOOST_AUTO_TEST_SUITE_END()
