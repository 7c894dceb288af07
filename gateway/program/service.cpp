#include "service.h"

#include "api.h"
#include "demo.h"
#include "eventloop.h"
#include "httpserver.h"
#include "identity.h"
#include "jobrunner.h"
#include "journal.h"
#include "linewatch.h"
#include "metrics.h"
#include "mqttface.h"
#include "paircommand.h"
#include "pairsocket.h"

#include <gripper/connection.h>

#include <atomic>
#include <cstdio>
#include <fstream>
#include <memory>
#include <optional>
#include <stdexcept>
#include <utility>

#include <grp.h>
#include <openssl/crypto.h>
#include <systemd/sd-daemon.h>

namespace gateway {

namespace {

constexpr std::chrono::milliseconds tick{250};

std::string hostOf(const std::string &address)
{
    return address.find(':') == std::string::npos ? address : '[' + address + ']';
}

/// The address of the page for other machines, as far as the options say it.
std::string urlOf(const Options &options)
{
    if (!options.origins.empty())
        return options.origins.front();
    std::string host = "localhost";
    for (const std::string &address : options.addresses) {
        const bool isAny = address == "0.0.0.0" || address == "::";
        if (!Names::isLoopback(address))
            host = isAny ? machineName() : hostOf(address);
    }
    if (!options.names.empty())
        host = options.names.front();
    return std::string(options.hasTls() ? "https://" : "http://") + host + ':' +
           std::to_string(options.port);
}

std::optional<gid_t> groupOf(const std::string &name)
{
    if (name.empty())
        return std::nullopt;
    const group *entry = getgrnam(name.c_str());
    if (entry == nullptr)
        throw std::runtime_error("there is no group " + name);
    return entry->gr_gid;
}

std::string passwordIn(const std::string &path)
{
    if (path.empty())
        return {};
    std::ifstream file(path);
    std::string line;
    if (!std::getline(file, line))
        throw std::runtime_error("there is no password in the first line of " + path);
    return line;
}

MqttFace::Settings mqttSettings(const Options &options)
{
    MqttFace::Settings settings;
    settings.broker.endpoint = options.brokerEndpoint();
    settings.broker.authority = options.mqttAuthority;
    settings.broker.certificate = options.mqttCertificate;
    settings.broker.key = options.mqttKey;
    settings.broker.user = options.mqttUser;
    settings.broker.password = passwordIn(options.mqttPasswordFile);
    settings.node = options.mqttNode.empty() ? machineName() : options.mqttNode;
    settings.allowed = {options.mqttActions.begin(), options.mqttActions.end()};
    return settings;
}

HttpServer::Settings serverSettings(const Options &options)
{
    HttpServer::Settings settings;
    settings.addresses = options.addresses;
    if (settings.addresses.empty()) {
        settings.addresses = {"127.0.0.1", "::1"};
        settings.skipsMissingAddresses = true;
    }
    settings.port = options.port;
    settings.certificate = options.certificate;
    settings.key = options.key;
    return settings;
}

HttpServer::Settings metricsSettings(const Options &options)
{
    const Authority authority = Authority::fromText(options.metricsListen);
    HttpServer::Settings settings = serverSettings(options);
    settings.addresses = {authority.host};
    settings.skipsMissingAddresses = false;
    settings.port = static_cast<unsigned short>(std::stoi(authority.port));
    return settings;
}

Names namesOf(const Options &options, unsigned short port)
{
    return Names({options.hasTls(), port, machineName(), options.names, options.origins});
}

std::string pairAddress(const std::string &url, const std::string &code)
{
    // Browsers do not send this part of an address, so no log of a proxy contains the code.
    return url + "/#code=" + code;
}

/// All parts of the program. The order of the members is that of their starts.
class Service
{
public:
    explicit Service(const Options &options)
        : m_url(urlOf(options))
        , m_picture(options.faultTexts.empty() ? FaultTexts()
                                               : FaultTexts::fromFile(options.faultTexts),
                    gripper::ReadingTime::now())
        , m_metrics(options.noMetrics ? nullptr
                                      : std::make_unique<Metrics>(m_picture, options.expected))
        , m_names(namesOf(options, options.port))
        , m_jobs(
              gripper::Endpoint::fromText(options.daemon), m_picture, m_jobList,
              [this](std::function<void()> function) { m_loop.post(std::move(function)); },
              [this](const Job &job) { finish(job); })
        , m_api({m_picture, m_jobList, m_jobs, m_sessions, m_lease, m_names, writeToJournal,
                 options.viewNeedsToken, metricsText()})
        , m_server(m_loop, serverSettings(options),
                   {[this](const Request &request) { return handle(request); },
                    [this](std::optional<std::uint64_t> session, StreamCursor &cursor) {
                        return next(session, cursor);
                    }})
        , m_pairSocket(m_loop, options.pairSocket, groupOf(options.pairGroup),
                       [this](const std::string &line) { return pair(line); })
        , m_watch(gripper::Endpoint::fromText(options.daemon),
                  [this](const Reading &reading) { take(reading); })
    {
        if (!options.metricsListen.empty())
            listenForMetrics(options);
        if (options.hasMqtt()) {
            m_mqtt.emplace(m_loop, mqttSettings(options), m_api,
                           [this, broker = options.brokerEndpoint().text()](
                               const std::string &text) { reportBroker(broker, text); });
        }
    }

    void run()
    {
        m_loop.every(tick, [this] { advance(); });
        m_loop.onQuitSignal([this] { quit(); });
        std::fprintf(stderr, "gripper-gateway: the page is at %s\n", m_url.c_str());
        sd_notify(0, "READY=1");
        m_loop.run();
    }

    void printFirstCode(const std::string &pairSocket)
    {
        const std::string code = m_sessions.newCode(Role::Maintain, Clock::now());
        printPairingCode(code, pairAddress(m_url, code));
        std::fprintf(stderr,
                     "gripper-gateway: for another code, run gripper-gateway pair --role maintain "
                     "--pair-socket %s\n",
                     pairSocket.c_str());
    }

private:
    std::function<std::string(Clock::time_point)> metricsText() const
    {
        if (!m_metrics)
            return {};
        return [this](Clock::time_point now) { return m_metrics->text(now); };
    }

    void listenForMetrics(const Options &options)
    {
        const HttpServer::Settings settings = metricsSettings(options);
        const auto handle = [this,
                             names = namesOf(options, settings.port)](const Request &request) {
            return m_api.handleMetrics(request, names, Clock::now());
        };
        const auto noStream = [](std::optional<std::uint64_t>, StreamCursor &) {
            return std::optional<std::string>();
        };
        m_metricsServer.emplace(m_loop, settings, HttpServer::Faces{handle, noStream});
    }

    Response handle(const Request &request)
    {
        if (request.method != "GET")
            m_loop.post([this] { pumpStreams(); });
        return m_api.handle(request, gripper::ReadingTime::now());
    }

    std::optional<std::string> next(std::optional<std::uint64_t> session, StreamCursor &cursor)
    {
        const gripper::ReadingTime now = m_pumpTime.value_or(gripper::ReadingTime::now());
        const std::optional<Viewer> viewer = m_api.viewer(session, now);
        if (!viewer)
            return std::nullopt;
        return cursor.next(m_api.view(now), *viewer, m_change);
    }

    /// Runs in the thread of the watch. If the loop is late, it takes the next reading instead.
    void take(const Reading &reading)
    {
        if (m_isTaking.exchange(true))
            return;
        m_loop.post([this, reading] {
            m_isTaking = false;
            m_picture.take(reading);
            if (m_metrics)
                m_metrics->observe();
            m_api.advance(reading.time);
            pump();
        });
    }

    void advance()
    {
        m_api.advance(gripper::ReadingTime::now());
        pump();
        endIfIdle();
    }

    /// Serves all streams with the same view.
    void pumpStreams()
    {
        m_pumpTime = gripper::ReadingTime::now();
        m_server.pump();
        m_pumpTime.reset();
    }

    void pump()
    {
        pumpStreams();
        if (m_mqtt)
            m_mqtt->pump(m_api.view(gripper::ReadingTime::now()));
    }

    void finish(const Job &job)
    {
        std::string text = std::string(nameOf(job.action));
        if (job.gripper)
            text += " gripper " + std::to_string(*job.gripper);
        text += " ended: " + job.outcome->code + ", " + job.outcome->text;
        writeToJournal({nameOf(job.action), job.gripper, nameOf(job.role), "", text});
        if (m_mqtt)
            m_mqtt->finish(job, m_api.view(gripper::ReadingTime::now()));
        pump();
    }

    void reportBroker(const std::string &broker, const std::string &text)
    {
        const std::string sentence = "MQTT broker " + broker + ": " + text;
        writeToJournal({"mqtt", {}, "", broker, sentence});
        m_picture.addEvent({EventKind::Broker, {}, {}, text, sentence, 0, {}},
                           gripper::ReadingTime::now());
    }

    void quit()
    {
        sd_notify(0, "STOPPING=1");
        m_isEnding = true;
        m_server.close();
        if (m_metricsServer)
            m_metricsServer->close();
        m_pairSocket.close();
        m_jobs.shutDown();
        endIfIdle();
    }

    void endIfIdle()
    {
        if (!m_isEnding || !m_jobs.isIdle())
            return;
        if (m_mqtt)
            m_mqtt->close(m_api.view(gripper::ReadingTime::now()));
        m_loop.stop();
    }

    std::string pair(const std::string &line)
    {
        const auto request = Json::parse(line, nullptr, false);
        std::optional<Role> role;
        if (request.is_object() && request.contains("role") && request["role"].is_string())
            role = roleOf(request["role"].get<std::string>());
        Json answer = Json::object();
        if (!role) {
            answer["error"] = "this request has no role";
            return textOf(answer);
        }
        const std::string code = m_sessions.newCode(*role, Clock::now());
        answer["code"] = code;
        answer["url"] = pairAddress(m_url, code);
        writeToJournal(
            {"code", {}, nameOf(*role), "", std::string("a pairing code, role ") + nameOf(*role)});
        return textOf(answer);
    }

    std::string m_url;
    bool m_isEnding = false;
    std::atomic<bool> m_isTaking = false;
    EventLoop m_loop;
    Picture m_picture;
    std::unique_ptr<Metrics> m_metrics;
    JobList m_jobList;
    Sessions m_sessions;
    Lease m_lease;
    Names m_names;
    JobRunner m_jobs;
    Api m_api;
    NewestChange m_change;
    std::optional<gripper::ReadingTime> m_pumpTime; ///< while the streams are served
    HttpServer m_server;
    std::optional<HttpServer> m_metricsServer;
    PairSocket m_pairSocket;
    std::optional<MqttFace> m_mqtt;
    LineWatch m_watch;
};

} // namespace

int serve(const Options &options, const Demo *demo)
{
    // A thread that connects to the broker may exist when the program ends.
    OPENSSL_init_crypto(OPENSSL_INIT_NO_ATEXIT, nullptr);
    Service service(options);
    if (demo != nullptr)
        service.printFirstCode(options.pairSocket);
    service.run();
    return 0;
}

} // namespace gateway
