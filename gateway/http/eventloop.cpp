#include "eventloop.h"

#include <boost/asio/io_context.hpp>
#include <boost/asio/posix/stream_descriptor.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/signal_set.hpp>
#include <boost/asio/steady_timer.hpp>

#include <csignal>
#include <list>
#include <stdexcept>
#include <utility>

#include <fcntl.h>

namespace gateway {

namespace asio = boost::asio;

namespace {

void waitForTimer(asio::steady_timer &timer, std::chrono::milliseconds period,
                  const std::function<void()> &function)
{
    timer.expires_after(period);
    timer.async_wait([&timer, period, function](const boost::system::error_code &error) {
        if (error)
            return;
        function();
        waitForTimer(timer, period, function);
    });
}

void waitForSignal(asio::signal_set &signals, const std::function<void()> &function)
{
    signals.async_wait([&signals, function](const boost::system::error_code &error, int) {
        if (error)
            return;
        function();
        waitForSignal(signals, function);
    });
}

} // namespace

struct EventLoop::Parts
{
    asio::io_context context{1};
    asio::signal_set signals{context};
    std::list<asio::steady_timer> timers;
};

EventLoop::EventLoop()
    : m_parts(std::make_unique<Parts>())
{
}

EventLoop::~EventLoop() = default;

void EventLoop::post(std::function<void()> function)
{
    asio::post(m_parts->context, std::move(function));
}

void EventLoop::every(std::chrono::milliseconds period, const std::function<void()> &function)
{
    waitForTimer(m_parts->timers.emplace_back(m_parts->context), period, function);
}

void EventLoop::onQuitSignal(const std::function<void()> &function)
{
    for (const int signal : {SIGINT, SIGTERM, SIGHUP})
        m_parts->signals.add(signal);
    waitForSignal(m_parts->signals, function);
}

void EventLoop::run()
{
    m_parts->context.run();
}

void EventLoop::stop()
{
    m_parts->context.stop();
}

asio::io_context &EventLoop::context()
{
    return m_parts->context;
}

struct DescriptorWatch::Parts : std::enable_shared_from_this<DescriptorWatch::Parts>
{
    using Descriptor = asio::posix::stream_descriptor;

    Parts(asio::io_context &context, std::function<void()> function)
        : descriptor(context)
        , ready(std::move(function))
    {
    }

    void wait(Descriptor::wait_type type, bool &isWaiting)
    {
        if (isWaiting)
            return;
        isWaiting = true;
        descriptor.async_wait(
            type, [self = shared_from_this(), &isWaiting](const boost::system::error_code &error) {
                isWaiting = false;
                // The watch may have ended after the descriptor became ready.
                if (!error && self->descriptor.is_open())
                    self->ready();
            });
    }

    Descriptor descriptor;
    std::function<void()> ready;
    bool isWaitingToRead = false;
    bool isWaitingToWrite = false;
};

DescriptorWatch::DescriptorWatch(EventLoop &loop, int descriptor, std::function<void()> ready)
    : m_parts(std::make_shared<Parts>(loop.context(), std::move(ready)))
{
    const int duplicate = fcntl(descriptor, F_DUPFD_CLOEXEC, 0);
    if (duplicate < 0)
        throw std::runtime_error("no descriptor is free");
    m_parts->descriptor.assign(duplicate);
}

DescriptorWatch::~DescriptorWatch()
{
    boost::system::error_code ignored;
    m_parts->descriptor.close(ignored);
}

void DescriptorWatch::waitToRead()
{
    m_parts->wait(Parts::Descriptor::wait_read, m_parts->isWaitingToRead);
}

void DescriptorWatch::waitToWrite()
{
    m_parts->wait(Parts::Descriptor::wait_write, m_parts->isWaitingToWrite);
}

} // namespace gateway
