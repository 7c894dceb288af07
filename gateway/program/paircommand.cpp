#include "paircommand.h"

#include "qrcode.h"

#include <nlohmann/json.hpp>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <stdexcept>

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace gateway {

namespace {

[[noreturn]] void fail(const std::string &path)
{
    const std::string cause = std::strerror(errno);
    throw std::runtime_error("cannot ask the gateway at " + path + " (" + cause +
                             "): is it running, and are you root or a member of its group?");
}

/// Owns a descriptor.
class Socket
{
public:
    explicit Socket(const std::string &path)
        : m_descriptor(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0))
        , m_path(path)
    {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        if (path.size() >= sizeof(address.sun_path))
            throw std::runtime_error("the path of the socket is too long: " + path);
        path.copy(static_cast<char *>(address.sun_path), path.size());
        if (connect(m_descriptor, reinterpret_cast<const sockaddr *>(&address), sizeof(address)) !=
            0) {
            const int error = errno;
            close(m_descriptor);
            errno = error;
            fail(path);
        }
    }
    ~Socket() { close(m_descriptor); }
    Socket(const Socket &) = delete;
    Socket &operator=(const Socket &) = delete;

    std::string exchange(const std::string &line)
    {
        // The gateway answers a peer that may not pair before it reads.
        send(m_descriptor, line.data(), line.size(), MSG_NOSIGNAL);
        std::string answer;
        std::array<char, 1024> part{};
        while (answer.find('\n') == std::string::npos) {
            const ssize_t count = read(m_descriptor, part.data(), part.size());
            if (count < 0 && errno == EINTR)
                continue;
            if (count <= 0)
                fail(m_path);
            answer.append(part.data(), static_cast<std::size_t>(count));
        }
        return answer;
    }

private:
    int m_descriptor;
    std::string m_path;
};

} // namespace

int runPairCommand(const Options &options)
{
    Socket socket(options.pairSocket);
    const nlohmann::json request{{"role", nameOf(*options.pairRole)}};
    const auto answer = nlohmann::json::parse(socket.exchange(request.dump() + '\n'));
    if (answer.contains("error"))
        throw std::runtime_error(answer.at("error").get<std::string>());
    printPairingCode(answer.at("code").get<std::string>(), answer.at("url").get<std::string>());
    return 0;
}

void printPairingCode(const std::string &code, const std::string &url)
{
    if (isatty(STDOUT_FILENO) == 1)
        std::printf("%s\n", qrCodeOf(url).c_str());
    std::printf("%s\nThe code %s works once, within five minutes.\n", url.c_str(), code.c_str());
    std::fflush(stdout);
}

} // namespace gateway
