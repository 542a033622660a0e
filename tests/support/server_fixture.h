#pragma once
// A server assembled in the test from its real parts: the sample store, the registry built
// from its settings, the CDS thread, the event loop, a TCP listener on a free port and,
// when asked, a serial connection on one end of a socat pseudo-terminal pair.
#include "cds/cds_handle.h"
#include "data/sample_store.h"
#include "io/serial/serial_connection.h"
#include "io/tcp/tcp_listener.h"
#include "modbus/config/modbus_config.h"
#include "modbus/config/modbus_settings.h"
#include "modbus/protocol/serial/modbus_serial_protocol_handler.h"
#include "modbus/protocol/tcp/modbus_tcp_protocol_handler.h"
#include "support/loop_fixture.h"
#include "support/pty_pair.h"
#include "threads/cds/cds_thread.h"

#include <functional>

class CServerFixture {
public:
    // tweak runs on the store after the sample tree is loaded and before the settings are
    // read; with serial, interface 0 is put on one end of a pseudo-terminal pair.
    explicit CServerFixture(const std::function<void(CTestStore&)>& tweak = {},
                            bool serial = false) {
        if (serial) {
            pty.reset(new CPtyPair);
            BOOST_REQUIRE(pty->ok());
        }
        load_sample_store(store, serial ? pty->end_a() : "/dev/null");
        if (tweak)
            tweak(store);
        auto cds = std::make_shared<CCdsHandle>();
        const CModbusSettings settings(*cds);
        auto config = std::make_shared<CModbusConfig>(settings);
        cds->bind(config->leaves());
        reader.reset(new CCdsHandle);
        reader->bind(config->leaves());
        services.config = config.get();
        services.reader = reader.get();
        auto events =
            std::make_unique<CEventQueue>(static_cast<unsigned>(config->max_event_index() + 1), "");
        auto thread = std::make_unique<CCdsThread>(boost::none, cds);
        cds_thread = thread.get();
        loop.reset(new CLoopFixture(std::move(thread), config, std::move(events)));
        cds_thread->create_actor(loop->manager);
        services.submit = [this](cmd_ptr_t cmd) { cds_thread->send(std::move(cmd), false); };

        const CModbusTcpProtocolHandler tcp_prototype(nullptr, services);
        listener = CTcpListener::create(loop->manager, tcp_prototype, 0);
        loop->manager.add(listener);
        port = listener->port();

        if (serial) {
            const CModbusSerialProtocolHandler serial_prototype(nullptr, services);
            for (const auto& iface : settings.serial().interfaces()) {
                auto conn = CSerialConnection::create(loop->manager, serial_prototype,
                                                      iface.serial_port(), iface.number());
                BOOST_REQUIRE(conn->is_open());
                using C = CSerialConnection;
                conn->set_baud_rate(iface.baud_rate());
                conn->set_flow_control(static_cast<C::flow_ctrl_t>(iface.flow_control()));
                conn->set_char_size(iface.char_size());
                conn->set_parity(static_cast<C::parity_t>(iface.parity()));
                conn->set_stop_bits(static_cast<C::stop_bits_t>(iface.stop_bits()));
                conn->generate_RTU_timers(
                    iface.baud_rate(), iface.char_size(), static_cast<C::parity_t>(iface.parity()),
                    static_cast<C::stop_bits_t>(iface.stop_bits()), settings.serial().timeout());
                loop->manager.add(conn);
                conn->start();
            }
        }
    }

    bool run_with(const std::function<void()>& client) { return loop->run_with(client); }

    std::unique_ptr<CPtyPair> pty;
    CTestStore store;
    // The I/O thread's store connection and what the handlers are given; they outlive the
    // loop (declared before it).
    std::unique_ptr<CCdsHandle> reader;
    CModbusServices services;
    CCdsThread* cds_thread = nullptr;
    std::unique_ptr<CLoopFixture> loop;
    std::shared_ptr<CTcpListener> listener;
    uint16_t port = 0;
};
