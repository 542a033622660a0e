#include "io/io_messenger.h"

#include "io/protocol_handler.h"

#include <cassert>

CIoMessenger::CIoMessenger(CIoManager& manager, const CProtocolHandler& prototype)
    : CIoActor(manager), _prot(prototype.clone(this)) {
    assert(_prot);
}

CIoMessenger::~CIoMessenger() = default;

iobuf_const_pair_t CIoMessenger::get_rbuf() const {
    assert(_offset <= _rbuf.size());
    return iobuf_const_pair_t(_rbuf.cbegin(),
                              _rbuf.cbegin() + static_cast<std::ptrdiff_t>(_offset));
}

void CIoMessenger::clear_rbuf(iobuf_const_iter_t end) {
    const iobuf_const_iter_t begin = _rbuf.cbegin();
    if (end == begin + static_cast<std::ptrdiff_t>(_offset)) {
        _rbuf.assign(buffer_step, 0);
        _offset = 0;
        return;
    }
    assert(end >= begin);
    assert(end <= begin + static_cast<std::ptrdiff_t>(_offset));
    const size_t cmd_len = static_cast<size_t>(end - begin);
    assert(cmd_len < _offset);
    _rbuf.erase(begin, end);
    _offset -= cmd_len;
    if (_rbuf.size() < _offset + buffer_step)
        _rbuf.resize(_offset + buffer_step);
}

void CIoMessenger::start() {
    _prot->started();
    _rbuf.assign(buffer_step, 0);
    _offset = 0;
    read_more();
}

void CIoMessenger::parse_or_read_more() {
    assert(_prot);
    if (_prot->parse())
        return;
    _rbuf.resize(_offset + buffer_step);
    read_more();
}
