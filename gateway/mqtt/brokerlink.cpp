#include "brokerlink.h"

#include "eventloop.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <mutex>
#include <optional>
#include <set>
#include <stdexcept>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

#include <linux/tcp.h>
#include <mosquitto.h>
#include <mqtt_protocol.h>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>

namespace gateway {

namespace {

constexpr std::chrono::seconds answerTime{5};
constexpr std::chrono::seconds connectTime{10};
constexpr int interruption = SIGUSR1;
constexpr const char *tooLong = "the broker sends a message that is too long";
constexpr const char *noAnswer = "the broker does not answer";
constexpr const char *endOfTls = "the broker ended the TLS connection";
constexpr std::size_t maxPayload = 4096;
// libmosquitto takes packets of up to 256 MB, and waits for their ends. A Maximum Packet Size would
// not help: mosquitto 2.0.11 delivers nothing after 20 messages that exceed it.
constexpr std::uint64_t maxUnknownBytes = 1048576;
constexpr std::uint64_t maxUnknownBytesPerSecond = 100; ///< for answers to pings, over TLS
constexpr int atMostOnce = 0;
constexpr int atLeastOnce = 1;
constexpr int firstFailure = 128; ///< of the reason codes
constexpr int unsupportedVersion311 = 1;

struct ClientDeleter
{
    void operator()(mosquitto *client) const { mosquitto_destroy(client); }
};

const char *pointerOrNull(const std::string &text)
{
    return text.empty() ? nullptr : text.c_str();
}

/// "OpenSSL Error[0]: error:0A000086:SSL routines::certificate verify failed" becomes "certificate
/// verify failed".
std::string causeIn(std::string log)
{
    constexpr const char *ownPrefix = "Error: ";
    log.erase(log.find_last_not_of('\n') + 1);
    if (log.rfind("OpenSSL", 0) == 0)
        return "TLS: " + log.substr(log.rfind(':') + 1);
    return log.rfind(ownPrefix, 0) == 0 ? log.substr(std::strlen(ownPrefix)) : log;
}

/// Whether a message is beyond the limits that the broker has announced. After any other error of
/// a call that sends, serve() finds the end of the connection.
bool isRefusal(int result)
{
    return result == MOSQ_ERR_OVERSIZE_PACKET || result == MOSQ_ERR_QOS_NOT_SUPPORTED ||
           result == MOSQ_ERR_RETAIN_NOT_SUPPORTED;
}

std::string textOf(int result, int error)
{
    if (result == MOSQ_ERR_EAI)
        return gai_strerror(error);
    if (result == MOSQ_ERR_ERRNO && error == EPROTO)
        return endOfTls;
    if (result == MOSQ_ERR_ERRNO && error == EINTR)
        return noAnswer;
    // libmosquitto sets no error if the connection ends within a packet.
    if (result == MOSQ_ERR_ERRNO)
        return error == 0 ? mosquitto_strerror(MOSQ_ERR_CONN_LOST)
                          : std::generic_category().message(error);
    return result == MOSQ_ERR_KEEPALIVE ? noAnswer : mosquitto_strerror(result);
}

} // namespace

/// A client of libmosquitto, from the attempt to the end of its connection. The callbacks of the
/// library only store what happened, because no exception may pass through the library.
struct BrokerLink::Session
{
    std::unique_ptr<mosquitto, ClientDeleter> client;
    std::optional<DescriptorWatch> watch; ///< empty before the TCP connection exists
    std::chrono::steady_clock::time_point start = std::chrono::steady_clock::now();
    std::thread attempt;
    bool isAccepted = false;
    bool isLeaving = false;

    std::string cause; ///< the first error that the library logged
    std::optional<int> answer;
    std::optional<int> farewell; ///< the reason of the broker
    std::vector<Received> received;
    std::vector<int> acknowledged;
    std::set<std::string> refusals;
    std::uint64_t knownBytes = 0; ///< received before the library reported a packet
    std::chrono::steady_clock::time_point knownAt = start;

    static Session &of(void *session) { return *static_cast<Session *>(session); }
    static void log(mosquitto *, void *self, int level, const char *text)
    {
        if ((level & (MOSQ_LOG_ERR | MOSQ_LOG_WARNING)) != 0 && of(self).cause.empty())
            of(self).cause = causeIn(text);
    }
    static void onConnect(mosquitto *, void *self, int code, int, const mosquitto_property *)
    {
        of(self).noteProgress();
        of(self).answer = code;
    }
    static void onDisconnect(mosquitto *, void *self, int code, const mosquitto_property *)
    {
        if (code >= firstFailure)
            of(self).farewell = code;
    }
    static void onMessage(mosquitto *, void *self, const mosquitto_message *message,
                          const mosquitto_property *)
    {
        of(self).noteProgress();
        const auto length = std::min(static_cast<std::size_t>(message->payloadlen), maxPayload);
        const auto *payload = static_cast<const char *>(message->payload);
        of(self).received.push_back({message->topic,
                                     length == 0 ? std::string() : std::string(payload, length),
                                     message->retain});
    }
    static void onPublish(mosquitto *, void *self, int number, int code, const mosquitto_property *)
    {
        of(self).noteProgress();
        of(self).acknowledged.push_back(number);
        of(self).takeReason(code);
    }
    static void onSubscribe(mosquitto *, void *self, int, int count, const int *codes,
                            const mosquitto_property *)
    {
        std::for_each(codes, codes + count, [&](int code) { of(self).takeReason(code); });
    }
    void takeReason(int code)
    {
        if (code >= firstFailure)
            refusals.emplace(mosquitto_reason_string(code));
    }

    std::uint64_t receivedBytes() const
    {
        tcp_info info{};
        socklen_t size = sizeof(info);
        getsockopt(mosquitto_socket(client.get()), IPPROTO_TCP, TCP_INFO, &info, &size);
        return info.tcpi_bytes_received;
    }
    void noteProgress()
    {
        knownBytes = receivedBytes();
        knownAt = std::chrono::steady_clock::now();
    }
    bool receivesTooMuch() const
    {
        const auto time = std::chrono::duration_cast<std::chrono::seconds>(
            std::chrono::steady_clock::now() - knownAt);
        const auto allowed =
            maxUnknownBytes + maxUnknownBytesPerSecond * static_cast<std::uint64_t>(time.count());
        return receivedBytes() - knownBytes > allowed;
    }

    Session(const Settings &settings, bool usesVersion5)
        : client(mosquitto_new(settings.clientId.c_str(), true, this))
    {
        mosquitto *const handle = client.get();
        if (handle == nullptr)
            throw std::bad_alloc();
        mosquitto_int_option(handle, MOSQ_OPT_PROTOCOL_VERSION,
                             usesVersion5 ? MQTT_PROTOCOL_V5 : MQTT_PROTOCOL_V311);
        mosquitto_int_option(handle, MOSQ_OPT_TCP_NODELAY, 1);
        mosquitto_will_set(handle, settings.will.topic.c_str(),
                           static_cast<int>(settings.will.payload.size()),
                           settings.will.payload.data(), atLeastOnce, settings.will.isRetained);
        if (!settings.user.empty())
            mosquitto_username_pw_set(handle, settings.user.c_str(),
                                      pointerOrNull(settings.password));
        if (!settings.authority.empty()) {
            const int result = mosquitto_tls_set(handle, settings.authority.c_str(), nullptr,
                                                 pointerOrNull(settings.certificate),
                                                 pointerOrNull(settings.key), nullptr);
            // Without this check, the client would connect without TLS.
            if (result != MOSQ_ERR_SUCCESS)
                cause = "cannot read a file of --mqtt-ca, --mqtt-cert or --mqtt-key";
        }
        mosquitto_log_callback_set(handle, log);
        mosquitto_connect_v5_callback_set(handle, onConnect);
        mosquitto_disconnect_v5_callback_set(handle, onDisconnect);
        mosquitto_message_v5_callback_set(handle, onMessage);
        mosquitto_publish_v5_callback_set(handle, onPublish);
        mosquitto_subscribe_v5_callback_set(handle, onSubscribe);
    }
};

/// The loop may have ended when a thread comes to its end.
struct BrokerLink::Door
{
    std::mutex mutex;
    EventLoop *loop = nullptr; ///< null after the end of the link
};

BrokerLink::BrokerLink(EventLoop &loop, Settings settings, Listener listener)
    : m_loop(loop)
    , m_settings(std::move(settings))
    , m_listener(std::move(listener))
    , m_door(std::make_shared<Door>())
{
    mosquitto_lib_init();
    // Without SA_RESTART, the signal ends a connect() that waits.
    struct sigaction action
    {
    };
    action.sa_handler = [](int) {};
    sigaction(interruption, &action, nullptr);
    m_door->loop = &loop;
}

BrokerLink::~BrokerLink()
{
    {
        const std::lock_guard lock(m_door->mutex);
        m_door->loop = nullptr;
    }
    if (!m_session)
        return;
    // The thread of an attempt keeps the session a little longer.
    m_session->watch.reset();
    if (m_session->attempt.joinable())
        m_session->attempt.detach();
}

bool BrokerLink::isIdle() const
{
    return !m_session;
}

void BrokerLink::connect()
{
    const auto session = std::make_shared<Session>(m_settings, m_usesVersion5);
    m_session = session;
    if (!session->cause.empty()) {
        end(session->cause);
        return;
    }
    const auto run = [this, session, door = m_door, endpoint = m_settings.endpoint] {
        errno = 0;
        const int result = mosquitto_connect(session->client.get(), endpoint.host.c_str(),
                                             endpoint.port, static_cast<int>(keepAlive.count()));
        const int error = errno;
        const std::lock_guard lock(door->mutex);
        if (door->loop != nullptr)
            door->loop->post(
                [this, session, result, error] { finishAttempt(session, result, error); });
    };
    try {
        session->attempt = std::thread(run);
    } catch (const std::system_error &error) {
        end(error.what());
    }
}

bool BrokerLink::canSend() const
{
    return m_session && m_session->isAccepted && !m_session->isLeaving &&
           !mosquitto_want_write(m_session->client.get());
}

void BrokerLink::send(const Message &message)
{
    publish(message, atMostOnce);
}

int BrokerLink::sendAcknowledged(const Message &message)
{
    return publish(message, atLeastOnce);
}

int BrokerLink::publish(const Message &message, int quality)
{
    int number = 0;
    const int result = mosquitto_publish(m_session->client.get(), &number, message.topic.c_str(),
                                         static_cast<int>(message.payload.size()),
                                         message.payload.data(), quality, message.isRetained);
    if (isRefusal(result)) {
        m_session->acknowledged.push_back(number);
        m_session->refusals.emplace(mosquitto_strerror(result));
    }
    m_session->watch->waitToWrite();
    return number;
}

void BrokerLink::subscribe(const std::string &filter)
{
    const int options = m_usesVersion5 ? MQTT_SUB_OPT_RETAIN_AS_PUBLISHED : 0;
    const int result = mosquitto_subscribe_v5(m_session->client.get(), nullptr, filter.c_str(),
                                              atLeastOnce, options, nullptr);
    if (isRefusal(result))
        m_session->refusals.emplace(mosquitto_strerror(result));
    m_session->watch->waitToWrite();
}

void BrokerLink::advance()
{
    if (!m_session)
        return;
    if (m_session->attempt.joinable()) {
        // A name that is looked up has no connect() yet, so the signal is sent again.
        if (std::chrono::steady_clock::now() - m_session->start > connectTime)
            pthread_kill(m_session->attempt.native_handle(), interruption);
        return;
    }
    if (!m_session->isAccepted && std::chrono::steady_clock::now() - m_session->start > answerTime)
        end(noAnswer);
    else if (const int result = mosquitto_loop_misc(m_session->client.get()))
        end(textOf(result, 0));
}

void BrokerLink::disconnect()
{
    if (!m_session || !m_session->isAccepted)
        return;
    m_session->isLeaving = true;
    mosquitto_disconnect(m_session->client.get());
}

void BrokerLink::finishAttempt(const std::shared_ptr<Session> &session, int result, int error)
{
    session->attempt.join();
    if (result != MOSQ_ERR_SUCCESS) {
        end(textOf(result, error));
        return;
    }
    try {
        session->watch.emplace(m_loop, mosquitto_socket(session->client.get()),
                               [this] { serve(); });
        session->start = std::chrono::steady_clock::now();
    } catch (const std::runtime_error &problem) {
        end(problem.what());
        return;
    }
    serve();
}

/// Writes and reads whatever is possible. A TLS handshake needs both for either direction. Later,
/// the answers to a broker that does not read would need more and more memory.
void BrokerLink::serve()
{
    const std::shared_ptr<Session> session = m_session;
    mosquitto *const client = session->client.get();
    errno = 0;
    int result = MOSQ_ERR_SUCCESS;
    if (mosquitto_want_write(client))
        result = mosquitto_loop_write(client, 1);
    const bool mayRead = !session->isAccepted || !mosquitto_want_write(client);
    if (result == MOSQ_ERR_SUCCESS && mayRead)
        result = mosquitto_loop_read(client, 1);
    const int error = errno;
    deliver(*session);
    if (session != m_session)
        return;
    if (result != MOSQ_ERR_SUCCESS || mosquitto_socket(client) < 0) {
        end(textOf(result == MOSQ_ERR_SUCCESS ? MOSQ_ERR_CONN_LOST : result, error));
        return;
    }
    if (session->receivesTooMuch()) {
        end(tooLong);
        return;
    }
    const bool wantsToWrite = mosquitto_want_write(client);
    if (!session->isAccepted || !wantsToWrite)
        session->watch->waitToRead();
    if (wantsToWrite)
        session->watch->waitToWrite();
}

void BrokerLink::deliver(Session &session)
{
    if (session.answer == 0 && !session.isAccepted) {
        session.isAccepted = true;
        m_listener.connected();
    }
    for (const Received &received : std::exchange(session.received, {}))
        m_listener.received(received);
    for (const int number : std::exchange(session.acknowledged, {}))
        m_listener.acknowledged(number);
    for (const std::string &refusal : std::exchange(session.refusals, {}))
        m_listener.refused(refusal);
}

void BrokerLink::end(const std::string &problem)
{
    const std::shared_ptr<Session> session = std::exchange(m_session, nullptr);
    std::string text = session->cause.empty() ? problem : session->cause;
    const int code = session->farewell.value_or(session->answer.value_or(0));
    if (code >= firstFailure)
        text = mosquitto_reason_string(code);
    else if (code != 0)
        text = mosquitto_connack_string(code);
    const bool isWithoutAnswer = session->watch && !session->answer && session->cause.empty();
    // The alert of TLS may be lost. The thread of the attempt may see this, too.
    const bool isRejected = isWithoutAnswer || text == endOfTls;
    if (isRejected && !m_settings.certificate.empty())
        text += ": does the broker accept the certificate of this gateway?";
    // 3.1.1 does not mark retained commands. It therefore needs a refusal of 5, for each session.
    const bool isRefused =
        code == MQTT_RC_UNSUPPORTED_PROTOCOL_VERSION || code == unsupportedVersion311;
    m_usesVersion5 = !m_usesVersion5 || !isRefused;
    session->watch.reset();
    m_listener.ended(text);
}

} // namespace gateway
