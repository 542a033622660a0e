#pragma once
// The main thread's event loop. It owns the live actors; quit() closes them all and stops
// the loop. Other threads reach the loop only by posting to its io_service.
#include <boost/asio/io_context.hpp>

#include <memory>
#include <unordered_set>

class CIoActor;

class CIoManager {
public:
    CIoManager() = default;
    ~CIoManager();
    CIoManager(const CIoManager&) = delete;
    CIoManager& operator=(const CIoManager&) = delete;

    // Runs the loop until quit() or until no work is left: true. False, after logging it,
    // when a handler failed with an exception, which ends the loop: the process cannot know
    // what the handler left half done and must end with a failure.
    bool run();
    void add(const std::shared_ptr<CIoActor>& actor);
    // Closes the actor and drops it. An actor whose close fails is dropped all the same.
    void close(const std::shared_ptr<CIoActor>& actor);
    void quit();

    boost::asio::io_context& service() { return _service; }
    size_t actor_count() const { return _actors.size(); }
    bool contains(const std::shared_ptr<CIoActor>& actor) const { return _actors.count(actor) > 0; }

private:
    boost::asio::io_context _service;
    std::unordered_set<std::shared_ptr<CIoActor>> _actors;
};
