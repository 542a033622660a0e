#pragma once
// The system's error exception. It carries no text: the message is logged where the
// error is found, and whoever catches it only decides what to do next.
#include <exception>

class generic_err : public std::exception {
public:
    const char* what() const noexcept override { return "generic_err"; }
};
