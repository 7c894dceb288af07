#pragma once

#include "gripper/connection.h"
#include "gripper/image.h"

#include <cstddef>
#include <deque>
#include <iterator>
#include <map>
#include <optional>
#include <string>
#include <variant>
#include <vector>

namespace gripper {

/// A time without values.
struct Outage
{
    enum class Reason {
        NoConnection, ///< the daemon does not answer; `text` has the cause
        LinkDown,     ///< the daemon has no working line; `text` is the value of DRI
        Missing       ///< the line runs, but the daemon does not list the gripper
    };

    Reason reason = Reason::NoConnection;
    int id = 0;        ///< the gripper; 0 if no gripper is known
    std::string text;  ///< the cause, for people
    ReadingTime time;  ///< of this observation
    ReadingTime since; ///< the first observation of this outage. It stays the same until it ends
};

/// A report of a watch.
using WatchItem = std::variant<Image, Outage>;

/// Reads grippers periodically, with one packet and one connection for each. It reports an item for
/// each gripper and period: an image, or an outage as long as it lasts. It connects again by
/// itself, and never commands a gripper. It keeps no backlog: after a slow consumer, the next item
/// is new.
///
///     for (const gripper::WatchItem &item : line.watch())
///         if (const auto *image = std::get_if<gripper::Image>(&item))
///             std::printf("%d\n", image->position.value_or(-1));
class Watch
{
public:
    /// Watches `ids`, or all grippers that the daemon lists if `ids` is empty. A gripper that was
    /// listed once is watched until the end. `rate` is the number of periods per second, more than
    /// 0 and at most 1000. Throws InvalidValue, also for an id that is not from 1 to 9. Connects in
    /// next().
    Watch(Endpoint endpoint, Options options, const std::vector<int> &ids, double rate);

    /// Waits for the next item. An outage is an item, never an exception; only Options::onWaiting
    /// can end this call by an exception. Waits at most one period, and Options::timeout for each
    /// gripper that does not answer.
    WatchItem next();

    /// Whether next() has returned all items of the present period. The next call then waits.
    bool isPeriodOver() const noexcept { return m_items.empty(); }

    /// An input iterator without an end: a loop ends by `break`.
    class Iterator
    {
    public:
        using iterator_category = std::input_iterator_tag;
        using value_type = WatchItem;
        using difference_type = std::ptrdiff_t;
        using pointer = const WatchItem *;
        using reference = const WatchItem &;

        explicit Iterator(Watch *watch = nullptr);
        reference operator*() const { return *m_item; }
        pointer operator->() const { return &*m_item; }
        Iterator &operator++();
        void operator++(int) { ++*this; }
        bool operator==(const Iterator &other) const { return m_watch == other.m_watch; }
        bool operator!=(const Iterator &other) const { return m_watch != other.m_watch; }

    private:
        Watch *m_watch;
        std::optional<WatchItem> m_item;
    };

    Iterator begin() { return Iterator(this); }
    Iterator end() { return Iterator(); }

private:
    struct Watched
    {
        Connection connection;
        std::optional<Outage> outage;
    };

    void waitForPeriod();
    void readAll();
    void findGrippers();
    WatchItem read(int id, Watched &watched);
    static Outage outage(int id, std::optional<Outage> &present, Outage::Reason reason,
                         const std::string &text);
    void watchAlso(int id);

    Connection m_connection; ///< for the list of grippers
    std::optional<Outage> m_outage;
    bool m_watchesAll;
    Seconds m_period;
    std::optional<Deadline::Clock::time_point> m_next;
    std::map<int, Watched> m_grippers;
    std::deque<WatchItem> m_items; ///< of this period
};

} // namespace gripper
