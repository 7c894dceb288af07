#pragma once

#include <cstdint>
#include <string>
#include <sys/types.h>

/// The options of the load program.
struct LoadOptions
{
    enum class Mode {
        Closed, ///< every client sends a batch, waits for all replies, and repeats
        Paced,  ///< every client sends single requests at its own times, without waiting
        Hold,   ///< every client sends one request and stays until standard input ends
    };

    Mode mode = Mode::Closed;
    std::uint16_t port = 0;
    std::string request;
    std::string reply;
    unsigned clients = 1;
    unsigned depth = 1;         ///< requests in a batch of Closed
    double rate = 1000.0;       ///< requests a second of all clients of Paced together
    double seconds = 1.0;       ///< measured time
    double warmUpSeconds = 0.3; ///< time before the measurement
    pid_t server = 0;           ///< process whose processor time is measured; 0 for none
};

/// Reads the command line. Ends the program if an option is wrong.
LoadOptions readLoadOptions(int argc, char **argv);
