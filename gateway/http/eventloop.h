#pragma once

#include <chrono>
#include <functional>
#include <memory>

namespace boost::asio {
class io_context;
}

namespace gateway {

/// A server pauses when it cannot accept a connection, for example because it has too many files
/// open.
constexpr std::chrono::milliseconds pauseAfterFailedAccept{100};

/// The event loop of the program. Everything but the look at the line and the jobs runs in it.
class EventLoop
{
public:
    EventLoop();
    ~EventLoop();
    EventLoop(const EventLoop &) = delete;
    EventLoop &operator=(const EventLoop &) = delete;

    /// Runs the function in the loop. Any thread may call this.
    void post(std::function<void()> function);
    /// Runs the function periodically.
    void every(std::chrono::milliseconds period, const std::function<void()> &function);
    /// Runs the function after each SIGINT, SIGTERM or SIGHUP.
    void onQuitSignal(const std::function<void()> &function);

    /// Returns after stop().
    void run();
    void stop();

    boost::asio::io_context &context();

private:
    struct Parts;
    std::unique_ptr<Parts> m_parts;
};

/// Waits in the event loop for a descriptor of a library that has no loop of its own. It uses a
/// duplicate, so the library may close its descriptor at any time.
class DescriptorWatch
{
public:
    /// Throws std::runtime_error if no descriptor is free.
    DescriptorWatch(EventLoop &loop, int descriptor, std::function<void()> ready);
    ~DescriptorWatch();
    DescriptorWatch(const DescriptorWatch &) = delete;
    DescriptorWatch &operator=(const DescriptorWatch &) = delete;

    /// Runs the function once, when the descriptor is readable.
    void waitToRead();
    /// Runs the function once, when the descriptor is writable.
    void waitToWrite();

private:
    struct Parts;
    std::shared_ptr<Parts> m_parts;
};

} // namespace gateway
