#pragma once
// A protocol handler for transport tests: a request's text is answered in upper case, at
// once or after a delay (as a handler waiting for the store would). Text that starts with '!'
// is refused: no answer. The log lets tests check what came, and in what order.
#include "io/protocol_handler.h"

#include <boost/asio/steady_timer.hpp>

#include <algorithm>
#include <cctype>
#include <string>
#include <vector>

struct CHandlerLog {
    // Each request's text; after a delay, "write " and the answer's text when it goes.
    std::vector<std::string> events;
    size_t max_unread = 0;
};

class CUpperCaseHandler : public CProtocolHandler {
public:
    // How the transport's bytes hold a request: its text and the bytes it takes, 0 while the
    // request is not whole; and how an answer's text goes out.
    using take_t = std::function<size_t(iobuf_const_iter_t, iobuf_const_iter_t, std::string&)>;
    using wrap_t = std::function<iobuf_t(const std::string&)>;

    CUpperCaseHandler(boost::asio::io_context& io, CHandlerLog& log, int delay_ms, take_t take,
                      wrap_t wrap)
        : _io(io), _log(log), _delay_ms(delay_ms), _take(std::move(take)), _wrap(std::move(wrap)) {}

    action_t received(iobuf_const_iter_t begin, iobuf_const_iter_t end) override {
        _log.max_unread = std::max(_log.max_unread, static_cast<size_t>(end - begin));
        action_t action;
        std::string text;
        action.consumed = _take(begin, end, text);
        if (action.consumed == 0)
            return action;
        action.request = true;
        _log.events.push_back(text);
        if (!text.empty() && text[0] == '!')
            return action;
        std::transform(text.begin(), text.end(), text.begin(), ::toupper);
        _out = _wrap(text);
        if (_delay_ms == 0)
            return send(action);
        auto timer = std::make_shared<boost::asio::steady_timer>(_io);
        timer->expires_after(std::chrono::milliseconds(_delay_ms));
        std::weak_ptr<bool> alive = _alive;
        timer->async_wait([this, timer, alive, text](const boost::system::error_code& e) {
            if (e || alive.expired())
                return;
            _log.events.push_back("write " + text);
            wake();
        });
        action.kind = action_t::WAIT;
        return action;
    }
    action_t resume() override { return send(action_t()); }

private:
    action_t send(action_t action) {
        action.kind = action_t::SEND;
        action.data = _out.data();
        action.size = _out.size();
        return action;
    }

    boost::asio::io_context& _io;
    CHandlerLog& _log;
    int _delay_ms;
    take_t _take;
    wrap_t _wrap;
    iobuf_t _out;
    std::shared_ptr<bool> _alive = std::make_shared<bool>(true);
};
