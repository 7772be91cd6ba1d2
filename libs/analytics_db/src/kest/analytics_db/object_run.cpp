#include "object_run.h"

#include <array>
#include <limits>
#include <numeric>

#include "byte_reader.h"
#include "byte_writer.h"
#include "fixed_point.h"

namespace kest::analytics::db {

namespace {

// The flags of an object, written as a varint: the common ones below 128 take one byte.
constexpr std::uint32_t kDuration = 1 << 0;
constexpr std::uint32_t kAttributes = 1 << 1;
constexpr std::uint32_t kRawBox = 1 << 2;
constexpr std::uint32_t kKind = 1 << 3;
constexpr std::uint32_t kDevice = 1 << 4;
constexpr std::uint32_t kType = 1 << 5;
constexpr std::uint32_t kEngine = 1 << 6;
constexpr std::uint32_t kStream = 1 << 7;
/** The time did not fit beside the flag bit: it follows the flags in full. */
constexpr std::uint32_t kLongTime = 1 << 8;

/** Times whose zigzag form is below this fit in a varint beside the flag bit. */
constexpr std::uint64_t kShortTimeLimit = std::uint64_t{1} << 63;

/** How a coordinate is predicted from those before it. */
enum class Channel : std::uint8_t
{
    delta = 0,
    deltaOfDelta = 1,
    constant = 2,
};

constexpr int kChannels = 4;
constexpr int kTimeDeltaOfDelta = 1;

using Units = std::array<std::int64_t, kChannels>;

Units unitsOf(const common::metadata::Rect& box)
{
    return {FixedPoint::nearestUnits(box.x), FixedPoint::nearestUnits(box.y),
            FixedPoint::nearestUnits(box.width), FixedPoint::nearestUnits(box.height)};
}

std::optional<Units> exactUnitsOf(const common::metadata::Rect& box)
{
    const auto x = FixedPoint::units(box.x);
    const auto y = FixedPoint::units(box.y);
    const auto w = FixedPoint::units(box.width);
    const auto h = FixedPoint::units(box.height);
    if (!x || !y || !w || !h)
        return std::nullopt;
    return Units{*x, *y, *w, *h};
}

/** Modular, so that any two values give a delta that adds back exactly. */
std::int64_t minus(std::int64_t a, std::int64_t b)
{
    return static_cast<std::int64_t>(static_cast<std::uint64_t>(a) - static_cast<std::uint64_t>(b));
}
std::int64_t plus(std::int64_t a, std::int64_t b)
{
    return static_cast<std::int64_t>(static_cast<std::uint64_t>(a) + static_cast<std::uint64_t>(b));
}

std::int64_t predicted(Channel channel, std::int64_t previous, std::int64_t beforePrevious,
                       std::size_t index)
{
    if (channel == Channel::deltaOfDelta && index >= 2)
        return minus(plus(previous, previous), beforePrevious);
    return index == 0 ? 0 : previous;
}

std::uint64_t gcd(std::uint64_t a, std::uint64_t b)
{
    return std::gcd(a, b);
}

}  // namespace

std::string ObjectRun::encode(std::span<const ObjectRecord> records,
                              const std::vector<AttributeList>& lists, std::int64_t baseUs)
{
    std::string out;
    if (records.empty())
        return out;
    ByteWriter w(&out);
    const std::size_t n = records.size();

    // Scratch space kept by the thread: runs are encoded by the thousand.
    thread_local std::vector<Units> units;
    thread_local std::vector<char> raw;
    units.resize(n);
    raw.assign(n, 0);
    for (std::size_t i = 0; i < n; ++i) {
        const auto exact = exactUnitsOf(records[i].box);
        raw[i] = exact ? 0 : 1;
        units[i] = exact ? *exact : unitsOf(records[i].box);
    }

    // Time: the largest unit dividing every step, then plain deltas or deltas of deltas.
    std::uint64_t unit = 0;
    // Once it is 1 it stays 1: with clocks that jitter by a microsecond it is soon there.
    for (std::size_t i = 1; i < n && unit != 1; ++i) {
        const std::int64_t step = minus(records[i].timestampUs, records[i - 1].timestampUs);
        unit = gcd(unit, step < 0 ? 0 - static_cast<std::uint64_t>(step)
                                  : static_cast<std::uint64_t>(step));
    }
    if (unit == 0)
        unit = 1;
    std::int64_t deltaSize = 0, deltaOfDeltaSize = 0;
    {
        std::int64_t previousStep = 0;
        for (std::size_t i = 1; i < n; ++i) {
            const std::int64_t step = minus(records[i].timestampUs, records[i - 1].timestampUs) /
                                      static_cast<std::int64_t>(unit);
            deltaSize += ByteWriter::varintSize(ByteWriter::zigzag(step) << 1);
            deltaOfDeltaSize +=
                ByteWriter::varintSize(ByteWriter::zigzag(minus(step, previousStep)) << 1);
            previousStep = step;
        }
    }
    const bool timeDeltaOfDelta = deltaOfDeltaSize < deltaSize;

    // Each coordinate by the cheapest prediction.
    std::array<Channel, kChannels> channels{};
    for (int c = 0; c < kChannels; ++c) {
        std::int64_t sizes[2] = {0, 0};
        bool constant = true;
        for (std::size_t i = 1; i < n; ++i) {
            if (raw[i])
                continue;
            for (const Channel channel : {Channel::delta, Channel::deltaOfDelta}) {
                const std::int64_t guess =
                    predicted(channel, units[i - 1][c], i >= 2 ? units[i - 2][c] : 0, i);
                sizes[static_cast<int>(channel)] +=
                    ByteWriter::varintSize(ByteWriter::zigzag(minus(units[i][c], guess)));
            }
            constant = constant && units[i][c] == units[i - 1][c];
        }
        channels[c] = constant              ? Channel::constant
                      : sizes[1] < sizes[0] ? Channel::deltaOfDelta
                                            : Channel::delta;
    }

    std::uint64_t modes = timeDeltaOfDelta ? kTimeDeltaOfDelta : 0;
    for (int c = 0; c < kChannels; ++c)
        modes |= static_cast<std::uint64_t>(channels[c]) << (1 + 2 * c);
    w.putVarint(n);
    w.putVarint(modes);
    w.putVarint(unit);
    const ObjectRecord& first = records[0];
    w.putVarint(first.device);
    w.putVarint(first.type);
    w.putVarint(first.engine);
    w.putByte(first.kind);
    w.putByte(first.stream);
    w.putSigned(first.durationUs);
    w.putVarint(first.attributes);
    w.putVarint(lists.size());
    for (const auto& list : lists)
        writeAttributeList(w, list);

    ObjectRecord previous = first;
    std::int64_t previousStep = 0;
    for (std::size_t i = 0; i < n; ++i) {
        const ObjectRecord& r = records[i];
        std::uint32_t flags = 0;
        if (i > 0) {
            flags |= r.durationUs != previous.durationUs ? kDuration : 0;
            flags |= r.attributes != previous.attributes ? kAttributes : 0;
            flags |= r.device != previous.device ? kDevice : 0;
            flags |= r.kind != previous.kind ? kKind : 0;
            flags |= r.type != previous.type ? kType : 0;
            flags |= r.engine != previous.engine ? kEngine : 0;
            flags |= r.stream != previous.stream ? kStream : 0;
        }
        flags |= raw[i] ? kRawBox : 0;

        std::uint64_t time = 0;
        if (i == 0) {
            time = ByteWriter::zigzag(minus(r.timestampUs, baseUs));
        } else {
            const std::int64_t step =
                minus(r.timestampUs, previous.timestampUs) / static_cast<std::int64_t>(unit);
            time = ByteWriter::zigzag(timeDeltaOfDelta ? minus(step, previousStep) : step);
            previousStep = step;
        }
        if (time >= kShortTimeLimit)
            flags |= kLongTime;
        w.putVarint(((flags & kLongTime) ? 0 : time << 1) | (flags ? 1 : 0));
        if (flags) {
            w.putVarint(flags);
            if (flags & kLongTime)
                w.putVarint(time);
            if (flags & kDuration)
                w.putSigned(r.durationUs);
            if (flags & kAttributes)
                w.putVarint(r.attributes);
            if (flags & kDevice)
                w.putVarint(r.device);
            if (flags & kKind)
                w.putByte(r.kind);
            if (flags & kType)
                w.putVarint(r.type);
            if (flags & kEngine)
                w.putVarint(r.engine);
            if (flags & kStream)
                w.putByte(r.stream);
        }
        if (raw[i]) {
            w.putFixed(r.box.x);
            w.putFixed(r.box.y);
            w.putFixed(r.box.width);
            w.putFixed(r.box.height);
        } else {
            for (int c = 0; c < kChannels; ++c) {
                if (i > 0 && channels[c] == Channel::constant)
                    continue;
                const std::int64_t guess = predicted(channels[c], i >= 1 ? units[i - 1][c] : 0,
                                                     i >= 2 ? units[i - 2][c] : 0, i);
                w.putSigned(minus(units[i][c], guess));
            }
        }
        previous = r;
    }
    return out;
}

bool ObjectRun::decode(std::string_view bytes, std::int64_t baseUs,
                       std::vector<ObjectRecord>* records, std::vector<AttributeList>* lists)
{
    ByteReader in(bytes);
    std::uint64_t n = 0, modes = 0, unitValue = 0, listCount = 0;
    ObjectRecord current;
    if (!in.getVarint(&n) || !in.getVarint(&modes) || !in.getVarint(&unitValue) ||
        !in.getVarint(&current.device) || !in.getVarint(&current.type) ||
        !in.getVarint(&current.engine) || !in.getByte(&current.kind) ||
        !in.getByte(&current.stream) || !in.getSigned(&current.durationUs) ||
        !in.getVarint(&current.attributes) || !in.getVarint(&listCount) ||
        listCount > bytes.size()) {
        return false;
    }
    lists->assign(listCount, {});
    for (auto& list : *lists) {
        if (!readAttributeList(in, &list))
            return false;
    }
    const bool timeDeltaOfDelta = modes & kTimeDeltaOfDelta;
    std::array<Channel, kChannels> channels{};
    for (int c = 0; c < kChannels; ++c) {
        channels[c] = static_cast<Channel>((modes >> (1 + 2 * c)) & 3);
        if (channels[c] > Channel::constant)
            return false;
    }
    const auto unit = static_cast<std::int64_t>(unitValue);

    // Each position takes a byte at least: a count beyond the bytes is not a run.
    if (n > bytes.size())
        return false;
    records->reserve(records->size() + n);
    Units previousUnits{}, beforePreviousUnits{};
    std::int64_t previousStep = 0;
    for (std::uint64_t i = 0; i < n; ++i) {
        std::uint64_t head = 0;
        std::uint32_t flags = 0;
        if (!in.getVarint(&head) || ((head & 1) && !in.getVarint(&flags)))
            return false;
        std::uint64_t time = head >> 1;
        if ((flags & kLongTime) && !in.getVarint(&time))
            return false;
        const std::int64_t value =
            static_cast<std::int64_t>(time >> 1) ^ -static_cast<std::int64_t>(time & 1);
        if (i == 0) {
            current.timestampUs = plus(baseUs, value);
        } else {
            const std::int64_t step = timeDeltaOfDelta ? plus(previousStep, value) : value;
            current.timestampUs = plus(current.timestampUs,
                                       static_cast<std::int64_t>(static_cast<std::uint64_t>(step) *
                                                                 static_cast<std::uint64_t>(unit)));
            previousStep = step;
        }
        if ((flags & kDuration) && !in.getSigned(&current.durationUs))
            return false;
        if ((flags & kAttributes) && !in.getVarint(&current.attributes))
            return false;
        if ((flags & kDevice) && !in.getVarint(&current.device))
            return false;
        if ((flags & kKind) && !in.getByte(&current.kind))
            return false;
        if ((flags & kType) && !in.getVarint(&current.type))
            return false;
        if ((flags & kEngine) && !in.getVarint(&current.engine))
            return false;
        if ((flags & kStream) && !in.getByte(&current.stream))
            return false;
        Units units{};
        if (flags & kRawBox) {
            if (!in.getFixed(&current.box.x) || !in.getFixed(&current.box.y) ||
                !in.getFixed(&current.box.width) || !in.getFixed(&current.box.height)) {
                return false;
            }
            units = unitsOf(current.box);
        } else {
            for (int c = 0; c < kChannels; ++c) {
                if (i > 0 && channels[c] == Channel::constant) {
                    units[c] = previousUnits[c];
                    continue;
                }
                std::int64_t residual = 0;
                if (!in.getSigned(&residual))
                    return false;
                units[c] = plus(predicted(channels[c], previousUnits[c], beforePreviousUnits[c],
                                          static_cast<std::size_t>(i)),
                                residual);
            }
            current.box = {FixedPoint::value(units[0]), FixedPoint::value(units[1]),
                           FixedPoint::value(units[2]), FixedPoint::value(units[3])};
        }
        beforePreviousUnits = previousUnits;
        previousUnits = units;
        records->push_back(current);
    }
    return in.atEnd();
}

}  // namespace kest::analytics::db
