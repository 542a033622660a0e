#include "io/io_manager.h"

#include "io/io_actor.h"
#include "util/log.h"

#include <cassert>
#include <vector>

CIoManager::~CIoManager() {
    LOG_STACK();
    for (const auto& actor : std::vector<std::shared_ptr<CIoActor>>(_actors.begin(), _actors.end()))
        close(actor);
}

bool CIoManager::run() {
    LOG_STACK();
    _service.restart();
    try {
        _service.run();
    } catch (const std::exception& e) {
        LOG_ERR(SS_IO_SYSTEM, 0, "The event loop ended: %s", e.what());
        return false;
    }
    return true;
}

void CIoManager::add(const std::shared_ptr<CIoActor>& actor) {
    assert(actor);
    const bool inserted = _actors.insert(actor).second;
    assert(inserted);
    (void)inserted;
}

void CIoManager::close(const std::shared_ptr<CIoActor>& actor) {
    LOG_STACK();
    auto it = _actors.find(actor);
    assert(it != _actors.end());
    // Keep the actor alive while it closes: it may be its own last owner.
    const std::shared_ptr<CIoActor> keep = *it;
    _actors.erase(it);
    try {
        keep->close();
    } catch (const std::exception& e) {
        LOG_WARN(SS_IO_SYSTEM, 1, "Error while closing: %s", e.what());
    }
}

void CIoManager::quit() {
    LOG_STACK();
    LOG_INFO(SS_IO_SYSTEM, 3, "Shutting down the I/O manager...");
    for (const auto& actor : std::vector<std::shared_ptr<CIoActor>>(_actors.begin(), _actors.end()))
        if (_actors.count(actor))
            close(actor);
    _service.stop();
}
