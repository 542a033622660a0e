#include "fuzz_server.h"

#include "fuzz_store.h"
#include "leaf_json.h"

#include "cds/cds_handle.h"
#include "io/io_manager.h"
#include "io/protocol_handler.h"
#include "modbus/config/modbus_config.h"
#include "modbus/config/modbus_settings.h"
#include "store/store_access.h"
#include "store/store_worker.h"

#include <chrono>
#include <cstdio>
#include <cstdlib>

namespace {

std::vector<toolkit::CLeafInfo> leaves_of(const char* extra_json) {
    std::vector<toolkit::CLeafInfo> leaves = CFuzzStore::sample_leaves();
    if (extra_json == nullptr)
        return leaves;
    tk_string text = extra_json;
    const tk_string data = tk_string(MB_SOURCE_DIR) + "/tests/data";
    for (size_t pos = text.find("@DATA@"); pos != tk_string::npos; pos = text.find("@DATA@", pos))
        text.replace(pos, 6, data);
    std::vector<toolkit::CLeafInfo> more;
    tk_string error;
    const auto doc = nlohmann::json::parse(text, nullptr, false);
    if (doc.is_discarded() || !CLeafJson::from_json(doc, more, error))
        fuzz_setup_failed("extra leaves: " + error);
    leaves.insert(leaves.end(), more.begin(), more.end());
    return leaves;
}

} // namespace

CFuzzServer::CFuzzServer(const char* extra_json)
    : _store(std::make_unique<CFuzzStore>()), _manager(std::make_unique<CIoManager>()) {
    if (_store->store().define(leaves_of(extra_json)) != 0)
        fuzz_setup_failed(_store->store().error());
    auto cds = std::make_unique<CCdsHandle>();
    const CModbusSettings settings(*cds);
    _config = std::make_unique<CModbusConfig>(settings);
    cds->bind(_config->leaves());
    cds->set_auto_checkpoint(false);
    _reader.reset(new CCdsHandle);
    _reader->bind(_config->leaves());
    _reader->set_auto_checkpoint(false);
    CStoreWorker::options_t options;
    options.fatal = [](const std::string& why) { fuzz_setup_failed(why); };
    _worker.reset(new CStoreWorker(std::move(cds), _manager->service(), options));
    _access.reset(new CStoreAccess(*_reader, *_worker, _manager->service()));
    _services.config = _config.get();
    _services.store = _access.get();
    _services.tcp_counters = &tcp_counters;
    _services.rtu_over_tcp_counters = &rtu_over_tcp_counters;
    _services.udp_counters = &udp_counters;
}

CFuzzServer::~CFuzzServer() {
    _worker->stop();
}

std::vector<std::vector<uint8_t>>
CFuzzServer::exchange(CProtocolHandler& handler, const uint8_t* data, size_t size, size_t piece) {
    std::vector<std::vector<uint8_t>> answers;
    bool woken = false;
    handler.set_waker([&woken] { woken = true; });
    const size_t step = piece == 0 ? size : piece;
    size_t arrived = std::min(step, size);
    iobuf_t unread(data, data + arrived);
    CProtocolHandler::action_t action = handler.received(unread.cbegin(), unread.cend());
    for (;;) {
        if (action.consumed > unread.size()) {
            std::fprintf(stderr, "fuzz: the handler consumed %zu of %zu bytes\n", action.consumed,
                         unread.size());
            std::abort();
        }
        unread.erase(unread.begin(), unread.begin() + static_cast<std::ptrdiff_t>(action.consumed));
        switch (action.kind) {
        case CProtocolHandler::action_t::CLOSE:
            return answers;
        case CProtocolHandler::action_t::WAIT:
            wait(woken);
            action = handler.resume();
            continue;
        case CProtocolHandler::action_t::SEND:
            answers.emplace_back(action.data, action.data + action.size);
            break;
        case CProtocolHandler::action_t::READ:
            break;
        }
        // Bytes left after a frame taken may hold the next one; otherwise, more must come.
        const bool more_left =
            !unread.empty() &&
            (action.kind != CProtocolHandler::action_t::READ || action.consumed != 0);
        if (!more_left) {
            if (arrived == size)
                return answers;
            const size_t n = std::min(step, size - arrived);
            unread.insert(unread.end(), data + arrived, data + arrived + n);
            arrived += n;
        }
        action = handler.received(unread.cbegin(), unread.cend());
    }
}

std::vector<std::vector<uint8_t>> CFuzzServer::datagram(CProtocolHandler& handler,
                                                        const uint8_t* data, size_t size) {
    bool woken = false;
    handler.set_waker([&woken] { woken = true; });
    const iobuf_t bytes(data, data + size);
    CProtocolHandler::action_t action = handler.received(bytes.cbegin(), bytes.cend());
    while (action.kind == CProtocolHandler::action_t::WAIT) {
        wait(woken);
        action = handler.resume();
    }
    std::vector<std::vector<uint8_t>> answers;
    if (action.kind == CProtocolHandler::action_t::SEND)
        answers.emplace_back(action.data, action.data + action.size);
    return answers;
}

void CFuzzServer::wait(bool& woken) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    boost::asio::io_context& io = _manager->service();
    io.restart();
    while (!woken) {
        io.run_one_for(std::chrono::milliseconds(100));
        if (std::chrono::steady_clock::now() > deadline) {
            std::fprintf(stderr, "fuzz: no answer within 20 s\n");
            std::abort();
        }
    }
    woken = false;
}
