// The answers of the API, without HTTP: checks and their order, commands, messages of the stream.
#include "assertions.h"
#include "views.h"

#include <api.h>
#include <streamcursor.h>

#include <iterator>
#include <string>
#include <utility>
#include <vector>

using namespace gateway;
using namespace std::chrono_literals;
using views::at;
using views::image;
using views::reading;

namespace {

class FakeJobs : public Jobs
{
public:
    explicit FakeJobs(JobList &list)
        : m_list(list)
    {
    }

    std::variant<int, Refusal> begin(const Command &command) override
    {
        if (refusal)
            return *refusal;
        begun.push_back(command);
        return m_list.add(command, at(0ms)).id;
    }
    bool isMaintaining() const override { return false; }

    std::vector<Command> begun;
    std::optional<Refusal> refusal;

private:
    JobList &m_list;
};

/// A command: the last words of its path, its action, its body without the lease.
struct Row
{
    const char *path;
    Action action;
    const char *members;
};

constexpr Row everyCommand[] = {
    {"grippers/9/activate", Action::Activate, ""},
    {"grippers/9/deactivate", Action::Deactivate, ""},
    {"grippers/9/move", Action::Move, R"("position":80)"},
    {"grippers/9/release", Action::Release, ""},
    {"grippers/9/led", Action::Led, R"("auto":true)"},
    {"grippers/9/mode", Action::Mode, R"("mode":1)"},
    {"grippers/9/rename", Action::Rename, R"("serial":"SIM-9","newId":3)"},
    {"grippers/9/upgrade", Action::Upgrade, R"("serial":"SIM-9")"},
    {"grippers/9/stop", Action::Stop, nullptr},
    {"scan", Action::Scan, ""},
};

/// An API with gripper 9, and one page.
struct Page
{
    Picture picture{{}, at(0ms)};
    JobList list;
    FakeJobs jobs{list};
    Sessions sessions;
    Lease lease;
    Names names{{false, 63353, "robot7", {}, {}}};
    std::vector<JournalEntry> journal;
    Api api{{picture, list, jobs, sessions, lease, names,
             [this](const JournalEntry &entry) { journal.push_back(entry); }, false}};
    NewestChange change;
    gripper::ReadingTime now = at(0ms);
    std::string token;
    std::string key;

    Page() { picture.take(reading(0ms, {image()})); }

    std::string next(StreamCursor &cursor, std::chrono::milliseconds time)
    {
        return cursor.next(api.view(at(time)), {}, change);
    }

    void pairAs(Role role)
    {
        token = *sessions.redeem(sessions.newCode(role, now.monotonic), now.monotonic);
    }

    void takeControl() { key = Json::parse(post("control", "{}").body)["key"].get<std::string>(); }

    Request request(const std::string &method, const std::string &path,
                    const std::string &body = {}) const
    {
        Request request;
        request.method = method;
        request.target = "/api/v1/" + path;
        request.host = "robot7:63353";
        request.peerAddress = "192.0.2.1";
        request.localAddress = "192.0.2.9";
        if (!token.empty())
            request.authorization = "Bearer " + token;
        if (method != "GET") {
            request.origin = "http://robot7:63353";
            request.contentType = "application/json";
            request.body = body;
        }
        return request;
    }

    Response post(const std::string &path, const std::string &body)
    {
        return api.handle(request("POST", path, body), now);
    }

    std::string withLease(const std::string &members = {}) const
    {
        return R"({"lease":")" + key + '"' + (members.empty() ? "" : ',' + members) + '}';
    }

    Response post(const Row &row)
    {
        return post(row.path, row.members == nullptr ? "{}" : withLease(row.members));
    }
};

std::string codeOf(const Response &response)
{
    const Json body = Json::parse(response.body, nullptr, false);
    return body.contains("error") ? body["error"]["code"].get<std::string>() : std::string();
}

struct Operator : Page
{
    Operator()
    {
        pairAs(Role::Maintain);
        takeControl();
    }
};

int count(const std::string &text, const std::string &part)
{
    int found = 0;
    for (auto at = text.find(part); at != std::string::npos; at = text.find(part, at + 1))
        ++found;
    return found;
}

} // namespace

TEST(everyCommandHasItsValues)
{
    Operator page;
    CHECK(page.post("grippers/9/activate", page.withLease(R"("again":true)")).status == 202);
    CHECK(page.post("grippers/9/move", page.withLease(R"("position":80,"speed":1,"force":2)"))
              .status == 202);
    CHECK(page.post("grippers/9/move", page.withLease(R"("position":255)")).status == 202);
    CHECK(page.post("grippers/9/release", page.withLease(R"("closing":true)")).status == 202);
    CHECK(page.post("grippers/9/led", page.withLease(R"("red":true,"green":false,"blue":true)"))
              .status == 202);
    CHECK(page.post("grippers/9/led", page.withLease(R"("auto":true)")).status == 202);
    CHECK(page.post("grippers/9/mode", page.withLease(R"("mode":1)")).status == 202);
    CHECK(page.post("grippers/9/deactivate", page.withLease()).status == 202);
    CHECK(page.post("grippers/9/rename", page.withLease(R"("serial":"SIM-9","newId":3)")).status ==
          202);
    CHECK(page.post("grippers/9/upgrade", page.withLease(R"("serial":"SIM-9","expected":"X")"))
              .status == 202);
    CHECK(page.post("scan", page.withLease()).status == 202);
    CHECK(page.post("grippers/9/stop", "{}").status == 202);
    const auto &begun = page.jobs.begun;
    CHECK(begun[0].action == Action::Activate && begun[0].again && begun[0].gripper == 9);
    CHECK(begun[1].position == 80 && begun[1].speed == 1 && begun[1].force == 2);
    CHECK(begun[2].position == 255 && begun[2].speed == 255 && begun[2].force == 100);
    CHECK(begun[3].action == Action::Release && begun[3].closing);
    CHECK(begun[4].red && !begun[4].green && begun[4].blue && !begun[4].ledAuto);
    CHECK(begun[5].ledAuto);
    CHECK(begun[6].mode == 1);
    CHECK(begun[7].action == Action::Deactivate);
    CHECK(begun[8].newId == 3);
    CHECK(begun[9].expected == "X");
    CHECK(begun[10].action == Action::Scan && !begun[10].gripper);
    CHECK(begun[11].action == Action::Stop);
}

TEST(everyCommandGoesToTheJournal)
{
    for (const Row &row : everyCommand) {
        Operator page;
        page.journal.clear();
        CHECK(page.post(row).status == 202);
        CHECK(page.journal.size() == 1);
        const JournalEntry &entry = page.journal.front();
        const bool isScan = row.action == Action::Scan;
        CHECK(entry.action == nameOf(row.action));
        CHECK(entry.gripper == (isScan ? std::nullopt : std::optional(9)));
        CHECK(entry.role == "maintain" && entry.peer == "192.0.2.1");
        CHECK(entry.text ==
              entry.action + (isScan ? "" : " gripper 9") + ", role maintain, from 192.0.2.1");
    }
}

TEST(wrongCodesGoToTheJournalWhileACodeIsPending)
{
    Page page;
    const auto pairWrongly = [&] { page.post("session", R"({"code":"AAAA-AAAA"})"); };
    pairWrongly();
    CHECK(page.journal.empty());
    page.sessions.newCode(Role::View, page.now.monotonic);
    for (int i = 0; i < 2 * Sessions::maxAttempts; ++i)
        pairWrongly();
    CHECK(page.journal.size() == Sessions::maxAttempts);
    CHECK(page.journal.front().text == "a wrong pairing code from 192.0.2.1");
}

TEST(anExpiredTokenBeginsNothing)
{
    Operator page;
    page.now = at(8h - 1ms);
    CHECK(page.post("grippers/9/stop", "{}").status == 202);
    page.jobs.begun.clear();
    page.now = at(8h);
    CHECK(codeOf(page.post("grippers/9/stop", "{}")) == "unpaired");
    CHECK(codeOf(page.post("control", "{}")) == "unpaired");
    CHECK(codeOf(page.post("grippers/9/move", page.withLease(R"("position":1)"))) == "unpaired");
    CHECK(page.api.handle(page.request("GET", "state"), page.now).status == 401);
    CHECK(page.jobs.begun.empty());
}

TEST(wrongBodiesBeginNothing)
{
    const char *const bodies[] = {"",
                                  "[]",
                                  "{",
                                  "null",
                                  R"({"lease":KEY})",
                                  R"({"lease":KEY,"position":256})",
                                  R"({"lease":KEY,"position":-1})",
                                  R"({"lease":KEY,"position":1.5})",
                                  R"({"lease":KEY,"position":"1"})",
                                  R"({"lease":KEY,"position":4294967297})",
                                  R"({"lease":KEY,"position":18446744073709551617})",
                                  R"({"lease":KEY,"position":true})",
                                  R"({"lease":KEY,"position":null})",
                                  R"({"lease":KEY,"position":1,"sped":1})",
                                  R"({"lease":KEY,"position":1,"speed":256})",
                                  R"({"lease":1,"position":1})",
                                  R"({"position":1})"};
    Operator page;
    for (std::string body : bodies) {
        const auto place = body.find("KEY");
        if (place != std::string::npos)
            body.replace(place, 3, '"' + page.key + '"');
        const Response response = page.post("grippers/9/move", body);
        CHECK(response.status == 400 && codeOf(response) == "bad-request");
    }
    for (const char *body : {R"("red":true)", R"("auto":false)", R"("auto":true,"red":true)"})
        CHECK(page.post("grippers/9/led", page.withLease(body)).status == 400);
    for (const char *body : {R"("serial":"SIM-9","newId":5)", R"("newId":3)"})
        CHECK(page.post("grippers/9/rename", page.withLease(body)).status == 400);
    CHECK(page.jobs.begun.empty());
}

TEST(anotherSerialNumberBeginsNothing)
{
    Operator page;
    CHECK(codeOf(page.post("grippers/9/upgrade", page.withLease(R"("serial":"SIM-8")"))) ==
          "serial");
    CHECK(codeOf(page.post("grippers/9/rename", page.withLease(R"("serial":"","newId":3)"))) ==
          "serial");
    CHECK(page.jobs.begun.empty());
}

TEST(rolesDecide)
{
    const std::pair<Role, int> moves[] = {
        {Role::View, 403}, {Role::Operate, 409}, {Role::Maintain, 409}};
    for (const auto &[role, status] : moves) {
        Page page;
        page.pairAs(role);
        page.key = "A";
        CHECK(page.post("grippers/9/move", page.withLease(R"("position":1)")).status == status);
        CHECK(page.post("grippers/9/stop", "{}").status == (role == Role::View ? 403 : 202));
        CHECK(page.post("grippers/9/upgrade", page.withLease(R"("serial":"SIM-9")")).status ==
              (role == Role::Maintain ? 409 : 403));
        CHECK(page.api.handle(page.request("GET", "state"), page.now).status == 200);
    }
}

TEST(controlNeedsTheRoleOperate)
{
    const std::pair<const char *, const char *> requests[] = {{"POST", "{}"},
                                                              {"DELETE", R"({"key":"A"})"}};
    for (const auto &[method, body] : requests) {
        Page page;
        CHECK(codeOf(page.api.handle(page.request(method, "control", body), page.now)) ==
              "unpaired");
        page.pairAs(Role::View);
        CHECK(codeOf(page.api.handle(page.request(method, "control", body), page.now)) == "role");
        CHECK(!page.lease.holder());
    }
}

TEST(aForeignPageEndsNoSessionAndReturnsNoControl)
{
    Operator page;
    const std::string key = R"({"key":")" + page.key + R"("})";
    const std::pair<const char *, std::string> targets[] = {{"session", ""}, {"control", key}};
    for (const auto &[path, body] : targets) {
        const Request own = page.request("DELETE", path, body);
        for (const char *origin : {"null", "http://evil.example", "https://robot7:63353"}) {
            Request foreign = own;
            foreign.origin = origin;
            CHECK(codeOf(page.api.handle(foreign, page.now)) == "forbidden-origin");
        }
        Request wrong = own;
        wrong.origin.reset();
        CHECK(codeOf(page.api.handle(wrong, page.now)) == "forbidden-origin");
        wrong = own;
        wrong.contentType = "application/x-www-form-urlencoded";
        CHECK(codeOf(page.api.handle(wrong, page.now)) == "content-type");
        wrong = own;
        wrong.host = "evil.example:63353";
        wrong.origin = "http://evil.example:63353";
        CHECK(codeOf(page.api.handle(wrong, page.now)) == "wrong-host");
        CHECK(page.lease.holder());
    }
    CHECK(page.post("grippers/9/stop", "{}").status == 202);
}

TEST(theHealthNamesItsReason)
{
    const auto healthOf = [](Page &page) {
        Request request = page.request("GET", "");
        request.target = "/healthz";
        return page.api.handle(request, page.now);
    };
    Page page;
    CHECK(healthOf(page).status == 200);
    CHECK(healthOf(page).body == "ok: line connected (RUNNING)\n");
    page.now = at(2s);
    CHECK(healthOf(page).status == 503);
    CHECK(healthOf(page).body == "not well: line connected (RUNNING), no new values\n");
    Reading gone;
    gone.time = page.now;
    gone.problem = "no connection";
    page.picture.take(gone);
    CHECK(healthOf(page).status == 503);
    CHECK(healthOf(page).body == "not well: line no-daemon (no connection), no new values\n");
}

TEST(onlyATakeoverFromAnotherPageIsOneInTheJournal)
{
    Page page;
    page.pairAs(Role::Operate);
    const auto take = [&] {
        page.journal.clear();
        CHECK(page.post("control", R"({"takeOver":true})").status == 200);
        return page.journal.front().text;
    };
    CHECK(take() == "control, role operate, from 192.0.2.1");
    CHECK(take() == "control, role operate, from 192.0.2.1 (taken over)");
}

TEST(anUnknownGripperOrPathIsNotFound)
{
    Operator page;
    CHECK(codeOf(page.post("grippers/8/stop", "{}")) == "unknown-gripper");
    for (const char *path :
         {"grippers/9", "grippers/9/jump", "grippers/0/stop", "grippers/09x/stop",
          "grippers/256/stop", "scan/1", "", "jobs/1", "grippers//stop"})
        CHECK(codeOf(page.post(path, "{}")) == "unknown-route");
    CHECK(page.api.handle(page.request("GET", "jobs/99"), page.now).status == 404);
    CHECK(page.api.handle(page.request("GET", "grippers/9/move"), page.now).status == 405);
    CHECK(page.api.handle(page.request("PUT", "state"), page.now).status == 405);
}

TEST(refusalsOfTheJobsAreAnswers)
{
    const std::pair<Refusal, int> rows[] = {
        {Refusal::Busy, 409}, {Refusal::TooMany, 429}, {Refusal::Ending, 503}};
    for (const auto &[refusal, status] : rows) {
        Operator page;
        page.jobs.refusal = refusal;
        CHECK(page.post("grippers/9/stop", "{}").status == status);
    }
}

TEST(nothingBeginsWithoutTheDaemon)
{
    Operator page;
    Reading gone;
    gone.time = at(50ms);
    page.picture.take(gone);
    CHECK(codeOf(page.post("grippers/9/stop", "{}")) == "unavailable");
    CHECK(page.jobs.begun.empty());
}

TEST(theEndOfASessionEndsItsLease)
{
    Operator page;
    CHECK(page.api.handle(page.request("DELETE", "session"), page.now).status == 204);
    CHECK(!page.lease.holder());
    CHECK(codeOf(page.post("grippers/9/stop", "{}")) == "unpaired");
    CHECK(page.picture.events().events().back().detail == "ended");
}

TEST(anExpiredTokenCommandsAndReadsNothing)
{
    Operator page;
    const auto session = page.sessions.find(page.token, page.now.monotonic)->number;
    page.now = at(8h - 1ms);
    CHECK(page.api.viewer(session, page.now));
    page.takeControl();
    page.jobs.begun.clear();
    page.now = at(8h);
    for (const Row &row : everyCommand) {
        const Response response = page.post(row);
        CHECK(response.status == 401 && codeOf(response) == "unpaired");
    }
    CHECK(page.post("control", "{}").status == 401);
    CHECK(page.api.handle(page.request("DELETE", "session"), page.now).status == 401);
    CHECK(page.jobs.begun.empty());
    CHECK(!page.lease.holder());
    CHECK(page.api.handle(page.request("GET", "state"), page.now).status == 401);
    CHECK(!page.api.viewer(session, page.now));
}

TEST(theLeaseEndsWithoutRenewal)
{
    Operator page;
    page.now = at(4900ms);
    CHECK(page.post("control", R"({"key":")" + page.key + R"("})").status == 200);
    page.now = at(9899ms);
    CHECK(page.post("grippers/9/deactivate", page.withLease()).status == 202);
    page.now = at(9900ms);
    CHECK(codeOf(page.post("grippers/9/deactivate", page.withLease())) == "no-control");
    CHECK(codeOf(page.post("control", R"({"key":")" + page.key + R"("})")) == "no-control");
}

TEST(viewingIsFreeOnTheMachineOnly)
{
    Page page;
    Request request = page.request("GET", "state");
    CHECK(page.api.handle(request, page.now).status == 401);
    request.peerAddress = "127.0.0.1";
    request.localAddress = "127.0.0.1";
    request.host = "localhost:63353";
    CHECK(page.api.handle(request, page.now).status == 200);
    Request forwarded = request;
    forwarded.isForwarded = true;
    CHECK(page.api.handle(forwarded, page.now).status == 401);
    Request named = request;
    named.host = "robot7:63353";
    CHECK(page.api.handle(named, page.now).status == 401);
    Request foreign = request;
    foreign.fetchSite = "cross-site";
    CHECK(page.api.handle(foreign, page.now).status == 403);
    Request expired = request;
    expired.authorization = "Bearer A";
    CHECK(page.api.handle(expired, page.now).status == 401);
}

TEST(aStreamBeginsWithThePicture)
{
    Page page;
    StreamCursor cursor;
    CHECK(page.next(cursor, 0ms).rfind("event: picture\ndata: {", 0) == 0);
    CHECK(page.next(cursor, 10ms).empty());
}

TEST(changesComeTenTimesASecondAtMost)
{
    Page page;
    StreamCursor cursor;
    int changes = 0;
    for (int time = 0; time < 1000; time += 10) {
        gripper::Image next = image();
        next.position = time / 10;
        page.picture.take(reading(std::chrono::milliseconds(time), {next}));
        changes += count(page.next(cursor, std::chrono::milliseconds(time)), "event: change\n");
    }
    CHECK(changes == 9);
}

TEST(aChangeHasOnlyWhatChanged)
{
    Page page;
    page.picture.take(reading(0ms, {image(2), image()}));
    StreamCursor cursor;
    page.next(cursor, 0ms);
    gripper::Image next = image();
    next.position = 11;
    page.picture.take(reading(100ms, {image(2), next}));
    const std::string text = page.next(cursor, 100ms);
    const Json change = Json::parse(text.substr(text.find("data: ") + 6));
    CHECK(change["grippers"].size() == 1 && change["grippers"][0]["position"] == 11);
}

TEST(aViewerThatMissedAChangeGetsItToo)
{
    Page page;
    page.picture.take(reading(0ms, {image(2), image()}));
    StreamCursor quick;
    StreamCursor slow;
    page.next(quick, 0ms);
    page.next(slow, 0ms);
    gripper::Image moved = image();
    moved.position = 11;
    page.picture.take(reading(100ms, {image(2), moved}));
    page.next(quick, 100ms);
    gripper::Image other = image(2);
    other.position = 12;
    page.picture.take(reading(200ms, {other, moved}));
    const auto grippersFor = [&](StreamCursor &cursor) {
        const std::string text = page.next(cursor, 200ms);
        return Json::parse(text.substr(text.find("data: ") + 6))["grippers"].size();
    };
    CHECK(grippersFor(quick) == 1);
    CHECK(grippersFor(slow) == 2);
}

TEST(aQuietStreamLivesOnceASecond)
{
    Page page;
    StreamCursor cursor;
    page.next(cursor, 0ms);
    CHECK(page.next(cursor, 999ms).empty());
    CHECK(count(page.next(cursor, 1000ms), "event: change\n") == 1);
}

TEST(aStreamThatWasTooSlowGetsThePicture)
{
    Page page;
    StreamCursor cursor;
    page.next(cursor, 0ms);
    const std::string text = page.next(cursor, 3001ms);
    CHECK(count(text, "event: picture\n") == 1 && count(text, "event: change\n") == 0);
}

TEST(eventsAndJobsDoNotWaitForAChange)
{
    Operator page;
    StreamCursor cursor;
    page.next(cursor, 0ms);
    page.post("grippers/9/stop", "{}");
    page.picture.addEvent({}, at(10ms));
    const std::string text = page.next(cursor, 10ms);
    CHECK(count(text, "event: job\n") == 1 && count(text, "event: event\n") == 1);
    CHECK(page.next(cursor, 20ms).empty());
}

TEST(textThatIsNotUtf8BecomesValid)
{
    Page page;
    gripper::Image next = image();
    next.serialNumber = "\xff\xfe";
    page.picture.take(reading(50ms, {next}));
    page.pairAs(Role::View);
    const Response response = page.api.handle(page.request("GET", "state"), page.now);
    CHECK(response.status == 200 && Json::accept(response.body));
}

TEST(timesHaveMillisecondsAndAnOffset)
{
    setenv("TZ", "XYZ-2:30", 1);
    tzset();
    const auto time = std::chrono::system_clock::time_point(1'700'000'000'005ms);
    CHECK(isoTime(time) == "2023-11-15T00:43:20.005+02:30");
}

int main()
{
    return runTests();
}
