#pragma once

#include "command.h"
#include "events.h"
#include "faulttexts.h"
#include "history.h"

#include <gripper/image.h>

#include <chrono>
#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace gateway {

using Clock = std::chrono::steady_clock;

/// One look at the line.
struct Reading
{
    gripper::ReadingTime time;
    std::optional<gripper::LineImage> line; ///< empty if the daemon does not answer
    std::string problem;                    ///< the cause then
    std::vector<gripper::Image> images;     ///< of the listed grippers
};

enum class LineCondition {
    Connecting, ///< no reading yet
    Connected,  ///< the last access to a gripper succeeded
    Scanning,   ///< the daemon looks for grippers
    TimedOut,   ///< a gripper stopped answering
    Gone,       ///< the serial port vanished or failed
    Upgrading,  ///< a flasher has the line
    NoDaemon    ///< the daemon does not answer
};

const char *nameOf(LineCondition condition);

struct LineView
{
    LineCondition condition = LineCondition::Connecting;
    std::string text;
    gripper::ReadingTime since;
    std::optional<Clock::time_point> valueAt; ///< of the last value of any gripper
    bool isStale = true;
    std::optional<std::string> version; ///< of the daemon
};

struct GripperView
{
    gripper::Image image; ///< the last values
    bool isPresent = true;
    bool isStale = false;
    std::optional<Clock::time_point> missingSince;
    Clock::time_point valueAt;
    std::optional<int> request; ///< the position that this gateway requested last
    std::optional<Clock::time_point> otherCommandAt;
    bool isCommandedByOther = false; ///< lately
    std::uint64_t version = 0;       ///< of the picture, when this view changed last
};

/// The one picture of the line. It holds what the readings show and finds the events in them. It
/// does no input or output and reads no clock. Faces read it, and see by its version what has
/// changed.
class Picture
{
public:
    static constexpr std::chrono::milliseconds staleAfter{1000};
    static constexpr std::chrono::seconds otherCommandShown{10};
    static constexpr std::chrono::minutes forgetMissingAfter{10};
    /// The gripper shows a command of ours at most this long after the end of its call.
    static constexpr std::chrono::seconds echoTime{1};

    Picture(FaultTexts faultTexts, const gripper::ReadingTime &start);

    void take(const Reading &reading);
    /// Does what only the passing of time causes: values become stale.
    void advance(const gripper::ReadingTime &now);

    /// Between these two calls, and shortly after, this gateway changes the request as the command
    /// says. The command has a gripper.
    void beginCommand(const Command &command);
    void endCommand(int id, Clock::time_point now);

    void addEvent(Event event, const gripper::ReadingTime &time);

    const LineView &line() const { return m_line; }
    const std::map<int, GripperView> &grippers() const { return m_grippers; }
    const History *history(int id) const;
    const EventLog &events() const { return m_events; }
    const gripper::ReadingTime &start() const { return m_start; }
    std::optional<std::string> faultText(const gripper::Image &image) const;

    /// Grows with every change of the line or a gripper.
    std::uint64_t version() const { return m_version; }
    std::uint64_t lineVersion() const { return m_lineVersion; }
    /// The grippers that left the picture, with the version that left them out.
    const std::map<int, std::uint64_t> &removed() const { return m_removed; }

private:
    struct OwnCommand
    {
        int running = 0;
        std::set<int> positions;      ///< of the movements, also of those that a later one replaced
        bool changesPosition = false; ///< to one that is not known
        Clock::time_point end;
    };

    void setLine(LineView line);
    void takeImage(const gripper::Image &image);
    void takeList(const std::vector<int> &listed, const gripper::ReadingTime &time);
    void removeFormerIdOf(const gripper::Image &image);
    void findEvents(const GripperView &view, const gripper::Image &next);
    void findFault(const gripper::Image &before, const gripper::Image &next);
    void findObject(const gripper::Image &before, const gripper::Image &next);
    bool isOwnCommand(const gripper::Image &before, const gripper::Image &next) const;
    void addGripperEvent(EventKind kind, const gripper::Image &image, const std::string &text);
    void setStale(GripperView &view, bool isStale);
    void remove(std::map<int, GripperView>::iterator gripper);
    std::chrono::milliseconds sinceStart(Clock::time_point time) const;

    FaultTexts m_faultTexts;
    gripper::ReadingTime m_start;
    LineView m_line;
    std::map<int, GripperView> m_grippers;
    std::map<int, History> m_histories;
    std::map<int, OwnCommand> m_ownCommands;
    std::map<int, std::uint64_t> m_removed;
    EventLog m_events;
    std::uint64_t m_version = 1;
    std::uint64_t m_lineVersion = 1;
};

} // namespace gateway
