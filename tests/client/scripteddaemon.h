#pragma once

#include <atomic>
#include <chrono>
#include <deque>
#include <list>
#include <random>
#include <string>
#include <string_view>
#include <thread>

/// A server on a loopback port that misbehaves at random, in a thread of its own. It answers a SET
/// of POS by `ack` if the value is even and by `nak` if it is odd. The value of an unknown GET is
/// valueOf() its name. So a client sees whether a reply belongs to its request.
class ScriptedDaemon
{
public:
    /// `latest` is the longest delay of a reply. Some connections are well-behaved, others
    /// misbehave rarely or often.
    ScriptedDaemon(unsigned seed, std::chrono::milliseconds latest);
    ~ScriptedDaemon();
    ScriptedDaemon(const ScriptedDaemon &) = delete;
    ScriptedDaemon &operator=(const ScriptedDaemon &) = delete;

    int port() const { return m_port; }

    /// The value of a variable that no gripper has.
    static std::string valueOf(std::string_view name);

private:
    using Clock = std::chrono::steady_clock;

    struct Piece
    {
        Clock::time_point due;
        std::string bytes; ///< empty to close the connection
        bool resets = false;
    };

    struct Client
    {
        int socket;
        int badOf1000; ///< requests
        std::string received;
        std::deque<Piece> pieces;
        bool hasEnded = false;
    };

    void run();
    void poll();
    void accept();
    void read(Client &client);
    void answer(Client &client, const std::string &request);
    void schedule(Client &client, const std::string &reply, Clock::duration delay);
    void sendDue(Client &client);
    std::string replyTo(const std::string &request);
    std::string garbage();
    int random(int below);

    std::mt19937 m_random;
    std::chrono::milliseconds m_latest;
    int m_listener;
    int m_wake[2] = {-1, -1};
    int m_port = 0;
    std::list<Client> m_clients;
    std::atomic<bool> m_ends{false};
    std::thread m_thread;
};
