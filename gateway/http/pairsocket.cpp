#include "pairsocket.h"

#include "eventloop.h"

#include <boost/asio/buffer.hpp>
#include <boost/asio/local/stream_protocol.hpp>
#include <boost/asio/read_until.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/write.hpp>
#include <boost/beast/core/basic_stream.hpp>

#include <algorithm>
#include <array>
#include <stdexcept>
#include <utility>
#include <vector>

#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

namespace gateway {

namespace {

namespace asio = boost::asio;
using Protocol = asio::local::stream_protocol;
using Stream = boost::beast::basic_stream<Protocol>;
using Error = boost::system::error_code;

constexpr std::chrono::seconds exchangeTime{5};
constexpr std::size_t maxLine = 256;
constexpr int maxConnections = 8;
// The peer's credentials decide, not the permissions of the file.
constexpr mode_t everybody = 0666;

bool isMember(int socket, gid_t group, gid_t primary)
{
    if (primary == group)
        return true;
    constexpr std::size_t most = 1024;
    std::vector<gid_t> groups(most);
    auto size = static_cast<socklen_t>(groups.size() * sizeof(gid_t));
    if (getsockopt(socket, SOL_SOCKET, SO_PEERGROUPS, groups.data(), &size) != 0)
        return false;
    groups.resize(size / sizeof(gid_t));
    return std::find(groups.begin(), groups.end(), group) != groups.end();
}

bool mayPair(int socket, std::optional<gid_t> group)
{
    ucred peer{};
    socklen_t size = sizeof(peer);
    if (getsockopt(socket, SOL_SOCKET, SO_PEERCRED, &peer, &size) != 0)
        return false;
    return peer.uid == 0 || peer.uid == geteuid() || (group && isMember(socket, *group, peer.gid));
}

} // namespace

struct PairSocket::Parts : std::enable_shared_from_this<PairSocket::Parts>
{
    struct Exchange
    {
        explicit Exchange(Protocol::socket socket)
            : stream(std::move(socket))
        {
        }

        Stream stream;
        std::string text;
    };

    explicit Parts(asio::io_context &context)
        : acceptor(context)
        , pause(context)
    {
    }

    void listen(const std::string &path)
    {
        struct stat status
        {
        };
        if (lstat(path.c_str(), &status) == 0 && S_ISSOCK(status.st_mode))
            unlink(path.c_str());
        acceptor.open();
        acceptor.bind(Protocol::endpoint(path));
        if (chmod(path.c_str(), everybody) != 0)
            throw std::runtime_error("cannot set the permissions of " + path);
        acceptor.listen();
    }

    void accept()
    {
        acceptor.async_accept(
            [self = shared_from_this()](const Error &error, Protocol::socket socket) {
                if (!self->acceptor.is_open())
                    return;
                if (error) {
                    self->acceptLater();
                    return;
                }
                self->take(std::move(socket));
                self->accept();
            });
    }

    /// No descriptor is free. An accept that fails at once would keep the processor busy.
    void acceptLater()
    {
        pause.expires_after(pauseAfterFailedAccept);
        pause.async_wait([self = shared_from_this()](const Error &error) {
            if (!error && self->acceptor.is_open())
                self->accept();
        });
    }

    void take(Protocol::socket socket)
    {
        if (open == maxConnections)
            return;
        ++open;
        const bool isAllowed = mayPair(socket.native_handle(), group);
        const std::shared_ptr<Exchange> exchange(new Exchange(std::move(socket)),
                                                 [self = shared_from_this()](Exchange *ended) {
                                                     delete ended;
                                                     --self->open;
                                                 });
        exchange->stream.expires_after(exchangeTime);
        if (!isAllowed) {
            reply(exchange, R"({"error":"only root and members of the group may pair"})");
            return;
        }
        asio::async_read_until(
            exchange->stream, asio::dynamic_buffer(exchange->text, maxLine), '\n',
            [self = shared_from_this(), exchange](const Error &error, std::size_t length) {
                if (error)
                    return;
                const std::string line = exchange->text.substr(0, length - 1);
                self->reply(exchange, self->answer(line));
            });
    }

    static void reply(const std::shared_ptr<Exchange> &exchange, const std::string &line)
    {
        exchange->text = line + '\n';
        asio::async_write(exchange->stream, asio::buffer(exchange->text),
                          [exchange](const Error &, std::size_t) {});
    }

    Protocol::acceptor acceptor;
    asio::steady_timer pause;
    std::optional<gid_t> group;
    Answer answer;
    int open = 0;
};

PairSocket::PairSocket(EventLoop &loop, const std::string &path, std::optional<gid_t> group,
                       Answer answer)
    : m_parts(std::make_shared<Parts>(loop.context()))
{
    m_parts->group = group;
    m_parts->answer = std::move(answer);
    try {
        m_parts->listen(path);
    } catch (const boost::system::system_error &error) {
        throw std::runtime_error("cannot make the socket " + path + " (" + error.code().message() +
                                 "): choose another one with --pair-socket");
    }
    m_parts->accept();
}

PairSocket::~PairSocket() = default;

void PairSocket::close()
{
    Error ignored;
    m_parts->acceptor.close(ignored);
    m_parts->pause.cancel();
}

} // namespace gateway
