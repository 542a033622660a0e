#pragma once
// The server started in the test as modbus_server starts it (CServerCore::start_up and
// attach) on the sample store, with the event loop on the test's thread: TCP on a free port
// and, when asked, RTU on one end of a socat pseudo-terminal pair.
#include "data/sample_store.h"
#include "server_core/server_core.h"
#include "support/loop_fixture.h"
#include "support/pty_pair.h"
#include "support/test_port.h"

#include <functional>
#include <string>

class CServerFixture {
public:
    // tweak runs on the store after the sample tree is loaded and before the server starts;
    // with serial, interface 0 is put on one end of a pseudo-terminal pair.
    explicit CServerFixture(const std::function<void(CTestStore&)>& tweak = {},
                            bool serial = false) {
        if (serial) {
            pty.reset(new CPtyPair);
            BOOST_REQUIRE(pty->ok());
        }
        load_sample_store(store, serial ? pty->end_a() : "/dev/null");
        store.define("/Software/Device Handlers/UPS/Status/Value", toolkit::CElement::TYPE_INT,
                     toolkit::CElement::from_int(1));
        store.define("/Software/System Settings/Network/Firewall Settings/Protocol/Modbus/Port/"
                     "Value",
                     toolkit::CElement::TYPE_UINT, toolkit::CElement::from_uint(free_port()));
        if (tweak)
            tweak(store);
        // Keep the test's verbosity, and log to stderr only.
        const std::string level = std::to_string(thread_log()._verbosity);
        const char* const argv[] = {"modbus_server", "-Ns", "-D", level.c_str()};
        core.start_up(4, argv);
        loop.reset(new CLoopFixture);
        core.attach(loop->manager);
        port = core.tcp_port();
    }
    // The CDS thread stops while the loop exists: its commands hold the loop's timers.
    ~CServerFixture() { core.shutdown(); }

    bool run_with(const std::function<void()>& client) { return loop->run_with(client); }

    std::unique_ptr<CPtyPair> pty;
    CTestStore store;
    CServerCore core;
    std::unique_ptr<CLoopFixture> loop;
    uint16_t port = 0;
};
