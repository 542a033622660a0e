#pragma once
// Everything that lives in the I/O manager's event loop. Actors are always held by shared
// pointers (made by static create functions); the manager owns the live ones.
#include <boost/asio/io_context.hpp>

#include <memory>

class CIoManager;

class CIoActor : public std::enable_shared_from_this<CIoActor> {
public:
    explicit CIoActor(CIoManager& manager) : _manager(manager) {}
    CIoActor(const CIoActor&) = delete;
    CIoActor& operator=(const CIoActor&) = delete;
    virtual ~CIoActor() = default;

    boost::asio::io_context& get_io_service() const;
    CIoManager& get_manager() const { return _manager; }
    // Asks the manager to close and drop this actor.
    void remove();
    // Releases the actor's resources; called once by the manager when it drops the actor.
    virtual void close() {}

private:
    CIoManager& _manager;
};
