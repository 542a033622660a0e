#pragma once
// An actor that owns one byte stream, its receive and send buffers, and the protocol
// handler that interprets the bytes. The receive buffer always has room: it starts at 256
// bytes, grows by 256 while a request is incomplete, and shrinks back to 256 whenever
// everything received has been consumed.
#include "io/io_actor.h"
#include "util/iobuf.h"

#include <boost/system/error_code.hpp>

#include <memory>

class CProtocolHandler;

class CIoMessenger : public CIoActor {
public:
    static constexpr size_t buffer_step = 256;

    CIoMessenger(CIoManager& manager, const CProtocolHandler& prototype);
    ~CIoMessenger() override;

    // The unread bytes.
    iobuf_const_pair_t get_rbuf() const;
    // Consumes the bytes before end; the bytes of a following request stay at the front.
    void clear_rbuf(iobuf_const_iter_t end);
    // The handler fills this before write().
    iobuf_t& wbuf() { return _wbuf; }
    CProtocolHandler& protocol() const { return *_prot; }

    void start();
    virtual void read_more() = 0;
    virtual void reset_flags() = 0;
    virtual void write() = 0;
    virtual void handle_read(const boost::system::error_code& error, size_t count) = 0;
    virtual void handle_write(const boost::system::error_code& error) = 0;
    virtual void parse() = 0;

protected:
    // The handler's parse(); when it did not act, grow the buffer and read more.
    void parse_or_read_more();

    iobuf_t _rbuf;
    size_t _offset = 0;
    iobuf_t _wbuf;
    std::shared_ptr<CProtocolHandler> _prot;
};
