#pragma once

#include "topics.h"

#include <gripper/connection.h>

#include <chrono>
#include <functional>
#include <memory>
#include <string>

namespace gateway {

class EventLoop;

/// One connection at a time to the broker, by libmosquitto on the event loop. It asks for MQTT 5,
/// and for 3.1.1 after a broker has refused that. The session ends with the connection, so the
/// broker keeps no commands for a gateway that is away.
///
/// libmosquitto blocks while it looks a name up and opens the TCP connection. A thread does this;
/// the loop touches the client only after the end of the thread. The kernel tries to connect for
/// two minutes, ever more rarely, so a signal interrupts the thread after 10 s. The end of the
/// program does not wait for the thread.
///
/// libmosquitto would take messages of 256 MB, and answer to a broker that does not read. The link
/// ends a connection on which no message becomes complete for 1 MiB, and reads only while nothing
/// waits to be sent.
class BrokerLink
{
public:
    struct Settings
    {
        gripper::Endpoint endpoint;
        std::string clientId;
        std::string authority; ///< file with CA certificates; empty: without TLS
        std::string certificate;
        std::string key;
        std::string user; ///< empty: without a name and a password
        std::string password;
        Message will;
    };

    struct Received
    {
        std::string topic;
        std::string payload; ///< its first 4 KiB
        bool isRetained = false;
    };

    struct Listener
    {
        std::function<void()> connected;
        /// An attempt failed, or the connection ended. The text says why.
        std::function<void(const std::string &problem)> ended;
        /// The broker refuses a message or the subscription, or has announced that it would.
        std::function<void(const std::string &problem)> refused;
        std::function<void(const Received &)> received;
        /// The broker has a message of sendAcknowledged(), or refuses it.
        std::function<void(int number)> acknowledged;
    };

    static constexpr std::chrono::seconds keepAlive{10};

    BrokerLink(EventLoop &loop, Settings settings, Listener listener);
    ~BrokerLink();
    BrokerLink(const BrokerLink &) = delete;
    BrokerLink &operator=(const BrokerLink &) = delete;

    bool isIdle() const;
    /// Starts an attempt. Call it only while the link is idle.
    void connect();
    /// Whether there is a connection, and all earlier messages have left. A caller that checks this
    /// bounds the memory for a broker that does not read.
    bool canSend() const;
    void send(const Message &message);
    /// Returns a number for Listener::acknowledged.
    int sendAcknowledged(const Message &message);
    void subscribe(const std::string &filter);
    /// Does what only the passing of time causes.
    void advance();
    /// Takes leave of the broker, which then does not publish the will.
    void disconnect();

private:
    struct Session;
    struct Door;

    int publish(const Message &message, int quality);
    void finishAttempt(const std::shared_ptr<Session> &session, int result, int error);
    void serve();
    void deliver(Session &session);
    void end(const std::string &problem);

    EventLoop &m_loop;
    Settings m_settings;
    Listener m_listener;
    bool m_usesVersion5 = true;
    std::shared_ptr<Session> m_session; ///< null while idle
    std::shared_ptr<Door> m_door;       ///< by which a thread reaches this object
};

} // namespace gateway
