#include "metrics.h"

#include "families.h"
#include "grip.h"
#include "movewatch.h"

#include <prometheus/histogram.h>
#include <prometheus/metric_family.h>
#include <prometheus/text_serializer.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <utility>

namespace gateway {

namespace {

using gripper::Image;
using prometheus::ClientMetric;
using prometheus::MetricFamily;
using prometheus::MetricType;
using Labels = std::vector<ClientMetric::Label>;

constexpr int minId = 1;
constexpr int maxId = 9;
constexpr double fullScale = 255;
constexpr int faultCodes = 16; ///< 0 is no fault
constexpr std::size_t maxLabelLength = 64;

const prometheus::Histogram::BucketBoundaries &durationBounds()
{
    static const prometheus::Histogram::BucketBoundaries bounds{0.1, 0.2, 0.3, 0.5, 0.75, 1,
                                                                1.5, 2,   3,   5,   10};
    return bounds;
}

constexpr std::array<LineCondition, 7> conditions{
    LineCondition::Connecting, LineCondition::Connected, LineCondition::Scanning,
    LineCondition::TimedOut,   LineCondition::Gone,      LineCondition::Upgrading,
    LineCondition::NoDaemon};

bool isKnownId(int id)
{
    return id >= minId && id <= maxId;
}

/// A text of the device as a label. A single byte that is not UTF-8 would spoil the whole scrape.
std::string labelOf(const std::optional<std::string> &text)
{
    std::string label = text.value_or(std::string()).substr(0, maxLabelLength);
    std::replace_if(
        label.begin(), label.end(),
        [](char character) { return character < ' ' || character > '~'; }, '?');
    return label;
}

Labels labelsOf(int id)
{
    return {{"id", std::to_string(id)}};
}

Labels labelsOf(int id, const char *name, std::string value)
{
    return {{"id", std::to_string(id)}, {name, std::move(value)}};
}

/// The metrics in the order of their names in the answer.
class Exposition
{
public:
    void begin(MetricType type, const char *name, const char *help)
    {
        m_families.push_back({name, help, type, {}});
    }

    void add(double value, Labels labels = {})
    {
        ClientMetric metric;
        metric.label = std::move(labels);
        if (m_families.back().type == MetricType::Counter)
            metric.counter.value = value;
        else
            metric.gauge.value = value;
        m_families.back().metric.push_back(std::move(metric));
    }

    void add(ClientMetric metric, Labels labels)
    {
        metric.label = std::move(labels);
        m_families.back().metric.push_back(std::move(metric));
    }

    std::string text() const { return prometheus::TextSerializer().Serialize(m_families); }

private:
    std::vector<MetricFamily> m_families;
};

/// The events of one slave id since the start of the gateway.
struct Counts
{
    MoveWatch watch;
    std::array<std::uint64_t, moveResultNames.size()> moves{};
    prometheus::Histogram durations{durationBounds()};
    std::uint64_t objectsLost = 0;
    std::array<std::uint64_t, faultCodes> faults{};

    void add(const std::vector<EndedMove> &ended)
    {
        for (const EndedMove &move : ended) {
            ++moves.at(static_cast<std::size_t>(move.result));
            if (move.result == MoveResult::Arrived || move.result == MoveResult::Object)
                durations.Observe(move.duration.count());
        }
    }
};

using AllCounts = std::map<int, Counts>;

struct ValueRow
{
    MetricType type;
    const char *name;
    const char *help;
    std::optional<double> (*valueOf)(const Image &);
};

template <typename Value>
std::optional<double> number(const std::optional<Value> &value)
{
    return value ? std::optional<double>(static_cast<double>(*value)) : std::nullopt;
}

std::optional<double> ratio(const std::optional<int> &value)
{
    return value ? std::optional<double>(*value / fullScale) : std::nullopt;
}

constexpr std::array<ValueRow, 4> presentValues{{
    {MetricType::Gauge, "gripper_active", "Whether the gripper is active.",
     [](const Image &image) { return number(image.active); }},
    {MetricType::Gauge, "gripper_position_ratio",
     "The measured position from 0 (open) to 1 (closed), or the vacuum level.",
     [](const Image &image) { return ratio(image.position); }},
    {MetricType::Gauge, "gripper_motor_current_ratio",
     "The motor current as a share of the greatest value.",
     [](const Image &image) { return ratio(image.current); }},
    {MetricType::Gauge, "gripper_fault_code", "The fault code of the gripper. 0 is no fault.",
     [](const Image &image) { return number(image.fault); }},
}};

/// The gripper itself counts these.
constexpr std::array<ValueRow, 3> lifetimeValues{{
    {MetricType::Counter, "gripper_cycles_total", "The cycles of the gripper in its lifetime.",
     [](const Image &image) { return number(image.cycles); }},
    {MetricType::Counter, "gripper_pump_seconds_total",
     "The time that the pump has run in its lifetime.",
     [](const Image &image) { return isVacuum(image) ? number(image.pumpSeconds) : std::nullopt; }},
    {MetricType::Counter, "gripper_pump_starts_total", "The starts of the pump in its lifetime.",
     [](const Image &image) { return isVacuum(image) ? number(image.pumpStarts) : std::nullopt; }},
}};

} // namespace

struct Metrics::Parts
{
    Parts(const Picture &shown, std::vector<int> expectedIds)
        : picture(shown)
        , expected(std::move(expectedIds))
        , lastEvent(shown.events().lastNumber())
    {
    }

    /// Visits the grippers of the picture that have time series.
    template <typename Visit>
    void forEachGripper(Visit visit) const
    {
        for (const auto &[id, view] : picture.grippers()) {
            if (isKnownId(id))
                visit(id, view);
        }
    }

    void countEvents()
    {
        for (const Event &event : picture.events().events()) {
            if (event.number <= lastEvent || !event.gripper || !isKnownId(*event.gripper))
                continue;
            Counts &count = counts[*event.gripper];
            const int code = event.code.value_or(0);
            if (event.kind == EventKind::ObjectLost)
                ++count.objectsLost;
            else if (event.kind == EventKind::Fault && code > 0 && code < faultCodes)
                ++count.faults.at(static_cast<std::size_t>(code));
        }
        lastEvent = picture.events().lastNumber();
    }

    void addLine(Exposition &out, Clock::time_point now) const
    {
        const LineView &line = picture.line();
        const bool isUp = line.condition != LineCondition::Connecting &&
                          line.condition != LineCondition::NoDaemon;
        out.begin(MetricType::Gauge, "gripperd_up", "Whether the daemon answers.");
        out.add(isUp ? 1 : 0);
        out.begin(MetricType::Gauge, "gripperd_info", "The daemon. The value is 1.");
        if (isUp)
            out.add(1, {{"version", labelOf(line.version)}});
        out.begin(MetricType::Gauge, "gripperd_grippers", "The grippers that give values.");
        out.add(static_cast<double>(
            std::count_if(picture.grippers().begin(), picture.grippers().end(),
                          [](const auto &entry) { return !entry.second.isStale; })));
        out.begin(MetricType::Gauge, "gripperd_upgrade_running",
                  "Whether a firmware upgrade has the line.");
        out.add(line.condition == LineCondition::Upgrading ? 1 : 0);
        out.begin(MetricType::Gauge, "gripperd_link_state",
                  "1 for the present state of the link to the grippers, 0 for the others.");
        for (const LineCondition condition : conditions)
            out.add(line.condition == condition ? 1 : 0, {{"state", nameOf(condition)}});
        out.begin(MetricType::Gauge, "gripperd_value_age_seconds",
                  "The time since the last value of any gripper.");
        if (line.valueAt)
            out.add(std::chrono::duration<double>(now - *line.valueAt).count());
    }

    void addMissing(Exposition &out) const
    {
        out.begin(MetricType::Gauge, "gripper_missing",
                  "Whether an expected gripper gives no values.");
        for (const int id : expected) {
            const auto gripper = picture.grippers().find(id);
            const bool hasValues = gripper != picture.grippers().end() && !gripper->second.isStale;
            out.add(hasValues ? 0 : 1, labelsOf(id));
        }
    }

    void addIdentities(Exposition &out) const
    {
        out.begin(MetricType::Gauge, "gripper_info", "The identity of a gripper. The value is 1.");
        forEachGripper([&](int id, const GripperView &view) {
            if (!view.isPresent)
                return;
            const Image &image = view.image;
            const Family *family = familyOf(image.firmware);
            const auto year = image.productionYear;
            out.add(1, {{"id", std::to_string(id)},
                        {"serial", labelOf(image.serialNumber)},
                        {"firmware", labelOf(image.firmware)},
                        {"family", family == nullptr ? "" : family->name},
                        {"year", year ? std::to_string(*year) : ""}});
        });
    }

    /// Old values are no values: a scrape has none for a gripper that shows none.
    void addValues(Exposition &out) const
    {
        for (const ValueRow &row : presentValues) {
            out.begin(row.type, row.name, row.help);
            forEachGripper([&](int id, const GripperView &view) {
                const auto value = row.valueOf(view.image);
                if (value && !view.isStale)
                    out.add(*value, labelsOf(id));
            });
        }
        out.begin(MetricType::Gauge, "gripper_object_state",
                  "1 for the present state of the object detection, 0 for the others.");
        forEachGripper([&](int id, const GripperView &view) {
            for (std::size_t i = 0; i < objectNames.size() && !view.isStale; ++i) {
                out.add(view.image.object == static_cast<int>(i) ? 1 : 0,
                        labelsOf(id, "state", objectNames.at(i)));
            }
        });
        for (const ValueRow &row : lifetimeValues) {
            out.begin(row.type, row.name, row.help);
            forEachGripper([&](int id, const GripperView &view) {
                if (const auto value = row.valueOf(view.image))
                    out.add(*value, labelsOf(id));
            });
        }
    }

    void addCounts(Exposition &out) const
    {
        out.begin(MetricType::Counter, "gripper_moves_total",
                  "The movements that ended, by result.");
        for (const auto &[id, count] : counts) {
            for (std::size_t i = 0; i < moveResultNames.size(); ++i)
                out.add(static_cast<double>(count.moves.at(i)),
                        labelsOf(id, "result", moveResultNames.at(i)));
        }
        out.begin(MetricType::Histogram, "gripper_move_duration_seconds",
                  "The duration of movements that ended at the position or at an object.");
        for (const auto &[id, count] : counts)
            out.add(count.durations.Collect(), labelsOf(id));
        out.begin(MetricType::Counter, "gripper_objects_lost_total",
                  "The parts that the gripper lost without a request.");
        for (const auto &[id, count] : counts)
            out.add(static_cast<double>(count.objectsLost), labelsOf(id));
        // The codes exist from the start, because an increase needs a former value.
        out.begin(MetricType::Counter, "gripper_faults_total", "The faults that began, by code.");
        for (const auto &[id, count] : counts) {
            for (int code = 1; code < faultCodes; ++code)
                out.add(static_cast<double>(count.faults.at(static_cast<std::size_t>(code))),
                        labelsOf(id, "code", std::to_string(code)));
        }
    }

    const Picture &picture;
    std::vector<int> expected;
    AllCounts counts;
    std::uint64_t lastEvent;
};

Metrics::Metrics(const Picture &picture, std::vector<int> expected)
    : m_parts(std::make_unique<Parts>(picture, std::move(expected)))
{
}

Metrics::~Metrics() = default;

void Metrics::observe()
{
    Parts &parts = *m_parts;
    parts.forEachGripper([&](int id, const GripperView &view) {
        Counts &count = parts.counts[id];
        count.add(view.isStale ? count.watch.interrupt() : count.watch.take(view.image));
    });
    parts.countEvents();
}

std::string Metrics::text(Clock::time_point now) const
{
    Exposition out;
    m_parts->addLine(out, now);
    m_parts->addMissing(out);
    m_parts->addIdentities(out);
    m_parts->addValues(out);
    m_parts->addCounts(out);
    return out.text();
}

} // namespace gateway
