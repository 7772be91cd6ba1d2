#include "store_generator.h"

#include <QUuid>
#include <algorithm>
#include <numeric>
#include <utility>

namespace kest::bench {

GeneratorOptions shortTrackOptions(std::uint64_t seed, std::int64_t tracks)
{
    GeneratorOptions options;
    options.seed = seed;
    options.trackCount = tracks;
    options.minTrackPackets = 1;
    options.maxTrackPackets = 40;
    options.packetIntervalUs = 1'500'000;
    options.paceSpread = 0.2;
    options.zipfWords = 20'000;
    return options;
}

using common::metadata::Attribute;
using common::metadata::ObjectMetadata;
using common::metadata::ObjectMetadataPacket;
using common::metadata::ObjectMetadataType;
using common::metadata::Rect;
using common::metadata::StreamIndex;

namespace {

using Vocabulary = std::vector<std::string>;

const Vocabulary kColors = {"white", "black",  "silver", "grey",   "red",   "blue",
                            "green", "yellow", "brown",  "orange", "beige", "purple"};
const Vocabulary kMakes = {"Toyota", "Volkswagen", "Ford",          "Honda",   "Hyundai", "Kia",
                           "Nissan", "BMW",        "Mercedes-Benz", "Renault", "Skoda",   "Peugeot",
                           "Tesla",  "Volvo",      "Mazda",         "Audi"};
const Vocabulary kCarBodies = {"sedan", "hatchback", "SUV", "wagon", "coupe", "minivan"};
const Vocabulary kTruckBodies = {"pickup", "box truck", "tractor", "van", "dump truck", "bus"};
const Vocabulary kCountries = {"DE", "FR", "NL", "PL", "GB", "US", "CZ", "IT", "ES", "SE"};
const Vocabulary kDirections = {"north", "south", "east", "west", "approaching", "leaving"};
const Vocabulary kGenders = {"male", "female"};
const Vocabulary kAges = {"child", "young adult", "adult", "senior"};
const Vocabulary kTops = {"t-shirt", "shirt", "jacket", "coat", "hoodie", "dress", "sweater"};
const Vocabulary kBottoms = {"jeans", "trousers", "shorts", "skirt", "leggings"};
const Vocabulary kBags = {"backpack", "handbag", "suitcase", "none"};
const Vocabulary kYesNo = {"yes", "no"};
const Vocabulary kGlasses = {"none", "eyeglasses", "sunglasses"};
const Vocabulary kHair = {"black", "brown", "blond", "grey", "red", "bald"};
const Vocabulary kBikes = {"road", "mountain", "city", "cargo", "e-bike", "scooter"};
const Vocabulary kSpecies = {"dog", "cat", "bird", "horse", "deer", "fox"};
const Vocabulary kSizes = {"small", "medium", "large"};

struct AttributeKind
{
    std::string name;
    const Vocabulary* values;  //< Null for the plate number, which is made up.
};

struct ObjectKind
{
    std::string typeId;
    int weight;  //< How common the type is, out of 100.
    double minWidth, maxWidth, minHeight, maxHeight;
    std::vector<AttributeKind> attributes;
};

const std::string kPlateNumber = "License Plate.Number";

const std::vector<ObjectKind>& objectKinds()
{
    static const std::vector<ObjectKind> kinds = {
        {"person",
         35,
         0.03,
         0.08,
         0.10,
         0.30,
         {{"Gender", &kGenders},
          {"Age", &kAges},
          {"Top Clothing Color", &kColors},
          {"Bottom Clothing Color", &kColors},
          {"Top Clothing Type", &kTops},
          {"Bottom Clothing Type", &kBottoms},
          {"Bag", &kBags},
          {"Hat", &kYesNo}}},
        {"car",
         33,
         0.08,
         0.25,
         0.06,
         0.18,
         {{"Color", &kColors},
          {"Make", &kMakes},
          {"Body Type", &kCarBodies},
          {kPlateNumber, nullptr},
          {"License Plate.Country", &kCountries},
          {"Direction", &kDirections}}},
        {"truck",
         10,
         0.15,
         0.40,
         0.10,
         0.30,
         {{"Color", &kColors},
          {"Make", &kMakes},
          {"Body Type", &kTruckBodies},
          {kPlateNumber, nullptr},
          {"License Plate.Country", &kCountries},
          {"Direction", &kDirections}}},
        {"face",
         10,
         0.02,
         0.05,
         0.03,
         0.07,
         {{"Gender", &kGenders},
          {"Age", &kAges},
          {"Glasses", &kGlasses},
          {"Mask", &kYesNo},
          {"Beard", &kYesNo},
          {"Hair Color", &kHair}}},
        {"bicycle",
         8,
         0.04,
         0.10,
         0.06,
         0.15,
         {{"Color", &kColors},
          {"Bike Type", &kBikes},
          {"Helmet", &kYesNo},
          {"Direction", &kDirections}}},
        {"animal",
         4,
         0.03,
         0.15,
         0.03,
         0.12,
         {{"Species", &kSpecies}, {"Color", &kColors}, {"Size", &kSizes}}},
    };
    return kinds;
}

// Faces and plates come from a second, recognition engine; everything else from the detector.
bool isRecognition(const std::string& typeId)
{
    return typeId == "face";
}

}  // namespace

StoreGenerator::StoreGenerator(GeneratorOptions options, std::size_t sampleSize)
    : m_options(options),
      m_random(options.seed),
      m_sampleRandom(options.seed ^ 0x9e3779b97f4a7c15ULL),
      m_sampleSize(sampleSize),
      m_lastTimeUs(options.startTimeUs)
{
    m_engineIds = {randomUuid(), randomUuid()};
    if (m_options.zipfWords > 0) {
        // Pronounceable made-up words, one per rank, and the running sum of 1/rank.
        static const char* const kSyllables[] = {"ka", "lo", "mi", "ne", "ru", "sa", "to", "vi",
                                                 "ze", "bo", "da", "fu", "gi", "ho", "ju", "pe"};
        double total = 0;
        for (int rank = 1; rank <= m_options.zipfWords; ++rank) {
            std::string word;
            for (int n = rank; n > 0; n /= 16)
                word += kSyllables[n % 16];
            m_zipfWords.push_back(word);
            total += 1.0 / rank;
            m_zipfWeights.push_back(total);
        }
    }
    for (int i = 0; i < m_options.deviceCount; ++i) {
        Device device;
        device.id = randomUuid();
        device.intervalUs = static_cast<std::int64_t>(
            m_options.packetIntervalUs *
            uniformReal(1 - m_options.paceSpread, 1 + m_options.paceSpread));
        device.concurrency = uniform(m_options.minObjectsPerPacket, m_options.maxObjectsPerPacket);
        m_deviceIds.push_back(device.id);
        m_devices.push_back(std::move(device));
        const std::int64_t offset = uniform(0, static_cast<int>(m_devices.back().intervalUs));
        m_due.push({m_options.startTimeUs + offset, i});
    }
}

ZuUuid StoreGenerator::randomUuid()
{
    const std::uint64_t high = m_random();
    const std::uint64_t low = m_random();
    // Version 4, variant 1, like the ids a VMS makes.
    const auto w2 = static_cast<ushort>(((high & 0xffff) & 0x0fff) | 0x4000);
    const auto b1 = static_cast<uchar>(((low >> 56) & 0x3f) | 0x80);
    return ZuUuid(QUuid(static_cast<uint>(high >> 32), static_cast<ushort>(high >> 16), w2, b1,
                        static_cast<uchar>(low >> 48), static_cast<uchar>(low >> 40),
                        static_cast<uchar>(low >> 32), static_cast<uchar>(low >> 24),
                        static_cast<uchar>(low >> 16), static_cast<uchar>(low >> 8),
                        static_cast<uchar>(low)));
}

int StoreGenerator::uniform(int min, int max)
{
    return std::uniform_int_distribution<int>(min, max)(m_random);
}

double StoreGenerator::uniformReal(double min, double max)
{
    return std::uniform_real_distribution<double>(min, max)(m_random);
}

bool StoreGenerator::chance(double probability)
{
    return uniformReal(0, 1) < probability;
}

std::string StoreGenerator::plateNumber()
{
    std::string plate;
    const int letters = uniform(2, 3);
    for (int i = 0; i < letters; ++i)
        plate += static_cast<char>('A' + uniform(0, 25));
    plate += ' ';
    const int digits = uniform(3, 4);
    for (int i = 0; i < digits; ++i)
        plate += static_cast<char>('0' + uniform(0, 9));
    return plate;
}

const std::string& StoreGenerator::zipfWord()
{
    const double at = uniformReal(0, m_zipfWeights.back());
    const auto it = std::lower_bound(m_zipfWeights.begin(), m_zipfWeights.end(), at);
    return m_zipfWords[std::min<std::size_t>(it - m_zipfWeights.begin(), m_zipfWords.size() - 1)];
}

std::vector<Attribute> StoreGenerator::attributesFor(const std::string& typeId)
{
    const auto& kinds = objectKinds();
    const auto kind = std::find_if(kinds.begin(), kinds.end(),
                                   [&](const ObjectKind& k) { return k.typeId == typeId; });
    std::vector<int> order(kind->attributes.size());
    std::iota(order.begin(), order.end(), 0);
    std::shuffle(order.begin(), order.end(), m_random);
    const int count = uniform(2, std::min<int>(6, static_cast<int>(order.size())));
    order.resize(count);
    std::sort(order.begin(), order.end());

    std::vector<Attribute> attributes;
    for (const int index : order) {
        const AttributeKind& attribute = kind->attributes[index];
        if (!attribute.values)
            attributes.push_back({attribute.name, plateNumber()});
        else if (!m_zipfWords.empty())
            attributes.push_back({attribute.name, zipfWord()});
        else
            attributes.push_back({attribute.name, pick(*attribute.values)});
    }
    return attributes;
}

StoreGenerator::Track StoreGenerator::newTrack(const Device& device, std::int64_t timeUs)
{
    const auto& kinds = objectKinds();
    int roll = uniform(0, 99);
    const ObjectKind* kind = &kinds.back();
    for (const auto& k : kinds) {
        if (roll < k.weight) {
            kind = &k;
            break;
        }
        roll -= k.weight;
    }

    Track track;
    track.info.id = randomUuid();
    track.info.deviceId = device.id;
    track.info.typeId = kind->typeId;
    track.info.firstAppearanceUs = timeUs;
    track.info.attributes = attributesFor(kind->typeId);
    const bool hasPlate = std::any_of(track.info.attributes.begin(), track.info.attributes.end(),
                                      [](const Attribute& a) { return a.name == kPlateNumber; });
    track.engineId = m_engineIds[isRecognition(kind->typeId) || hasPlate ? 1 : 0];

    track.box.width = uniformReal(kind->minWidth, kind->maxWidth);
    track.box.height = uniformReal(kind->minHeight, kind->maxHeight);
    track.box.x = uniformReal(0, 1 - track.box.width);
    track.box.y = uniformReal(0, 1 - track.box.height);
    track.info.firstBox = track.box;
    track.vx = uniformReal(-0.01, 0.01);
    track.vy = uniformReal(-0.005, 0.005);

    track.packetsLeft = uniform(m_options.minTrackPackets, m_options.maxTrackPackets);
    if (chance(0.4)) {
        track.bestShotAt = uniform(0, track.packetsLeft - 1);
        if (chance(0.15))
            track.bestShotType = ObjectMetadataType::externalBestShot;
    }
    return track;
}

void StoreGenerator::moveBox(Track& track)
{
    // Objects drift with a slowly changing velocity and turn back at the frame's edges.
    track.vx = std::clamp(track.vx + uniformReal(-0.001, 0.001), -0.015, 0.015);
    track.vy = std::clamp(track.vy + uniformReal(-0.0005, 0.0005), -0.008, 0.008);
    Rect& box = track.box;
    box.x += track.vx;
    box.y += track.vy;
    if (box.x < 0 || box.x + box.width > 1) {
        track.vx = -track.vx;
        box.x = std::clamp(box.x, 0.0, 1 - box.width);
    }
    if (box.y < 0 || box.y + box.height > 1) {
        track.vy = -track.vy;
        box.y = std::clamp(box.y, 0.0, 1 - box.height);
    }
}

void StoreGenerator::finishTrack(Track& track)
{
    ++m_tracksFinished;
    if (m_samples.size() < m_sampleSize) {
        m_samples.push_back(std::move(track.info));
        return;
    }
    const auto slot =
        std::uniform_int_distribution<std::int64_t>(0, m_tracksFinished - 1)(m_sampleRandom);
    if (slot < static_cast<std::int64_t>(m_sampleSize))
        m_samples[slot] = std::move(track.info);
}

void StoreGenerator::fillUp(Device& device, std::int64_t timeUs)
{
    while (static_cast<int>(device.tracks.size()) < device.concurrency &&
           m_tracksStarted < m_options.trackCount) {
        device.tracks.push_back(newTrack(device, timeUs));
        ++m_tracksStarted;
    }
}

std::shared_ptr<ObjectMetadataPacket> StoreGenerator::next()
{
    while (!m_due.empty()) {
        const Due due = m_due.top();
        m_due.pop();
        Device& device = m_devices[due.device];
        if (device.tracks.empty()) {
            // Back from a quiet period, or at the very start.
            device.quiet = false;
            fillUp(device, due.timeUs);
            if (device.tracks.empty())
                continue;
        }

        auto packet = std::make_shared<ObjectMetadataPacket>();
        packet->deviceId = device.id;
        packet->timestampUs = due.timeUs;
        packet->durationUs = device.intervalUs;
        packet->streamIndex = due.device % 7 == 0 ? StreamIndex::secondary : StreamIndex::primary;
        packet->objectMetadataList.reserve(device.tracks.size());
        for (Track& track : device.tracks) {
            if (track.packetIndex > 0)
                moveBox(track);
            ObjectMetadata object;
            object.trackId = track.info.id;
            object.typeId = track.info.typeId;
            object.objectMetadataType = track.packetIndex == track.bestShotAt
                                            ? track.bestShotType
                                            : ObjectMetadataType::regular;
            object.boundingBox = track.box;
            object.attributes = track.info.attributes;
            object.analyticsEngineId = track.engineId;
            packet->objectMetadataList.push_back(std::move(object));
            track.info.lastAppearanceUs = due.timeUs;
            ++track.packetIndex;
            --track.packetsLeft;
        }
        ++m_packetsMade;
        m_objectsMade += static_cast<std::int64_t>(packet->objectMetadataList.size());
        m_lastTimeUs = std::max(m_lastTimeUs, due.timeUs + device.intervalUs);

        for (auto it = device.tracks.begin(); it != device.tracks.end();) {
            if (it->packetsLeft > 0) {
                ++it;
                continue;
            }
            finishTrack(*it);
            it = device.tracks.erase(it);
            if (chance(0.2))
                device.concurrency =
                    uniform(m_options.minObjectsPerPacket, m_options.maxObjectsPerPacket);
            if (m_options.quietPeriods && chance(0.01))
                device.quiet = true;
        }

        // A little jitter, as real devices never keep a perfect pace.
        std::int64_t nextUs = due.timeUs + device.intervalUs +
                              uniform(-static_cast<int>(device.intervalUs / 20),
                                      static_cast<int>(device.intervalUs / 20));
        if (!device.quiet)
            fillUp(device, nextUs);
        if (device.tracks.empty() && device.quiet)
            nextUs += static_cast<std::int64_t>(uniform(30, 900)) * 1'000'000;
        if (!device.tracks.empty() || device.quiet)
            m_due.push({nextUs, due.device});
        return packet;
    }
    return nullptr;
}

}  // namespace kest::bench
