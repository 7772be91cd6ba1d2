#include "store_info.h"

#include <fstream>
#include <sstream>

namespace kest::bench {

namespace {

// Bumped whenever the generator changes what it makes, so that old stores are not reused.
constexpr int kFormatVersion = 1;

std::vector<std::string> split(const std::string& text, char separator)
{
    std::vector<std::string> parts;
    std::string part;
    std::istringstream stream(text);
    while (std::getline(stream, part, separator))
        parts.push_back(part);
    return parts;
}

}  // namespace

bool StoreInfo::save(const std::filesystem::path& file) const
{
    const auto temporary = std::filesystem::path(file).concat(".tmp");
    {
        std::ofstream out(temporary, std::ios::trunc);
        out.precision(17);
        out << "version\t" << kFormatVersion << "\n"
            << "tracks\t" << trackCount << "\n"
            << "seed\t" << seed << "\n"
            << "packets\t" << packetCount << "\n"
            << "objects\t" << objectCount << "\n"
            << "first\t" << firstTimeUs << "\n"
            << "last\t" << lastTimeUs << "\n"
            << "fillSeconds\t" << fillSeconds << "\n";
        for (const auto& id : deviceIds)
            out << "device\t" << id.toStdString() << "\n";
        for (const auto& sample : samples) {
            out << "sample\t" << sample.id.toStdString() << "\t" << sample.deviceId.toStdString()
                << "\t" << sample.typeId << "\t" << sample.firstAppearanceUs << "\t"
                << sample.lastAppearanceUs << "\t" << sample.firstBox.x << " " << sample.firstBox.y
                << " " << sample.firstBox.width << " " << sample.firstBox.height << "\t";
            for (const auto& attribute : sample.attributes)
                out << attribute.name << "=" << attribute.value << ";";
            out << "\n";
        }
        out << "end\n";
        if (!out.flush())
            return false;
    }
    std::error_code error;
    std::filesystem::rename(temporary, file, error);
    return !error;
}

bool StoreInfo::load(const std::filesystem::path& file)
{
    std::ifstream in(file);
    if (!in)
        return false;
    *this = StoreInfo();
    bool versionMatches = false;
    bool complete = false;
    std::string line;
    while (std::getline(in, line)) {
        const auto fields = split(line, '\t');
        if (fields.empty())
            continue;
        const std::string& key = fields[0];
        if (key == "end") {
            complete = true;
            break;
        }
        if (fields.size() < 2)
            return false;
        try {
            if (key == "version")
                versionMatches = std::stoi(fields[1]) == kFormatVersion;
            else if (key == "tracks")
                trackCount = std::stoll(fields[1]);
            else if (key == "seed")
                seed = std::stoull(fields[1]);
            else if (key == "packets")
                packetCount = std::stoll(fields[1]);
            else if (key == "objects")
                objectCount = std::stoll(fields[1]);
            else if (key == "first")
                firstTimeUs = std::stoll(fields[1]);
            else if (key == "last")
                lastTimeUs = std::stoll(fields[1]);
            else if (key == "fillSeconds")
                fillSeconds = std::stod(fields[1]);
            else if (key == "device")
                deviceIds.emplace_back(fields[1]);
            else if (key == "sample") {
                if (fields.size() < 7)
                    return false;
                TrackSample sample;
                sample.id = ZuUuid(fields[1]);
                sample.deviceId = ZuUuid(fields[2]);
                sample.typeId = fields[3];
                sample.firstAppearanceUs = std::stoll(fields[4]);
                sample.lastAppearanceUs = std::stoll(fields[5]);
                std::istringstream box(fields[6]);
                box >> sample.firstBox.x >> sample.firstBox.y >> sample.firstBox.width >>
                    sample.firstBox.height;
                if (fields.size() > 7) {
                    for (const auto& pair : split(fields[7], ';')) {
                        const auto equals = pair.find('=');
                        if (equals != std::string::npos)
                            sample.attributes.push_back(
                                {pair.substr(0, equals), pair.substr(equals + 1)});
                    }
                }
                samples.push_back(std::move(sample));
            }
        } catch (const std::exception&) {
            return false;
        }
    }
    return versionMatches && complete;
}

}  // namespace kest::bench
