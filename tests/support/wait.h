#pragma once
// Waiting on what a test expects instead of sleeping for a guess at how long it takes.
#include <chrono>
#include <thread>

// Polls done until it holds (true) or limit has passed (false).
template <class Done>
bool eventually(Done done, std::chrono::milliseconds limit = std::chrono::seconds(5),
                std::chrono::milliseconds step = std::chrono::milliseconds(10)) {
    const auto end = std::chrono::steady_clock::now() + limit;
    while (!done()) {
        if (std::chrono::steady_clock::now() >= end)
            return false;
        std::this_thread::sleep_for(step);
    }
    return true;
}
