#pragma once

#include <chrono>
#include <string>
#include <vector>

namespace kest::cloud::storage::metadatadb {

/** Which devices are served by this instance and which by others. */
class DeviceId2InstanceMapping
{
public:
    /** One instance serving a device. */
    struct HostInfo
    {
        std::string host;
        bool healthStatus = false;
        std::chrono::system_clock::time_point lastUpdateTime;

        friend bool operator==(const HostInfo&, const HostInfo&) = default;
    };

    /** The mapping of one device to the instances serving it. */
    struct DeviceInfo
    {
        std::string vmsId;
        std::chrono::system_clock::time_point hostsInfoUpdateTime;
        std::vector<HostInfo> curHosts;

        friend bool operator==(const DeviceInfo&, const DeviceInfo&) = default;
    };
};

}  // namespace kest::cloud::storage::metadatadb
