#pragma once
// The real modbus_server binary run by a test: started with arguments in the background,
// its stderr caught in a file, stopped by a signal; and the sample store it serves.
#include "data/sample_store.h"
#include "support/test_client.h"
#include "support/test_port.h"
#include "support/wait.h"
#include "toolkit/store_fixture.h"

#include <modbus/modbus.h>

#include <signal.h>
#include <sys/wait.h>

const tk_string port_leaf =
    "/Software/System Settings/Network/Firewall Settings/Protocol/Modbus/Port/Value";
const tk_string ups_leaf = "/Software/Device Handlers/UPS/Status/Value";
const tk_string tcp_node = "/Software/Data Servers/Modbus/Interface Type/TCP/";

// The sample store on a free port, its UPS handler ready unless told otherwise.
struct CServerStore {
    explicit CServerStore(bool ups_ready = true, const tk_string& serial = "/dev/null") {
        load_sample_store(store, serial);
        store.define(port_leaf, toolkit::CElement::TYPE_UINT, toolkit::CElement::from_uint(port));
        if (ups_ready)
            store.define(ups_leaf, toolkit::CElement::TYPE_INT, toolkit::CElement::from_int(1));
    }
    // A setting by its name under the TCP interface's node.
    void tcp(const tk_string& name, const toolkit::CElement& value) {
        store.define(tcp_node + name + "/Value", value.type(), value);
    }
    CTestStore store;
    uint16_t port = free_port();
};

// Register 8 of unit 1 read on c (2300 in the sample store), or -1.
inline int read_voltage(CTestClient& c) {
    if (c.fd() < 0 || !c.send(std::vector<uint8_t>{0, 1, 0, 0, 0, 6, 1, 3, 0, 8, 0, 1}))
        return -1;
    const std::vector<uint8_t> answer = c.receive(11);
    return answer.size() == 11 && answer[8] == 2 ? answer[9] << 8 | answer[10] : -1;
}
inline int read_voltage(uint16_t port) {
    CTestClient c(port, "127.0.0.1", nullptr, 1000);
    return read_voltage(c);
}
// Whether a new client is served within a few seconds: the server may be starting, or learn
// of closes that make room a moment late.
inline bool serves(uint16_t port) {
    return eventually([port] { return read_voltage(port) == 2300; });
}

// A libmodbus client of unit, connected once the server listens (it may be starting).
inline std::shared_ptr<modbus_t> modbus_client(uint16_t port, int unit = 1) {
    std::shared_ptr<modbus_t> ctx(modbus_new_tcp("127.0.0.1", port), [](modbus_t* c) {
        modbus_close(c);
        modbus_free(c);
    });
    modbus_set_slave(ctx.get(), unit);
    modbus_set_response_timeout(ctx.get(), 2, 0);
    eventually([&] { return modbus_connect(ctx.get()) == 0; });
    return ctx;
}

class CServerProcess {
public:
    CServerProcess(const CTempDir& dir, const std::vector<tk_string>& args,
                   const tk_string& exe = MB_BINARY_DIR "/modbus_server")
        : _log(dir.file("server.log")) {
        std::vector<char*> argv;
        argv.push_back(const_cast<char*>(exe.c_str()));
        for (const tk_string& a : args)
            argv.push_back(const_cast<char*>(a.c_str()));
        argv.push_back(nullptr);
        _pid = ::fork();
        BOOST_REQUIRE(_pid >= 0);
        if (_pid == 0) {
            const int fd = ::open(_log.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
            ::dup2(fd, 1);
            ::dup2(fd, 2);
            ::execv(exe.c_str(), argv.data());
            ::_exit(127);
        }
    }
    ~CServerProcess() {
        if (_pid > 0) {
            ::kill(_pid, SIGKILL);
            ::waitpid(_pid, nullptr, 0);
        }
    }

    // Exit status once it ended within ms (-1 still running, -2 killed by a signal).
    int wait(int ms) {
        int status = 0;
        if (!eventually([&] { return ::waitpid(_pid, &status, WNOHANG) == _pid; },
                        std::chrono::milliseconds(ms)))
            return -1;
        _pid = -1;
        return WIFEXITED(status) ? WEXITSTATUS(status) : -2;
    }
    // SIGTERM; true when it exits cleanly.
    bool stop() {
        signal(SIGTERM);
        return wait(3000) == 0;
    }
    // Whether the log shows text within a few seconds.
    bool says(const tk_string& text) {
        return eventually([&] { return has_text(log(), text); });
    }
    void signal(int sig) { ::kill(_pid, sig); }
    pid_t pid() const { return _pid; }
    tk_string log() const { return read_text(_log); }

private:
    tk_string _log;
    pid_t _pid = -1;
};
