#include "httpserver.h"

#include "eventloop.h"
#include "head.h"
#include "problem.h"
#include "requestof.h"

#include <boost/asio/buffer.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/ip/v6_only.hpp>
#include <boost/asio/ssl/context.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/write.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/core/tcp_stream.hpp>
#include <boost/beast/http/read.hpp>
#include <boost/beast/ssl/ssl_stream.hpp>

#include <algorithm>
#include <array>
#include <list>
#include <map>
#include <stdexcept>
#include <utility>

#include <netinet/in.h>
#include <netinet/tcp.h>

namespace gateway {

namespace {

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace ssl = boost::asio::ssl;
using asio::ip::tcp;
using Error = boost::system::error_code;

constexpr std::chrono::seconds requestTime{10};
constexpr std::chrono::seconds writeTime{10};
constexpr std::chrono::seconds handshakeTime{5};
constexpr std::chrono::seconds lingerTime{1};
constexpr std::size_t maxStreams = 128;
constexpr std::size_t maxOthers = 128;
constexpr int streamSendBuffer = 65536;
constexpr std::size_t maxLingeringBytes = 65536;

/// Ends the connection if the peer acknowledges nothing for this time.
void limitSilence(tcp::socket &socket, std::chrono::milliseconds time)
{
    const auto timeMs = static_cast<int>(time.count());
    setsockopt(socket.native_handle(), IPPROTO_TCP, TCP_USER_TIMEOUT, &timeMs, sizeof(timeMs));
}

/// The address without the zone of a link-local address, which no Host header has.
std::string textOf(const asio::ip::address &address)
{
    const std::string text = address.to_string();
    return text.substr(0, text.find('%'));
}

/// Whether the peer sent bytes that are no request. A peer that ends its connection does not.
bool isMalformed(const Error &error)
{
    namespace http = beast::http;
    return error.category() == make_error_code(http::error::bad_method).category() &&
           error != http::error::end_of_stream && error != http::error::partial_message;
}

/// A connection as the server sees it.
class Connection
{
public:
    enum class Phase { Waiting, Answering, Streaming };

    virtual ~Connection() = default;
    virtual void pump() = 0;
    virtual void close() = 0;
    Phase phase() const { return m_phase; }

protected:
    Phase m_phase = Phase::Waiting;
};

/// The open connections in the order of their arrival.
class Connections
{
public:
    std::uint64_t add(Connection *connection)
    {
        m_connections[++m_lastNumber] = connection;
        return m_lastNumber;
    }
    void remove(std::uint64_t number) { m_connections.erase(number); }

    std::size_t streams() const
    {
        return static_cast<std::size_t>(
            std::count_if(m_connections.begin(), m_connections.end(), [](const auto &entry) {
                return entry.second->phase() == Connection::Phase::Streaming;
            }));
    }

    /// Makes room for one more. It may end the connection that has waited for the longest time. If
    /// none waits, peers do not read their answers, and the oldest of these connections ends.
    void makeRoom()
    {
        if (m_connections.size() - streams() < maxOthers)
            return;
        auto victim = find(Connection::Phase::Waiting);
        if (victim == m_connections.end())
            victim = find(Connection::Phase::Answering);
        victim->second->close();
        m_connections.erase(victim);
    }

    /// A connection may remove itself meanwhile.
    template <typename Visit>
    void forEach(Visit visit)
    {
        for (auto entry = m_connections.begin(); entry != m_connections.end();) {
            Connection *connection = entry->second;
            ++entry;
            visit(*connection);
        }
    }

private:
    using Map = std::map<std::uint64_t, Connection *>;

    Map::iterator find(Connection::Phase phase)
    {
        return std::find_if(m_connections.begin(), m_connections.end(),
                            [&](const auto &entry) { return entry.second->phase() == phase; });
    }

    Map m_connections;
    std::uint64_t m_lastNumber = 0;
};

/// The parts that all connections share.
struct Shared
{
    HttpServer::Faces faces;
    Connections connections;
};

/// One connection, over TCP or over TLS. Its pending operations keep it alive.
template <typename Stream>
class ConnectionOver final : public Connection,
                             public std::enable_shared_from_this<ConnectionOver<Stream>>
{
public:
    ConnectionOver(Stream stream, std::shared_ptr<Shared> shared)
        : m_stream(std::move(stream))
        , m_shared(std::move(shared))
        , m_number(m_shared->connections.add(this))
        , m_buffer(maxHeaderBytes + maxBodyBytes)
    {
        Error ignored;
        m_peer = textOf(socket().remote_endpoint(ignored).address());
        m_local = textOf(socket().local_endpoint(ignored).address());
        socket().set_option(tcp::no_delay(true), ignored);
    }
    ~ConnectionOver() override { m_shared->connections.remove(m_number); }
    ConnectionOver(const ConnectionOver &) = delete;
    ConnectionOver &operator=(const ConnectionOver &) = delete;

    void start()
    {
        if constexpr (std::is_same_v<Stream, beast::tcp_stream>) {
            read();
        } else {
            beast::get_lowest_layer(m_stream).expires_after(handshakeTime);
            m_stream.async_handshake(ssl::stream_base::server,
                                     [self = this->shared_from_this()](const Error &error) {
                                         if (!error)
                                             self->read();
                                     });
        }
    }

    void close() override
    {
        Error ignored;
        socket().close(ignored);
    }

    void pump() override
    {
        if (m_phase != Phase::Streaming || m_isWriting)
            return;
        std::optional<std::string> text = m_shared->faces.next(m_session, m_cursor);
        if (!text) {
            close();
            return;
        }
        if (text->empty())
            return;
        m_body = std::move(*text);
        m_isWriting = true;
        lowest().expires_after(writeTime);
        asio::async_write(m_stream, asio::buffer(m_body),
                          [self = this->shared_from_this()](const Error &error, std::size_t) {
                              self->m_isWriting = false;
                              if (error)
                                  self->close();
                          });
    }

private:
    beast::tcp_stream &lowest() { return beast::get_lowest_layer(m_stream); }
    tcp::socket &socket() { return lowest().socket(); }

    void read()
    {
        m_phase = Phase::Waiting;
        m_parser.emplace();
        limit(*m_parser);
        lowest().expires_after(requestTime);
        beast::http::async_read(m_stream, m_buffer, *m_parser,
                                [self = this->shared_from_this()](const Error &error, std::size_t) {
                                    self->take(error);
                                });
    }

    void take(const Error &error)
    {
        namespace http = beast::http;
        if (error == http::error::header_limit || error == http::error::buffer_overflow) {
            refuse(status::headersTooLarge);
        } else if (error == http::error::body_limit) {
            refuse(status::payloadTooLarge);
        } else if (error ? isMalformed(error) : hasUnknownLength(m_parser->get())) {
            refuse(status::badRequest);
        } else if (!error) {
            answer();
        }
        // After any other error, the connection ends with its last operation.
    }

    void answer()
    {
        m_phase = Phase::Answering;
        Request request = requestOf(m_parser->get());
        request.peerAddress = m_peer;
        request.localAddress = m_local;
        Response response = m_shared->faces.handle(request);
        // No path knows HEAD, and its refusal must not have a body.
        if (request.method == "HEAD")
            response.body.clear();
        if (response.isStream && m_shared->connections.streams() >= maxStreams) {
            response = Response();
            response.status = status::unavailable;
            response.contentType = "application/json";
            response.body = R"({"error":{"code":"too-many","text":"all streams are in use"}})";
        }
        if (response.isStream) {
            beginStream(response);
            return;
        }
        write(std::move(response), m_parser->get().keep_alive());
    }

    /// A request that is no HTTP or too long. The rest of it is not known, so the connection ends.
    void refuse(int code)
    {
        m_phase = Phase::Answering;
        Response response;
        response.status = code;
        response.contentType = "application/json";
        const bool isTooLarge = code != status::badRequest;
        response.body = std::string(R"({"error":{"code":")") +
                        (isTooLarge ? "too-large" : "bad-request") +
                        R"(","text":"the request is too long or no HTTP"}})";
        write(std::move(response), false);
    }

    void write(Response response, bool keepAlive)
    {
        m_response = std::move(response);
        const asio::const_buffer body = m_response.staticBody.empty()
                                            ? asio::buffer(m_response.body)
                                            : asio::buffer(m_response.staticBody);
        m_head = headOf(m_response, body.size(),
                        keepAlive ? ConnectionEnd::KeepAlive : ConnectionEnd::Close);
        const std::array<asio::const_buffer, 2> buffers{asio::buffer(m_head), body};
        lowest().expires_after(writeTime);
        asio::async_write(
            m_stream, buffers,
            [self = this->shared_from_this(), keepAlive](const Error &error, std::size_t) {
                if (error)
                    return;
                if (keepAlive)
                    self->read();
                else
                    self->endSending();
            });
    }

    /// A close with unread input would discard the answer on its way.
    void endSending()
    {
        Error ignored;
        socket().shutdown(tcp::socket::shutdown_send, ignored);
        lowest().expires_after(lingerTime);
        discardInput(0);
    }

    void discardInput(std::size_t discarded)
    {
        if (discarded > maxLingeringBytes)
            return;
        socket().async_read_some(
            asio::buffer(m_discarded),
            [self = this->shared_from_this(), discarded](const Error &error, std::size_t count) {
                if (!error)
                    self->discardInput(discarded + count);
            });
    }

    void beginStream(const Response &response)
    {
        m_phase = Phase::Streaming;
        m_session = response.session;
        Error ignored;
        // A slow viewer shall not have many old messages on their way.
        socket().set_option(tcp::socket::send_buffer_size(streamSendBuffer), ignored);
        // The messages for a viewer that has vanished would fit into this buffer for minutes.
        limitSilence(socket(), writeTime);
        m_head = headOf(response, {}, ConnectionEnd::Close);
        m_isWriting = true;
        lowest().expires_never();
        watchForEnd();
        lowest().expires_after(writeTime);
        asio::async_write(m_stream, asio::buffer(m_head),
                          [self = this->shared_from_this()](const Error &error, std::size_t) {
                              self->m_isWriting = false;
                              if (error)
                                  self->close();
                              else
                                  self->pump();
                          });
    }

    /// A viewer sends nothing, so the end of its connection is all that can arrive.
    void watchForEnd()
    {
        m_stream.async_read_some(
            asio::buffer(m_discarded),
            [self = this->shared_from_this()](const Error &, std::size_t) { self->close(); });
    }

    Stream m_stream;
    std::shared_ptr<Shared> m_shared;
    std::uint64_t m_number;
    std::string m_peer;
    std::string m_local;
    beast::flat_buffer m_buffer;
    std::optional<HttpParser> m_parser;
    Response m_response;
    std::string m_head;
    std::string m_body;
    std::array<char, 512> m_discarded{};
    std::optional<std::uint64_t> m_session;
    StreamCursor m_cursor;
    bool m_isWriting = false;
};

} // namespace

struct HttpServer::Parts : std::enable_shared_from_this<HttpServer::Parts>
{
    struct Listener
    {
        tcp::acceptor acceptor;
        asio::steady_timer pause;
    };

    explicit Parts(EventLoop &loop)
        : context(loop.context())
    {
    }

    void listen(const std::string &address, unsigned short port)
    {
        const tcp::endpoint endpoint(asio::ip::make_address(address), port);
        tcp::acceptor acceptor(context);
        acceptor.open(endpoint.protocol());
        acceptor.set_option(tcp::acceptor::reuse_address(true));
        if (endpoint.address().is_v6())
            acceptor.set_option(asio::ip::v6_only(true));
        acceptor.bind(endpoint);
        acceptor.listen();
        listeners.push_back({std::move(acceptor), asio::steady_timer(context)});
    }

    void accept(Listener &listener)
    {
        listener.acceptor.async_accept(
            [self = shared_from_this(), &listener](const Error &error, tcp::socket socket) {
                if (!listener.acceptor.is_open())
                    return;
                if (error) {
                    self->acceptLater(listener);
                    return;
                }
                self->take(std::move(socket));
                self->accept(listener);
            });
    }

    /// No descriptor is free. An accept that fails at once would keep the processor busy.
    void acceptLater(Listener &listener)
    {
        listener.pause.expires_after(pauseAfterFailedAccept);
        listener.pause.async_wait([self = shared_from_this(), &listener](const Error &error) {
            if (!error && listener.acceptor.is_open())
                self->accept(listener);
        });
    }

    void take(tcp::socket socket)
    {
        shared->connections.makeRoom();
        beast::tcp_stream stream(std::move(socket));
        if (tls) {
            std::make_shared<ConnectionOver<beast::ssl_stream<beast::tcp_stream>>>(
                beast::ssl_stream<beast::tcp_stream>(std::move(stream), *tls), shared)
                ->start();
        } else {
            std::make_shared<ConnectionOver<beast::tcp_stream>>(std::move(stream), shared)->start();
        }
    }

    void useCertificate(const std::string &certificate, const std::string &key)
    {
        tls.emplace(ssl::context::tls_server);
        tls->set_options(ssl::context::default_workarounds | ssl::context::no_tlsv1 |
                         ssl::context::no_tlsv1_1);
        tls->use_certificate_chain_file(certificate);
        tls->use_private_key_file(key, ssl::context::pem);
    }

    asio::io_context &context;
    std::optional<ssl::context> tls;
    std::list<Listener> listeners;
    std::shared_ptr<Shared> shared = std::make_shared<Shared>();
};

HttpServer::HttpServer(EventLoop &loop, const Settings &settings, Faces faces)
    : m_parts(std::make_shared<Parts>(loop))
{
    m_parts->shared->faces = std::move(faces);
    if (!settings.certificate.empty()) {
        try {
            m_parts->useCertificate(settings.certificate, settings.key);
        } catch (const boost::system::system_error &error) {
            throw std::runtime_error("cannot use the certificate " + settings.certificate +
                                     " and its key " + settings.key + ": " +
                                     error.code().message());
        }
    }
    for (const std::string &address : settings.addresses) {
        try {
            m_parts->listen(address, settings.port);
        } catch (const boost::system::system_error &error) {
            const bool isMissing = error.code() == asio::error::address_family_not_supported ||
                                   error.code() == boost::system::errc::address_not_available;
            if (!isMissing || !settings.skipsMissingAddresses) {
                throw std::runtime_error("cannot listen on " + address + ", port " +
                                         std::to_string(settings.port) + ": " +
                                         error.code().message());
            }
        }
    }
    if (m_parts->listeners.empty())
        throw std::runtime_error("there is no address to listen on");
    for (auto &listener : m_parts->listeners)
        m_parts->accept(listener);
}

HttpServer::~HttpServer() = default;

void HttpServer::pump()
{
    m_parts->shared->connections.forEach([](Connection &connection) { connection.pump(); });
}

void HttpServer::close()
{
    Error ignored;
    for (auto &listener : m_parts->listeners) {
        listener.acceptor.close(ignored);
        listener.pause.cancel();
    }
    m_parts->shared->connections.forEach([](Connection &connection) { connection.close(); });
}

} // namespace gateway
