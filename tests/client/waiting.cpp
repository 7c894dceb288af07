// Calls of libgripper that wait for a server that never answers: cancelled, woken, at their
// deadline.
#include "assertions.h"

#include <gripper/line.h>

#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <stdexcept>
#include <utility>
#include <vector>

using namespace gripper;
using Clock = std::chrono::steady_clock;

namespace {

/// Accepts connections in the kernel and answers nothing.
class SilentServer
{
public:
    SilentServer()
        : m_socket(::socket(AF_INET, SOCK_STREAM, 0))
    {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof address;
        auto *const generic = reinterpret_cast<sockaddr *>(&address);
        CHECK(::bind(m_socket, generic, length) == 0 && ::listen(m_socket, 8) == 0 &&
              ::getsockname(m_socket, generic, &length) == 0);
        m_endpoint.port = ntohs(address.sin_port);
    }

    ~SilentServer() { ::close(m_socket); }
    SilentServer(const SilentServer &) = delete;
    SilentServer &operator=(const SilentServer &) = delete;

    const Endpoint &endpoint() const { return m_endpoint; }

private:
    int m_socket;
    Endpoint m_endpoint;
};

class Cancelled : public std::runtime_error
{
public:
    using std::runtime_error::runtime_error;
};

double secondsSince(Clock::time_point time)
{
    return Seconds(Clock::now() - time).count();
}

void ignoreSignal(int /*number*/) {}

} // namespace

TEST(anExceptionWhileWaitingEndsTheCallAndClosesTheConnection)
{
    const SilentServer server;
    int calls = 0;
    const auto cancel = [&] {
        if (++calls == 3)
            throw Cancelled("enough");
    };
    Connection connection(server.endpoint(), {Seconds(5), cancel});
    const auto began = Clock::now();
    CHECK_THROWS(Cancelled, connection.get("DRI", Deadline(Seconds(30))));
    CHECK(calls == 3);
    CHECK(secondsSince(began) < 5);
    CHECK(!connection.isOpen());
}

TEST(aWatchIsCancelledByAnErrorOfTheLibrary)
{
    const SilentServer server;
    for (const std::vector<int> &ids : {std::vector<int>{9}, std::vector<int>{}}) {
        Watch watch(server.endpoint(), {Seconds(1), [] { throw Refused("cancelled"); }}, ids, 20);
        CHECK_THROWS(Refused, watch.next());
    }
}

TEST(aSignalWakesACallAtOnce)
{
    struct sigaction action = {};
    action.sa_handler = ignoreSignal;
    CHECK(::sigaction(SIGALRM, &action, nullptr) == 0);
    const SilentServer server;
    // A busy machine may be late with the signal, so there are several attempts.
    int calls = 0;
    for (int attempt = 0; attempt < 20 && calls < 2; ++attempt) {
        calls = 0;
        Line line(server.endpoint(), {Seconds(0.045), [&] { ++calls; }});
        const itimerval soon{{0, 0}, {0, 10000}};
        CHECK(::setitimer(ITIMER_REAL, &soon, nullptr) == 0);
        CHECK_THROWS(TimedOut, line.state());
    }
    // Once for the signal, and once for the end. Without the signal, only the end would come.
    CHECK(calls >= 2);
}

TEST(aCallWithoutAReplyEndsAtItsDeadline)
{
    const SilentServer server;
    Line line(server.endpoint());
    const auto began = Clock::now();
    CHECK_THROWS(TimedOut, line.state(Seconds(0.2)));
    CHECK(secondsSince(began) >= 0.2);
    CHECK_THROWS(TimedOut, line.gripper(9, Seconds(0.01)));
}

TEST(aDestroyedMaintenanceNeverThrows)
{
    const SilentServer server;
    CHECK_THROWS(TimedOut, Maintenance(server.endpoint(), {Seconds(0.02), {}}));
}

TEST(aMovedConnectionKeepsItsSocket)
{
    const SilentServer server;
    Connection first(server.endpoint());
    CHECK(first.open(Deadline(Seconds(5))));
    Connection second(std::move(first));
    CHECK(second.isOpen());
    first = Connection(server.endpoint());
    CHECK(!first.isOpen());
    first = std::move(second);
    CHECK(first.isOpen());
}

int main()
{
    return runTests();
}
