// Compares Gripper::image() with a bare exchange of the same bytes on a blocking socket.
//
//     bench-client ID PAIRS      prints the medians of both, in microseconds, as JSON
#include <gripper/line.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

// So many calls of a kind follow each other: other load then affects both kinds alike.
constexpr int callsInARow = 20;

class BareClient
{
public:
    explicit BareClient(int id)
        : m_socket(::socket(AF_INET, SOCK_STREAM, 0))
    {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(gripper::Endpoint::defaultPort);
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        const int on = 1;
        ::setsockopt(m_socket, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
        if (::connect(m_socket, reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0)
            throw std::runtime_error("no daemon");
        const std::string selection = "SET SID " + std::to_string(id) + '\n';
        std::array<char, 3> reply{};
        if (::send(m_socket, selection.data(), selection.size(), 0) < 0 ||
            ::recv(m_socket, reply.data(), reply.size(), MSG_WAITALL) != 3)
            throw std::runtime_error("no reply");
    }

    ~BareClient() { ::close(m_socket); }
    BareClient(const BareClient &) = delete;
    BareClient &operator=(const BareClient &) = delete;

    void exchange(const gripper::Batch &batch) const
    {
        if (::send(m_socket, batch.bytes().data(), batch.bytes().size(), 0) < 0)
            throw std::runtime_error("cannot send");
        std::array<char, 4096> bytes{};
        std::size_t lines = 0;
        while (lines < batch.size()) {
            const ssize_t count = ::recv(m_socket, bytes.data(), bytes.size(), 0);
            if (count <= 0)
                throw std::runtime_error("no reply");
            lines += static_cast<std::size_t>(std::count(bytes.data(), bytes.data() + count, '\n'));
        }
    }

private:
    int m_socket;
};

template <typename Call>
void measure(std::vector<double> &times, Call &&call)
{
    for (int i = 0; i < callsInARow; ++i) {
        const auto before = std::chrono::steady_clock::now();
        call();
        const std::chrono::duration<double, std::micro> time =
            std::chrono::steady_clock::now() - before;
        times.push_back(time.count());
    }
}

double median(std::vector<double> &times)
{
    const auto middle = times.begin() + static_cast<std::ptrdiff_t>(times.size() / 2);
    std::nth_element(times.begin(), middle, times.end());
    return *middle;
}

void run(int id, int pairs)
{
    gripper::Gripper gripper = gripper::Line().gripper(id);
    const BareClient client(id);
    std::vector<double> images;
    std::vector<double> exchanges;
    for (; pairs > 0; pairs -= callsInARow) {
        measure(images, [&] { gripper.image(); });
        measure(exchanges, [&] { client.exchange(gripper::imageRequests()); });
    }
    std::printf("{\"image\": %.2f, \"exchange\": %.2f}\n", median(images), median(exchanges));
}

} // namespace

int main(int argumentCount, char **arguments)
{
    if (argumentCount != 3)
        return 2;
    try {
        run(std::atoi(arguments[1]), std::atoi(arguments[2]));
    } catch (const std::exception &error) {
        std::fprintf(stderr, "bench-client: %s\n", error.what());
        return 1;
    }
    return 0;
}
