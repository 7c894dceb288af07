#include "api.h"

#include "page.h"
#include "problem.h"
#include "target.h"

#include <gripper/line.h>

#include <algorithm>
#include <array>
#include <limits>
#include <utility>

namespace gateway {

namespace {

constexpr const char *jsonType = "application/json";
constexpr int maxByte = 255;
constexpr int maxId = 247;
constexpr int defaultSpeed = gripper::Gripper::fullSpeed;
constexpr int defaultForce = gripper::Gripper::defaultForce;
constexpr int maxHistorySeconds = 600;

Response json(int status, const Json &value)
{
    Response response;
    response.status = status;
    response.contentType = jsonType;
    response.body = textOf(value);
    return response;
}

Response noContent()
{
    Response response;
    response.status = status::noContent;
    return response;
}

constexpr const char *metricsPath = "/metrics";
constexpr const char *metricsType = "text/plain; version=0.0.4; charset=utf-8";

Json errorOf(const Problem &problem)
{
    Json error = Json::object();
    error["code"] = problem.code();
    error["text"] = problem.what();
    Json root = Json::object();
    root["error"] = error;
    return root;
}

bool isJson(const std::optional<std::string> &contentType)
{
    if (!contentType)
        return false;
    const std::string type = contentType->substr(0, contentType->find(';'));
    return type == jsonType;
}

/// The token of "Bearer TOKEN". Empty for another text.
std::string tokenIn(const std::optional<std::string> &authorization)
{
    const std::string scheme = "Bearer ";
    if (!authorization || authorization->rfind(scheme, 0) != 0)
        return {};
    return authorization->substr(scheme.size());
}

struct ActionRow
{
    Action action;
    Role role;
    bool needsLease;
};

/// The last words of /api/v1/grippers/9/WORD, by the names of the actions. A stop needs no lease,
/// because it must work for everybody who sees that something goes wrong.
constexpr std::array<ActionRow, 9> gripperActions{{
    {Action::Activate, Role::Operate, true},
    {Action::Deactivate, Role::Operate, true},
    {Action::Move, Role::Operate, true},
    {Action::Stop, Role::Operate, false},
    {Action::Release, Role::Operate, true},
    {Action::Led, Role::Operate, true},
    {Action::Mode, Role::Operate, true},
    {Action::Rename, Role::Maintain, true},
    {Action::Upgrade, Role::Maintain, true},
}};
constexpr ActionRow scanAction{Action::Scan, Role::Operate, true};

bool needsSerial(Action action)
{
    return action == Action::Rename || action == Action::Upgrade;
}

const ActionRow *actionOf(const Target &target)
{
    const auto &words = target.words;
    if (words.size() == 1 && words[0] == nameOf(scanAction.action))
        return &scanAction;
    constexpr std::size_t wordsOfCommand = 3;
    if (words.size() != wordsOfCommand || words[0] != "grippers" || !numberIn(words[1], 1, maxId))
        return nullptr;
    const auto *row =
        std::find_if(gripperActions.begin(), gripperActions.end(),
                     [&](const ActionRow &each) { return words[2] == nameOf(each.action); });
    return row == gripperActions.end() ? nullptr : row;
}

[[noreturn]] void refuse(Refusal refusal)
{
    switch (refusal) {
    case Refusal::Busy:
        throw Problem(status::conflict, "busy", "another job has the gripper or the line");
    case Refusal::TooMany:
        throw Problem(status::tooManyRequests, "too-many", "many jobs are under way");
    case Refusal::Ending:
        break;
    }
    throw Problem(status::unavailable, "unavailable", "the gateway ends");
}

} // namespace

/// A request on its way through the checks.
struct Api::Call
{
    const Request &request;
    const gripper::ReadingTime &now;
    Target target;
    std::optional<Session> session;
};

Response Api::handle(const Request &request, const gripper::ReadingTime &now)
{
    Response response;
    try {
        response = route(request, now);
    } catch (const Problem &problem) {
        Json body = errorOf(problem);
        const std::string code = problem.code();
        if (code == "held" || code == "no-control")
            body["error"]["control"] = view(now).control();
        response = json(problem.status(), body);
    }
    return response;
}

Response Api::handleMetrics(const Request &request, const Names &names, Clock::time_point now) const
{
    try {
        requireOwnHost(request, names);
        if (Target(request.target).path != metricsPath)
            throw Problem(status::notFound, "unknown-route", "this port knows only /metrics");
        if (request.method != "GET")
            throw Problem(status::methodNotAllowed, "method", "this path knows only GET");
        return metrics(now);
    } catch (const Problem &problem) {
        return json(problem.status(), errorOf(problem));
    }
}

void Api::advance(const gripper::ReadingTime &now)
{
    m_parts.picture.advance(now);
    const auto &holder = m_parts.lease.holder();
    if (holder && !m_parts.sessions.findByNumber(holder->claimant.session, now.monotonic)) {
        m_parts.lease.end();
        addControlEvent("ended", "the session that had control has ended", now);
    }
    if (m_parts.lease.expire(now.monotonic))
        addControlEvent("ended", "control was not renewed in time, and is free", now);
}

View Api::view(const gripper::ReadingTime &now) const
{
    return {m_parts.picture, m_parts.jobList, m_parts.lease, m_parts.jobs.isMaintaining(), now};
}

std::optional<Viewer> Api::viewer(std::optional<std::uint64_t> session,
                                  const gripper::ReadingTime &now)
{
    if (!session)
        return Viewer{};
    const std::optional<Session> found = m_parts.sessions.findByNumber(*session, now.monotonic);
    if (!found)
        return std::nullopt;
    return Viewer{found->role, found->end};
}

Response Api::route(const Request &request, const gripper::ReadingTime &now)
{
    requireOwnHost(request, m_parts.names);
    Call call{request, now, Target(request.target), {}};
    advance(now);
    const auto &words = call.target.words;
    const bool isGet = request.method == "GET";
    if (words.empty()) {
        if (!isGet)
            throw Problem(status::methodNotAllowed, "method", "this path knows only GET");
        if (call.target.path == metricsPath && m_parts.metrics) {
            requireViewer(call);
            return metrics(now.monotonic);
        }
        return call.target.path == "/healthz" ? healthz() : page(request);
    }
    return isGet ? view(call) : change(call);
}

void Api::requireOwnHost(const Request &request, const Names &names)
{
    if (!names.isOwnHost(request.host, request.localAddress)) {
        throw Problem(status::misdirected, "wrong-host",
                      "the gateway has another name; see its option --name");
    }
}

Response Api::page(const Request &request) const
{
    const PageFile *file = findPageFile(Target(request.target).path);
    if (file == nullptr)
        throw Problem(status::notFound, "unknown-route", "there is no such path");
    Response response;
    response.headers.emplace_back("ETag", std::string(file->tag));
    if (request.ifNoneMatch && request.ifNoneMatch->find(file->tag) != std::string::npos) {
        response.status = status::notModified;
        return response;
    }
    response.contentType = file->contentType;
    response.staticBody = file->content;
    return response;
}

Response Api::healthz() const
{
    const LineView &line = m_parts.picture.line();
    const bool isWell = (line.condition == LineCondition::Connected && !line.isStale) ||
                        line.condition == LineCondition::Upgrading;
    Response response;
    response.status = isWell ? status::ok : status::unavailable;
    response.contentType = "text/plain; charset=utf-8";
    response.body = std::string(isWell ? "ok" : "not well") + ": line " + nameOf(line.condition) +
                    (line.text.empty() ? "" : " (" + line.text + ')') +
                    (line.isStale && !isWell ? ", no new values" : "") + '\n';
    return response;
}

Response Api::metrics(Clock::time_point now) const
{
    Response response;
    response.contentType = metricsType;
    response.body = m_parts.metrics(now);
    return response;
}

Response Api::view(Call &call)
{
    const auto &words = call.target.words;
    const bool isAlone = words.size() == 1;
    const bool isJob = words.size() == 2 && words[0] == "jobs";
    const std::string &word = words[0];
    const bool isKnown =
        isJob || (isAlone && (word == "state" || word == "history" || word == "stream"));
    if (!isKnown) {
        const bool isChange = actionOf(call.target) != nullptr ||
                              (isAlone && (word == "session" || word == "control"));
        if (isChange)
            throw Problem(status::methodNotAllowed, "method", "this path does not know GET");
        throw Problem(status::notFound, "unknown-route", "there is no such path");
    }
    call.session = requireViewer(call);
    if (isJob)
        return job(call);
    if (word == "history")
        return history(call);
    if (word == "stream") {
        Response response;
        response.contentType = "text/event-stream";
        response.isStream = true;
        if (call.session)
            response.session = call.session->number;
        return response;
    }
    const View view = this->view(call.now);
    Json picture = view.picture();
    picture["you"] =
        view.viewer(call.session ? Viewer{call.session->role, call.session->end} : Viewer{});
    return json(status::ok, picture);
}

/// Viewing is free for a browser on the machine itself. Another page in this browser gets nothing:
/// it cannot read answers without a CORS header, and must not use up the streams.
std::optional<Session> Api::requireViewer(const Call &call)
{
    const Request &request = call.request;
    if (request.fetchSite && *request.fetchSite != "same-origin" && *request.fetchSite != "none")
        throw Problem(status::forbidden, "forbidden-origin",
                      "only the gateway's own page may read");
    const auto session = m_parts.sessions.find(tokenIn(request.authorization), call.now.monotonic);
    const bool isOnMachine = Names::isLoopback(request.peerAddress) &&
                             Names::isLoopback(request.host) && !request.isForwarded;
    if (!session && (request.authorization || !isOnMachine || m_parts.viewNeedsToken)) {
        throw Problem(status::unauthorized, "unpaired",
                      "pair this browser: run gripper-gateway pair on the machine");
    }
    return session;
}

Response Api::change(Call &call)
{
    const auto &words = call.target.words;
    const bool isDelete = call.request.method == "DELETE";
    if (!isDelete && call.request.method != "POST")
        throw Problem(status::methodNotAllowed, "method", "known are GET, POST and DELETE");
    const bool isAlone = words.size() == 1;
    const bool isSession = isAlone && words[0] == "session";
    const bool isControl = isAlone && words[0] == "control";
    const bool isAction = !isDelete && actionOf(call.target) != nullptr;
    if (!isSession && !isControl && !isAction)
        throw Problem(status::notFound, "unknown-route", "there is no such path for this method");
    requireOwnPage(call.request);
    if (isAction)
        return beginJob(call);
    if (isControl)
        return isDelete ? returnControl(call) : takeControl(call);
    return isDelete ? endSession(call) : pair(call);
}

void Api::requireOwnPage(const Request &request) const
{
    if (!request.origin || !m_parts.names.isOwnOrigin(*request.origin, request.host)) {
        throw Problem(status::forbidden, "forbidden-origin",
                      "only the gateway's own page may change something");
    }
    if (!isJson(request.contentType)) {
        throw Problem(status::unsupportedMediaType, "content-type",
                      "the Content-Type is not application/json");
    }
}

Session Api::requireRole(const Call &call, Role role)
{
    const auto session =
        m_parts.sessions.find(tokenIn(call.request.authorization), call.now.monotonic);
    if (!session) {
        throw Problem(status::unauthorized, "unpaired",
                      "pair this browser: run gripper-gateway pair on the machine");
    }
    if (session->role < role) {
        throw Problem(status::forbidden, "role",
                      std::string("this needs the role ") + nameOf(role) + ", not " +
                          nameOf(session->role));
    }
    return *session;
}

void Api::requireLease(const Call &call, Body &body) const
{
    const std::string key = body.requiredText("lease");
    if (!m_parts.lease.holds(key, call.session->number)) {
        throw Problem(status::conflict, "no-control",
                      m_parts.lease.holder() ? "another page has control" : "take control first");
    }
}

Response Api::pair(Call &call)
{
    Body body(call.request.body);
    const std::string code = body.requiredText("code");
    body.finish();
    const bool isPairing = m_parts.sessions.isPairing(call.now.monotonic);
    const auto token = m_parts.sessions.redeem(code, call.now.monotonic);
    if (!token) {
        // Without a pending code, no guess succeeds, and a peer without a token must not fill the
        // journal: its rate limit would drop the records of commands.
        if (isPairing) {
            m_parts.journal({"pair",
                             {},
                             "",
                             call.request.peerAddress,
                             "a wrong pairing code from " + call.request.peerAddress});
        }
        throw Problem(status::unauthorized, "wrong-code",
                      "the code is wrong, used or expired: run gripper-gateway pair once more");
    }
    const auto session = m_parts.sessions.find(*token, call.now.monotonic);
    record("pair", {}, session->role, call.request.peerAddress);
    Json answer = Json::object();
    answer["token"] = *token;
    answer["role"] = nameOf(session->role);
    answer["expiresInSeconds"] = secondsBetween(call.now.monotonic, session->end);
    return json(status::created, answer);
}

Response Api::endSession(Call &call)
{
    const Session session = requireRole(call, Role::View);
    if (!call.request.body.empty())
        Body(call.request.body).finish();
    m_parts.sessions.close(session.number);
    advance(call.now);
    return noContent();
}

Response Api::takeControl(Call &call)
{
    const Session session = requireRole(call, Role::Operate);
    Body body(call.request.body);
    const auto key = body.text("key");
    const bool takeOver = body.flag("takeOver").value_or(false);
    body.finish();
    if (key) {
        if (!m_parts.lease.holds(*key, session.number))
            throw Problem(status::conflict, "no-control", "this page has lost control");
        m_parts.lease.renew(call.now.monotonic);
    } else {
        const std::string &peer = call.request.peerAddress;
        const Claimant claimant{session.number, session.role, peer};
        const Lease::Taken taken = m_parts.lease.take(claimant, takeOver, call.now);
        switch (taken) {
        case Lease::Taken::No:
            throw Problem(status::conflict, "held", "another page has control");
        case Lease::Taken::Free:
            addControlEvent("taken", peer + " has taken control", call.now);
            break;
        case Lease::Taken::FromAnother:
            addControlEvent("taken-over", peer + " has taken control over", call.now);
            break;
        }
        record("control", {}, session.role, peer,
               taken == Lease::Taken::FromAnother ? " (taken over)" : "");
    }
    const Lease::Holder &holder = *m_parts.lease.holder();
    Json answer = Json::object();
    answer["number"] = holder.number;
    answer["key"] = holder.key;
    answer["expiresInSeconds"] = secondsBetween(call.now.monotonic, holder.end);
    return json(status::ok, answer);
}

Response Api::returnControl(Call &call)
{
    const Session session = requireRole(call, Role::Operate);
    Body body(call.request.body);
    const std::string key = body.requiredText("key");
    body.finish();
    if (!m_parts.lease.holds(key, session.number))
        throw Problem(status::conflict, "no-control", "this page does not have control");
    m_parts.lease.end();
    addControlEvent("returned", call.request.peerAddress + " has returned control", call.now);
    return noContent();
}

Response Api::beginJob(Call &call)
{
    const ActionRow &row = *actionOf(call.target);
    call.session = requireRole(call, row.role);
    Command command;
    command.action = row.action;
    command.role = call.session->role;
    command.peer = call.request.peerAddress;
    Body body(call.request.body);
    readValues(command, body);
    const auto serial =
        needsSerial(row.action) ? std::optional(body.requiredText("serial")) : std::nullopt;
    if (row.needsLease)
        requireLease(call, body);
    body.finish();
    if (row.action != Action::Scan) {
        const GripperView &view = requireGripper(*numberIn(call.target.words[1], 1, maxId));
        command.gripper = view.image.id;
        if (serial && serial != view.image.serialNumber) {
            throw Problem(status::conflict, "serial",
                          "the gripper with this id has another serial number");
        }
    }
    const int job = begin(command);
    Json answer = Json::object();
    answer["job"] = view(call.now).job(*m_parts.jobList.find(job));
    return json(status::accepted, answer);
}

int Api::begin(const Command &command)
{
    if (m_parts.picture.line().condition == LineCondition::NoDaemon)
        throw Problem(status::unavailable, "unavailable", "the daemon does not answer");
    const auto result = m_parts.jobs.begin(command);
    if (const auto *refusal = std::get_if<Refusal>(&result))
        refuse(*refusal);
    record(nameOf(command.action), command.gripper, command.role, command.peer);
    return std::get<int>(result);
}

void Api::readValues(Command &command, Body &body)
{
    switch (command.action) {
    case Action::Activate:
        command.again = body.flag("again").value_or(false);
        break;
    case Action::Move:
        command.position = body.requiredNumber("position", 0, maxByte);
        command.speed = body.number("speed", 0, maxByte).value_or(defaultSpeed);
        command.force = body.number("force", 0, maxByte).value_or(defaultForce);
        break;
    case Action::Release:
        command.closing = body.flag("closing").value_or(false);
        break;
    case Action::Led:
        command.ledAuto = body.has("auto");
        if (command.ledAuto) {
            if (!body.requiredFlag("auto"))
                throw Problem(status::badRequest, "bad-request", "\"auto\" is true or missing");
        } else {
            command.red = body.requiredFlag("red");
            command.green = body.requiredFlag("green");
            command.blue = body.requiredFlag("blue");
        }
        break;
    case Action::Mode:
        command.mode = body.requiredNumber("mode", 0, 1);
        break;
    case Action::Rename: {
        const auto &ids = gripper::Line::scannedIds;
        command.newId = body.requiredNumber("newId", 1, maxId);
        if (std::find(ids.begin(), ids.end(), command.newId) == ids.end())
            throw Problem(status::badRequest, "bad-request", "no scan looks for this id");
        break;
    }
    case Action::Upgrade:
        command.expected = body.text("expected").value_or("");
        break;
    case Action::Deactivate:
    case Action::Stop:
    case Action::Scan:
        break;
    }
}

Response Api::history(const Call &call) const
{
    const auto id = call.target.number("gripper", 1, maxId);
    if (!id)
        throw Problem(status::badRequest, "bad-request", "the parameter gripper is missing");
    const int seconds =
        call.target.number("seconds", 1, maxHistorySeconds).value_or(maxHistorySeconds);
    requireGripper(*id);
    Response response;
    response.contentType = jsonType;
    response.body =
        view(call.now).history(*id, *m_parts.picture.history(*id), std::chrono::seconds(seconds));
    return response;
}

Response Api::job(const Call &call) const
{
    const auto id = numberIn(call.target.words[1], 1, std::numeric_limits<int>::max());
    const Job *job = id ? m_parts.jobList.find(*id) : nullptr;
    if (job == nullptr)
        throw Problem(status::notFound, "unknown-job", "there is no such job");
    return json(status::ok, view(call.now).job(*job));
}

const GripperView &Api::requireGripper(int id) const
{
    const auto &grippers = m_parts.picture.grippers();
    const auto gripper = grippers.find(id);
    if (gripper == grippers.end())
        throw Problem(status::notFound, "unknown-gripper", "the daemon has found no such gripper");
    return gripper->second;
}

void Api::addControlEvent(const char *detail, const std::string &text,
                          const gripper::ReadingTime &now)
{
    m_parts.picture.addEvent({EventKind::Control, {}, {}, detail, text, 0, {}}, now);
}

void Api::record(const std::string &action, std::optional<int> gripper, Role role,
                 const std::string &peer, const std::string &detail) const
{
    std::string text = action;
    if (gripper)
        text += " gripper " + std::to_string(*gripper);
    text += std::string(", role ") + nameOf(role) + ", from " + peer + detail;
    m_parts.journal({action, gripper, nameOf(role), peer, text});
}

} // namespace gateway
