#pragma once

#include <string>
#include <vector>

#include <sys/types.h>

namespace gateway {

/// A simulated line with two grippers and a daemon for it. Both programs end with this object.
class Demo
{
public:
    /// Whether this process has a /dev of its own, so that the daemon sees no port of the machine.
    static bool isIsolated();
    /// Starts this program once more with a /dev of its own. Throws std::runtime_error.
    [[noreturn]] static void isolate(char **argv);

    /// Starts both. Throws std::runtime_error.
    Demo();
    ~Demo();
    Demo(const Demo &) = delete;
    Demo &operator=(const Demo &) = delete;

    const std::string &folder() const { return m_folder; }

private:
    void putTheFlasherBesideTheDaemon();
    void startSimulator();
    void startDaemon();
    pid_t spawn(const std::vector<std::string> &words, int output);
    void end();

    std::string m_folder;
    std::vector<pid_t> m_children;
};

} // namespace gateway
