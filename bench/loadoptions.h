#pragma once

#include <cstdint>
#include <string>
#include <sys/types.h>

/// What the load program was told to do.
struct LoadOptions
{
    enum class Mode {
        Closed, ///< every client sends a batch, waits for all its replies, and so on
        Paced,  ///< every client sends single requests at its own times, whatever comes back
        Hold,   ///< every client asks once and stays connected until standard input ends
    };

    Mode mode = Mode::Closed;
    std::uint16_t port = 0;
    std::string request;
    std::string reply;
    unsigned clients = 1;
    unsigned depth = 1;         ///< requests in a batch of Closed
    double rate = 1000.0;       ///< requests a second of all clients of Paced together
    double seconds = 1.0;       ///< how long is measured
    double warmUpSeconds = 0.3; ///< how long is not measured before
    pid_t server = 0;           ///< whose processor time is measured; 0 for nobody's
};

/// Ends the program when they are wrong.
LoadOptions readLoadOptions(int argc, char **argv);
