// The metrics: what they say of a picture, and what they count in the readings.
#include "assertions.h"
#include "views.h"

#include <metrics.h>

#include <sstream>
#include <string>
#include <vector>

using namespace gateway;
using namespace std::chrono_literals;
using views::at;
using views::image;
using views::reading;

namespace {

/// A line whose readings are 50 ms apart.
struct Scraped
{
    Picture picture{{}, at(0ms)};
    Metrics metrics;
    std::chrono::milliseconds now{0};

    explicit Scraped(std::vector<int> expected = {})
        : metrics(picture, std::move(expected))
    {
    }

    void take(const Reading &next)
    {
        picture.take(next);
        metrics.observe();
    }

    void take(const std::vector<gripper::Image> &images)
    {
        take(reading(now, images));
        now += 50ms;
    }

    std::string text() const { return metrics.text(at(now).monotonic); }

    /// The lines that begin with these words, without those of comments.
    std::string lines(const std::string &begin) const
    {
        std::istringstream all(text());
        std::string found;
        for (std::string line; std::getline(all, line);) {
            if (line.rfind(begin, 0) == 0)
                found += line + '\n';
        }
        return found;
    }

    bool has(const std::string &line) const { return lines(line) == line + '\n'; }

    /// The value of gripper_moves_total of gripper 9.
    int moves(const std::string &result) const
    {
        const std::string begin = R"(gripper_moves_total{id="9",result=")" + result + "\"} ";
        return std::stoi(lines(begin).substr(begin.size()));
    }
};

gripper::Image going(int target, gripper::Image next = image())
{
    next.requestedPosition = target;
    next.object = 1;
    return next;
}

gripper::Image with(int object, gripper::Image next)
{
    next.object = object;
    return next;
}

/// A line on which gripper 9 has begun to move to 80.
struct Going : Scraped
{
    Going()
    {
        take({image()});
        take({going(80)});
    }
};

} // namespace

TEST(aRunningLine)
{
    Scraped line({2, 9});
    gripper::Image fingers = image();
    fingers.position = 51;
    fingers.current = 255;
    fingers.cycles = 4294967295;
    fingers.pumpSeconds = 5;
    fingers.productionYear = 2021;
    gripper::Image vacuum = image(2);
    vacuum.cycles = 1;
    vacuum.pumpSeconds = 2;
    vacuum.pumpStarts = 3;
    vacuum.fault = 12;
    line.take({vacuum, fingers});
    CHECK(line.lines("gripperd_") == R"(gripperd_up 1
gripperd_info{version="MZV-2.0.0"} 1
gripperd_grippers 2
gripperd_upgrade_running 0
gripperd_link_state{state="connecting"} 0
gripperd_link_state{state="connected"} 1
gripperd_link_state{state="scanning"} 0
gripperd_link_state{state="timed-out"} 0
gripperd_link_state{state="gone"} 0
gripperd_link_state{state="upgrading"} 0
gripperd_link_state{state="no-daemon"} 0
gripperd_value_age_seconds 0.05
)");
    CHECK(line.lines("gripper_info") ==
          R"(gripper_info{id="2",serial="SIM-2",firmware="TE1-2.0.2",family="Zentra",year=""} 1
gripper_info{id="9",serial="SIM-9",firmware="TA3-1.6.14",family="Pello",year="2021"} 1
)");
    CHECK(line.has(R"(gripper_active{id="9"} 1)"));
    CHECK(line.has(R"(gripper_position_ratio{id="9"} 0.2)"));
    CHECK(line.has(R"(gripper_motor_current_ratio{id="9"} 1)"));
    CHECK(line.lines("gripper_fault_code") == R"(gripper_fault_code{id="2"} 12
gripper_fault_code{id="9"} 0
)");
    CHECK(line.lines(R"(gripper_object_state{id="9")") ==
          R"(gripper_object_state{id="9",state="none"} 0
gripper_object_state{id="9",state="moving"} 0
gripper_object_state{id="9",state="met"} 0
gripper_object_state{id="9",state="reached"} 1
)");
    CHECK(line.lines("gripper_cycles_total") == R"(gripper_cycles_total{id="2"} 1
gripper_cycles_total{id="9"} 4294967295
)");
    // Fingers have no pump.
    CHECK(line.lines("gripper_pump") == R"(gripper_pump_seconds_total{id="2"} 2
gripper_pump_starts_total{id="2"} 3
)");
    CHECK(line.lines("gripper_missing") == R"(gripper_missing{id="2"} 0
gripper_missing{id="9"} 0
)");
}

TEST(everyCounterBeginsAtZero)
{
    Scraped line;
    line.take({image()});
    for (const char *result :
         {"arrived", "object", "leak", "stopped", "replaced", "failed", "unknown"})
        CHECK(line.moves(result) == 0);
    CHECK(line.has(R"(gripper_objects_lost_total{id="9"} 0)"));
    CHECK(line.has(R"(gripper_move_duration_seconds_count{id="9"} 0)"));
    CHECK(line.has(R"(gripper_faults_total{id="9",code="1"} 0)"));
    CHECK(line.has(R"(gripper_faults_total{id="9",code="15"} 0)"));
}

TEST(aDaemonThatIsGone)
{
    Scraped line({9});
    line.take({image()});
    Reading gone;
    gone.time = at(50ms);
    line.take(gone);
    CHECK(line.has("gripperd_up 0"));
    CHECK(line.has("gripperd_grippers 0"));
    CHECK(line.has(R"(gripperd_link_state{state="no-daemon"} 1)"));
    CHECK(line.lines("gripperd_info").empty());
    // Old values do not show as present ones. Counters stay.
    CHECK(line.lines("gripper_position_ratio").empty());
    CHECK(line.lines("gripper_object_state").empty());
    CHECK(line.has(R"(gripper_missing{id="9"} 1)"));
    CHECK(line.moves("arrived") == 0);
}

TEST(nothingIsKnownBeforeTheFirstReading)
{
    const Scraped line({9});
    CHECK(line.has("gripperd_up 0"));
    CHECK(line.has(R"(gripperd_link_state{state="connecting"} 1)"));
    CHECK(line.lines("gripperd_value_age_seconds").empty());
    CHECK(line.has(R"(gripper_missing{id="9"} 1)"));
}

TEST(anUpgradeShows)
{
    Scraped line;
    Reading upgrading = reading(0ms, {image()});
    upgrading.line->upgrading = true;
    line.take(upgrading);
    CHECK(line.has("gripperd_up 1"));
    CHECK(line.has("gripperd_upgrade_running 1"));
    CHECK(line.has(R"(gripperd_link_state{state="upgrading"} 1)"));
}

TEST(anExpectedGripperIsMissing)
{
    Scraped line({2, 9});
    line.take({image()});
    CHECK(line.has(R"(gripper_missing{id="2"} 1)"));
    CHECK(line.has(R"(gripper_missing{id="9"} 0)"));
    line.take({image(2)});
    CHECK(line.has(R"(gripper_missing{id="2"} 0)"));
    CHECK(line.has(R"(gripper_missing{id="9"} 1)"));
    CHECK(line.lines(R"(gripper_info{id="9")").empty());
}

TEST(theIdsAreThoseOfAScan)
{
    Scraped line;
    line.take({image(10), image(247)});
    CHECK(line.lines("gripper_").empty());
}

TEST(textsOfTheDeviceDoNotSpoilTheScrape)
{
    Scraped line;
    gripper::Image odd = image();
    odd.serialNumber = "a\"b\\c\nd\xff" + std::string(100, 'e');
    line.take({odd});
    CHECK(!line.lines(R"(gripper_info{id="9",serial="a\"b\\c?d?)" + std::string(56, 'e') + "\",")
               .empty());
}

TEST(aMovementArrives)
{
    Going line;
    CHECK(line.moves("arrived") == 0);
    line.take({going(80)});
    line.take({with(3, going(80))});
    line.take({with(3, going(80))});
    CHECK(line.moves("arrived") == 1);
    CHECK(line.has(R"(gripper_move_duration_seconds_count{id="9"} 1)"));
    CHECK(line.has(R"(gripper_move_duration_seconds_sum{id="9"} 0.1)"));
    CHECK(line.has(R"(gripper_move_duration_seconds_bucket{id="9",le="0.1"} 1)"));
    CHECK(line.has(R"(gripper_move_duration_seconds_bucket{id="9",le="+Inf"} 1)"));
}

TEST(aMovementBetweenTwoReadingsCounts)
{
    Scraped line;
    line.take({image()});
    line.take({with(3, going(11))});
    CHECK(line.moves("arrived") == 1);
}

TEST(aMovementMeetsAnObjectAndLosesItOnce)
{
    Going line;
    line.take({with(2, going(80))});
    line.take({with(2, going(80))});
    CHECK(line.moves("object") == 1);
    CHECK(line.has(R"(gripper_objects_lost_total{id="9"} 0)"));
    // The fingers continue without a new request.
    line.take({going(80)});
    line.take({with(3, going(80))});
    CHECK(line.has(R"(gripper_objects_lost_total{id="9"} 1)"));
    CHECK(line.moves("arrived") == 0);
}

TEST(aVacuumGripperHoldsOrLeaks)
{
    for (const int vacuum : {2, 3}) {
        Scraped line;
        line.take({image(2)});
        gripper::Image next = going(100, image(2));
        line.take({next});
        next.vacuumStatus = vacuum;
        next.object = vacuum == 2 ? 3 : 2;
        line.take({next});
        CHECK(line.has(R"(gripper_moves_total{id="2",result="object"} )" +
                       std::to_string(vacuum == 2 ? 1 : 0)));
        CHECK(line.has(R"(gripper_moves_total{id="2",result="leak"} )" +
                       std::to_string(vacuum == 3 ? 1 : 0)));
    }
}

TEST(aNewRequestReplacesAMovement)
{
    Going line;
    line.take({going(90)});
    line.take({with(3, going(90))});
    CHECK(line.moves("replaced") == 1 && line.moves("arrived") == 1);
    CHECK(line.has(R"(gripper_move_duration_seconds_count{id="9"} 1)"));
}

TEST(aMovementIsStopped)
{
    Going line;
    gripper::Image stopped = with(0, going(80));
    stopped.goTo = false;
    line.take({stopped});
    CHECK(line.moves("stopped") == 1);
    line.take({going(80)});
    line.take({with(3, going(80))});
    CHECK(line.moves("arrived") == 1);
}

TEST(aGripperThatRestartsFailsItsMovement)
{
    Going line;
    gripper::Image restarted = with(0, image());
    restarted.status = 0;
    restarted.goTo = false;
    restarted.requestedPosition = 0;
    line.take({restarted});
    CHECK(line.moves("failed") == 1);
    // The activation is no movement, but the request that waits for its end is one.
    gripper::Image activating = going(80);
    activating.status = 1;
    line.take({activating});
    CHECK(line.moves("replaced") == 0);
    line.take({going(80)});
    line.take({with(3, going(80))});
    CHECK(line.moves("arrived") == 1);
}

TEST(theEndOfAMovementWithoutValuesIsUnknown)
{
    Going line;
    line.take(views::lineReading(line.now, "ERR_TIMEOUT"));
    CHECK(line.moves("unknown") == 1);
    line.now += 50ms;
    // The next values may belong to a movement that began at any time.
    line.take({going(90)});
    line.take({with(3, going(90))});
    CHECK(line.moves("arrived") == 0);
    line.take({going(10)});
    line.take({with(3, going(10))});
    CHECK(line.moves("arrived") == 1);
}

TEST(aFaultCountsOnceByItsCode)
{
    Scraped line;
    line.take({image()});
    gripper::Image faulty = image();
    faulty.fault = 12;
    line.take({faulty});
    line.take({faulty});
    line.take({image()});
    line.take({faulty});
    CHECK(line.has(R"(gripper_faults_total{id="9",code="12"} 2)"));
    CHECK(line.has(R"(gripper_faults_total{id="9",code="13"} 0)"));
    faulty.fault = 28;
    line.take({faulty});
    CHECK(line.has(R"(gripper_faults_total{id="9",code="12"} 2)"));
}

TEST(aReadingIsCountedOnce)
{
    Going line;
    line.take({with(3, going(80))});
    line.metrics.observe();
    line.picture.advance(at(5s));
    line.metrics.observe();
    CHECK(line.moves("arrived") == 1);
}

int main()
{
    return runTests();
}
