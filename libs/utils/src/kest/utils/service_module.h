#pragma once

#include <memory>
#include <string>

#include "service.h"

namespace kest::utils {

/**
 * A service built as a loadable module: a shared library that exports one function, named
 * kCreateFunctionName, which makes the module's Service from the process arguments. Loading
 * runs the module's static initialisers (its compiled-in resources register themselves);
 * destroying the object unloads it again, so every Service it made must be gone by then.
 */
class ServiceModule
{
public:
    using CreateFunction = Service* (*)(int argc, char** argv);
    static constexpr const char* kCreateFunctionName = "kestCreateService";

    /**
     * Loads the module at `path` (a name without "/" is searched as the dynamic loader does).
     * Throws std::runtime_error naming the module and the loader's error when it cannot be
     * loaded or has no entry point.
     */
    explicit ServiceModule(const std::string& path);
    ~ServiceModule();

    ServiceModule(const ServiceModule&) = delete;
    ServiceModule& operator=(const ServiceModule&) = delete;

    /** Null, with the reason logged to standard error, when the module fails to make one. */
    std::unique_ptr<Service> createService(int argc, char** argv) const;

    const std::string& path() const { return m_path; }

private:
    std::string m_path;
    void* m_handle = nullptr;
    CreateFunction m_create = nullptr;
};

}  // namespace kest::utils

/**
 * Defines the entry point of a service module; use it once, in a source file of the module.
 * ServiceClass is constructible from (int argc, char** argv).
 */
#define KEST_SERVICE_MODULE(ServiceClass)                                                      \
    extern "C" __attribute__((visibility("default"))) kest::utils::Service* kestCreateService( \
        int argc, char** argv)                                                                 \
    {                                                                                          \
        return new ServiceClass(argc, argv);                                                   \
    }
