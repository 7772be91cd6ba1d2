#pragma once

#include <cstdint>
#include <memory>
#include <queue>
#include <random>
#include <string>
#include <vector>

#include <kest/analytics_db/object_metadata_packet.h>
#include <kest/vms_common/zu_uuid.h>

namespace kest::bench {

/** What the generated store looks like. The same options always give the same packets. */
struct GeneratorOptions
{
    std::uint64_t seed = 1;
    int deviceCount = 200;
    /** No track starts once this many have; the store ends when the last one has ended. */
    std::int64_t trackCount = 1'000'000;
    /** Objects in one packet, i.e. tracks of one device alive at the same time. */
    int minObjectsPerPacket = 1;
    int maxObjectsPerPacket = 10;
    int minTrackPackets = 10;
    int maxTrackPackets = 200;
    /** 2026-01-01T00:00:00Z. */
    std::int64_t startTimeUs = 1'767'225'600'000'000;
    /** Mean time between two packets of one device; each device has its own pace around it. */
    std::int64_t packetIntervalUs = 500'000;
    /** How far a device's pace strays from the mean, as a fraction of it. */
    double paceSpread = 0.4;
    /**
     * When above 0, attribute values (other than plate numbers) are made-up words drawn from a
     * Zipf distribution over this many: the k-th most common one comes with a weight of 1/k.
     */
    int zipfWords = 0;
    /** Whether a device now and then falls silent for minutes (no packets at all). */
    bool quietPeriods = true;
};

/**
 * Short tracks, as a busy camera sees passers-by: 1 to 60 s, a packet every 1.2 to 1.8 s, 1 to 10
 * objects a packet (about 20 objects a track), attribute values from a Zipf distribution over
 * 20,000 words.
 */
GeneratorOptions shortTrackOptions(std::uint64_t seed, std::int64_t tracks);

/** A finished track as the generator made it, kept to build searches that hit real data. */
struct TrackSample
{
    ZuUuid id;
    ZuUuid deviceId;
    std::string typeId;
    std::int64_t firstAppearanceUs = 0;
    std::int64_t lastAppearanceUs = 0;
    common::metadata::Rect firstBox;
    std::vector<common::metadata::Attribute> attributes;
};

/**
 * Makes a realistic analytics store packet by packet, in time order across all devices: several
 * devices, each seeing several objects at once, with boxes that move smoothly and attributes
 * from everyday vocabularies.
 */
class StoreGenerator
{
public:
    explicit StoreGenerator(GeneratorOptions options, std::size_t sampleSize = 2000);

    /** The next packet, or null once every track has ended. */
    std::shared_ptr<common::metadata::ObjectMetadataPacket> next();

    const std::vector<ZuUuid>& deviceIds() const { return m_deviceIds; }
    std::int64_t tracksStarted() const { return m_tracksStarted; }
    std::int64_t packetsMade() const { return m_packetsMade; }
    std::int64_t objectsMade() const { return m_objectsMade; }
    /** The time span covered so far: first packet start to last packet end. */
    std::int64_t firstTimeUs() const { return m_options.startTimeUs; }
    std::int64_t lastTimeUs() const { return m_lastTimeUs; }
    /** A uniform sample of the tracks finished so far. */
    const std::vector<TrackSample>& samples() const { return m_samples; }

private:
    struct Track
    {
        TrackSample info;
        ZuUuid engineId;
        double vx = 0;
        double vy = 0;
        common::metadata::Rect box;
        int packetsLeft = 0;
        int bestShotAt = -1;
        common::metadata::ObjectMetadataType bestShotType =
            common::metadata::ObjectMetadataType::bestShot;
        int packetIndex = 0;
    };

    struct Device
    {
        ZuUuid id;
        std::int64_t intervalUs = 0;
        int concurrency = 1;
        bool quiet = false;
        std::vector<Track> tracks;
    };

    struct Due
    {
        std::int64_t timeUs;
        int device;
        bool operator>(const Due& other) const
        {
            return timeUs != other.timeUs ? timeUs > other.timeUs : device > other.device;
        }
    };

    ZuUuid randomUuid();
    int uniform(int min, int max);
    double uniformReal(double min, double max);
    bool chance(double probability);
    template <typename T>
    const T& pick(const std::vector<T>& values)
    {
        return values[uniform(0, static_cast<int>(values.size()) - 1)];
    }

    Track newTrack(const Device& device, std::int64_t timeUs);
    std::vector<common::metadata::Attribute> attributesFor(const std::string& typeId);
    std::string plateNumber();
    const std::string& zipfWord();
    void moveBox(Track& track);
    void finishTrack(Track& track);
    void fillUp(Device& device, std::int64_t timeUs);

private:
    GeneratorOptions m_options;
    std::mt19937_64 m_random;
    // Separate from m_random so that the sample size never changes the data.
    std::mt19937_64 m_sampleRandom;
    std::size_t m_sampleSize;
    std::vector<ZuUuid> m_deviceIds;
    std::vector<ZuUuid> m_engineIds;
    std::vector<Device> m_devices;
    std::priority_queue<Due, std::vector<Due>, std::greater<Due>> m_due;
    std::int64_t m_tracksStarted = 0;
    std::int64_t m_tracksFinished = 0;
    std::int64_t m_packetsMade = 0;
    std::int64_t m_objectsMade = 0;
    std::int64_t m_lastTimeUs = 0;
    std::vector<TrackSample> m_samples;
    std::vector<std::string> m_zipfWords;
    /** The cumulative weights of m_zipfWords. */
    std::vector<double> m_zipfWeights;
};

}  // namespace kest::bench
