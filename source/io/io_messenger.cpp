#include "io/io_messenger.h"

#include <cassert>

CIoMessenger::~CIoMessenger() = default;

void CIoMessenger::attach_handler(std::unique_ptr<CProtocolHandler> handler) {
    assert(handler);
    _prot = std::move(handler);
    std::weak_ptr<CIoActor> weak = shared_from_this();
    _prot->set_waker([this, weak] {
        if (const auto self = weak.lock())
            resumed();
    });
}
