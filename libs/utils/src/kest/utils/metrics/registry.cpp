#include "registry.h"

#include <algorithm>

#include <kest/utils/assert.h>

namespace kest::utils::metrics {

namespace {

/** Name and labels in one key: a NUL cannot occur in a valid name. */
std::string seriesKey(std::string_view name, const Labels& labels)
{
    std::string key(name);
    for (const auto& [labelName, value] : labels) {
        key.push_back('\0');
        key.append(labelName).push_back('\0');
        key.append(value);
    }
    return key;
}

}  // namespace

Registry::Registry() = default;
Registry::~Registry() = default;

Counter& Registry::counter(std::string_view name, std::string_view help, Labels labels)
{
    std::lock_guard lock(m_mutex);
    auto& slot = m_counters[seriesKey(name, labels)];
    if (!slot) {
        slot = std::make_unique<Counter>();
        addSource(name, help, MetricType::counter,
                  [counter = slot.get(), labels = std::move(labels)](TextWriter& writer) {
                      writer.sample(labels, counter->value());
                  });
    }
    return *slot;
}

Histogram& Registry::histogram(std::string_view name, std::string_view help,
                               std::vector<double> upperBounds, Labels labels)
{
    std::lock_guard lock(m_mutex);
    auto& slot = m_histograms[seriesKey(name, labels)];
    if (!slot) {
        slot = std::make_unique<Histogram>(std::move(upperBounds));
        addSource(name, help, MetricType::histogram,
                  [histogram = slot.get(), labels = std::move(labels)](TextWriter& writer) {
                      writer.histogram(labels, histogram->snapshot());
                  });
    }
    return *slot;
}

Registration Registry::gauge(std::string_view name, std::string_view help,
                             std::function<double()> read, Labels labels)
{
    std::lock_guard lock(m_mutex);
    return Registration(
        this, addSource(name, help, MetricType::gauge,
                        [read = std::move(read), labels = std::move(labels)](TextWriter& writer) {
                            writer.sample(labels, read());
                        }));
}

Registration Registry::counterFunction(std::string_view name, std::string_view help,
                                       std::function<std::uint64_t()> read, Labels labels)
{
    std::lock_guard lock(m_mutex);
    return Registration(
        this, addSource(name, help, MetricType::counter,
                        [read = std::move(read), labels = std::move(labels)](TextWriter& writer) {
                            writer.sample(labels, read());
                        }));
}

Registration Registry::collector(std::string_view name, std::string_view help, MetricType type,
                                 Collector collect)
{
    std::lock_guard lock(m_mutex);
    return Registration(this, addSource(name, help, type, std::move(collect)));
}

std::uint64_t Registry::addSource(std::string_view name, std::string_view help, MetricType type,
                                  Collector collect)
{
    // A source that fails these checks is kept out of the output, which stays readable.
    if (!KEST_ASSERT(TextWriter::isValidMetricName(name),
                     "Invalid metric name: " + std::string(name))) {
        return m_nextId++;
    }
    auto family = std::find_if(m_families.begin(), m_families.end(),
                               [name](const Family& family) { return family.name == name; });
    if (family == m_families.end()) {
        family = m_families.insert(m_families.end(),
                                   Family{std::string(name), std::string(help), type, {}});
    }
    // One name with two types would make the whole output unreadable to a scraper.
    if (!KEST_ASSERT(family->type == type,
                     "Metric " + std::string(name) + " registered as two types")) {
        return m_nextId++;
    }
    const std::uint64_t id = m_nextId++;
    family->sources.push_back(Source{id, std::move(collect)});
    return id;
}

void Registry::remove(std::uint64_t id)
{
    // Destroyed after the lock is released: a function may hold the last reference to
    // something whose destructor takes locks of its own.
    Collector removed;
    std::lock_guard lock(m_mutex);
    for (auto& family : m_families) {
        const auto it = std::find_if(family.sources.begin(), family.sources.end(),
                                     [id](const Source& source) { return source.id == id; });
        if (it != family.sources.end()) {
            removed = std::move(it->collect);
            family.sources.erase(it);
            return;
        }
    }
}

std::string Registry::exposition() const
{
    TextWriter writer;
    std::lock_guard lock(m_mutex);
    for (const auto& family : m_families) {
        if (family.sources.empty())
            continue;
        writer.beginFamily(family.name, family.help, family.type);
        for (const auto& source : family.sources)
            source.collect(writer);
    }
    return writer.takeText();
}

}  // namespace kest::utils::metrics
