#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "counter.h"
#include "histogram.h"
#include "registration.h"
#include "text_writer.h"

namespace kest::utils::metrics {

/**
 * The metrics of one service, written out on demand in the Prometheus text format. Counters and
 * histograms that the registry owns are made at start-up and then updated lock-free by whoever
 * holds them; figures that other objects keep are read through functions at scrape time.
 *
 * Families come out in the order of their first registration, each with all its series. A
 * scrape holds the registry's lock while it calls the functions: they must not register.
 */
class Registry
{
public:
    /** Writes the samples of its family (the family is begun already). */
    using Collector = std::function<void(TextWriter&)>;

    Registry();
    ~Registry();
    Registry(const Registry&) = delete;
    Registry& operator=(const Registry&) = delete;

    /** The counter of this name and labels; made on the first call, the same one afterwards. */
    Counter& counter(std::string_view name, std::string_view help, Labels labels = {});
    /** The same for a histogram; later calls keep the bounds of the first. */
    Histogram& histogram(std::string_view name, std::string_view help,
                         std::vector<double> upperBounds, Labels labels = {});

    /** A value read at every scrape. */
    Registration gauge(std::string_view name, std::string_view help, std::function<double()> read,
                       Labels labels = {});
    /** A count kept elsewhere (it must only grow), read at every scrape. */
    Registration counterFunction(std::string_view name, std::string_view help,
                                 std::function<std::uint64_t()> read, Labels labels = {});
    /** Series whose label sets are known only at scrape time. */
    Registration collector(std::string_view name, std::string_view help, MetricType type,
                           Collector collect);

    /** Every family that has a source, in the text format. */
    std::string exposition() const;

private:
    friend class Registration;

    struct Source
    {
        std::uint64_t id = 0;
        Collector collect;
    };
    struct Family
    {
        std::string name;
        std::string help;
        MetricType type;
        std::vector<Source> sources;
    };

    /** Under the lock. */
    std::uint64_t addSource(std::string_view name, std::string_view help, MetricType type,
                            Collector collect);
    void remove(std::uint64_t id);

    mutable std::mutex m_mutex;
    std::vector<Family> m_families;
    std::map<std::string, std::unique_ptr<Counter>> m_counters;
    std::map<std::string, std::unique_ptr<Histogram>> m_histograms;
    std::uint64_t m_nextId = 1;
};

}  // namespace kest::utils::metrics
