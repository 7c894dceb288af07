#include "eventloop.h"

#include <boost/asio/io_context.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/signal_set.hpp>
#include <boost/asio/steady_timer.hpp>

#include <csignal>
#include <list>
#include <utility>

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

} // namespace gateway
