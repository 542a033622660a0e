#pragma once
// The text type used throughout the platform layer and the server.
#include <string>

using tk_string = std::string;
