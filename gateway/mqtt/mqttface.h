#pragma once

#include "api.h"
#include "brokerlink.h"
#include "commandgate.h"
#include "problemlimit.h"
#include "resultqueue.h"
#include "statepublisher.h"

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <random>
#include <set>
#include <string>

namespace gateway {

/// The face for an MQTT broker: it publishes the picture, and takes the commands that an integrator
/// allows. While the broker is away, it keeps results and nothing else.
class MqttFace
{
public:
    struct Settings
    {
        BrokerLink::Settings broker; ///< without a client id and a will
        std::string node;
        std::set<std::string> allowed; ///< actions; without any, it takes no commands
    };
    /// Reports the state of the connection: one word or sentence.
    using Report = std::function<void(const std::string &text)>;

    MqttFace(EventLoop &loop, const Settings &settings, Api &api, Report report);

    /// Sends what is new.
    void pump(const View &view);
    /// Publishes the outcome if this face began the job.
    void finish(const Job &job, const View &view);
    /// Sends the last results and takes leave of the broker.
    void close(const View &view);

private:
    struct Origin
    {
        std::string id;
        std::string action;
    };

    BrokerLink::Settings linkSettings(const Settings &settings) const;
    Message statusMessage(bool isOnline) const;
    void onConnected();
    void onEnded(const std::string &problem);
    void onReceived(const BrokerLink::Received &received);
    void onAcknowledged(int number);
    void reportProblem(const std::string &text);
    void sendNext(const View &view);
    std::optional<Message> nextEvent(const View &view);
    Message resultOf(int gripper, const Origin &origin, const Json &outcome,
                     const gripper::ReadingTime &now) const;

    Topics m_topics;
    Api &m_api;
    Report m_report;
    bool m_takesCommands;
    CommandGate m_gate;
    StatePublisher m_states{m_topics};
    std::map<int, Origin> m_jobs; ///< by job id
    ResultQueue m_results;
    std::uint64_t m_event = 0;     ///< the last event that the broker has
    std::uint64_t m_nextEvent = 0; ///< the event on its way
    std::optional<int> m_inFlight; ///< the number of the message on its way
    bool m_isResultInFlight = false;
    ProblemLimit m_problems;
    bool m_isConnectionReported = false; ///< after the latest report of a problem
    Clock::time_point m_nextAttempt;
    bool m_isClosed = false;
    std::minstd_rand m_random{std::random_device()()};
    BrokerLink m_link;
};

} // namespace gateway
