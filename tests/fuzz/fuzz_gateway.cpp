// Sends requests to the API of the gateway: any bytes through the HTTP parser, or any body to a
// command.
//
// Input: the first byte chooses. 0: the rest is a request as it arrives, without a token that
// exists. Others: the byte chooses a route, and the rest is the body of a paired page that has
// control.

#include "api.h"
#include "page.h"
#include "requestof.h"

#include <boost/asio/buffer.hpp>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

/// The page is not under test.
const gateway::PageFile *gateway::findPageFile(std::string_view)
{
    return nullptr;
}

namespace {

using namespace gateway;

void require(bool holds, const char *text)
{
    if (holds)
        return;
    std::fprintf(stderr, "FINDING %s\n", text);
    std::abort();
}

class CountedJobs : public Jobs
{
public:
    explicit CountedJobs(JobList &list)
        : m_list(list)
    {
    }

    std::variant<int, Refusal> begin(const Command &command) override
    {
        const auto isByte = [](int value) { return value >= 0 && value <= 255; };
        require(isByte(command.position) && isByte(command.speed) && isByte(command.force),
                "a movement out of its range");
        require(command.mode == 0 || command.mode == 1, "an unknown mode");
        require(command.newId == 0 || command.newId == 2 || command.newId == 3 ||
                    command.newId == 4 || command.newId == 9,
                "an id that no scan finds");
        ++count;
        return m_list.add(command, gripper::ReadingTime::now()).id;
    }
    bool isMaintaining() const override { return false; }

    int count = 0;

private:
    JobList &m_list;
};

constexpr const char *routes[] = {
    "grippers/9/move",
    "grippers/9/activate",
    "grippers/9/stop",
    "grippers/9/led",
    "grippers/9/mode",
    "grippers/9/release",
    "grippers/9/upgrade",
    "grippers/9/rename",
    "scan",
    "control",
    "session",
    "grippers/9/deactivate",
};
constexpr const char *host = "localhost:63353";
constexpr const char *origin = "http://localhost:63353";

/// A gateway with gripper 9 and one page that has control.
struct Bench
{
    gripper::ReadingTime now{Clock::time_point(std::chrono::hours(1)), {}};
    Picture picture{{}, now};
    JobList list;
    CountedJobs jobs{list};
    Sessions sessions;
    Lease lease;
    Names names{{false, 63353, "robot7", {}, {}}};
    Api api{{picture, list, jobs, sessions, lease, names, [](const JournalEntry &) {}, false}};
    std::string token;
    std::string key;

    Bench()
    {
        Reading reading;
        reading.time = now;
        reading.line.emplace();
        reading.line->link = "RUNNING";
        reading.line->ids = std::vector<int>{9};
        gripper::Image image;
        image.id = 9;
        image.stale = false;
        image.time = now;
        image.serialNumber = "SIM-9";
        reading.images.push_back(image);
        picture.take(reading);
        token = *sessions.redeem(sessions.newCode(Role::Maintain, now.monotonic), now.monotonic);
        const auto session = sessions.find(token, now.monotonic);
        lease.take({session->number, session->role, "127.0.0.1"}, false, now);
        key = lease.holder()->key;
    }

    void answer(Request request)
    {
        request.peerAddress = "127.0.0.1";
        request.localAddress = "127.0.0.1";
        const int before = jobs.count;
        const Response response = api.handle(request, now);
        require(response.status >= 200 && response.status < 600, "no status");
        require((jobs.count > before) == (response.status == 202), "a job without its answer");
        if (response.contentType == "application/json")
            require(Json::accept(response.body), "an answer that is no JSON");
        require(request.method != "GET" || jobs.count == before, "a GET began a job");
    }
};

void sendBytes(Bench &bench, const std::string &bytes)
{
    HttpParser parser;
    limit(parser);
    parser.eager(true);
    boost::system::error_code error;
    parser.put(boost::asio::buffer(bytes), error);
    if (error || !parser.is_done())
        return;
    bench.answer(requestOf(parser.get()));
    require(bench.jobs.count == 0, "a job without a token");
}

void sendBody(Bench &bench, std::size_t route, std::string body)
{
    // The fuzzer cannot know the key, so it writes a letter in its place.
    const std::string place = "\"K\"";
    const std::size_t at = body.find(place);
    if (at != std::string::npos)
        body.replace(at, place.size(), '"' + bench.key + '"');
    Request request;
    request.method = "POST";
    request.target = std::string("/api/v1/") + routes[route % std::size(routes)];
    request.host = host;
    request.origin = origin;
    request.contentType = "application/json";
    request.authorization = "Bearer " + bench.token;
    request.body = std::move(body);
    bench.answer(std::move(request));
}

} // namespace

// NOLINTNEXTLINE(readability-identifier-naming): the name that libFuzzer calls
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    if (size == 0)
        return 0;
    Bench bench;
    const std::string rest(reinterpret_cast<const char *>(data) + 1, size - 1);
    if (data[0] == 0)
        sendBytes(bench, rest);
    else
        sendBody(bench, data[0] - 1U, rest);
    return 0;
}
