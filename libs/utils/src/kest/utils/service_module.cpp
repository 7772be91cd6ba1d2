#include "service_module.h"

#include <dlfcn.h>

#include <cstdio>
#include <stdexcept>

namespace kest::utils {

namespace {

std::string lastLoaderError()
{
    const char* error = dlerror();
    return error ? error : "unknown error";
}

}  // namespace

ServiceModule::ServiceModule(const std::string& path) : m_path(path)
{
    // RTLD_LOCAL: what the module defines stays its own; it only offers the entry point.
    m_handle = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (!m_handle) {
        throw std::runtime_error("Cannot load service module '" + path + "': " + lastLoaderError());
    }
    dlerror();
    m_create = reinterpret_cast<CreateFunction>(dlsym(m_handle, kCreateFunctionName));
    if (!m_create) {
        const std::string error = lastLoaderError();
        dlclose(m_handle);
        throw std::runtime_error("'" + path + "' is not a service module: it has no " +
                                 kCreateFunctionName + " (" + error + ")");
    }
}

ServiceModule::~ServiceModule()
{
    dlclose(m_handle);
}

std::unique_ptr<Service> ServiceModule::createService(int argc, char** argv) const
{
    try {
        return std::unique_ptr<Service>(m_create(argc, argv));
    } catch (const std::exception& e) {
        std::fprintf(stderr, "Service module '%s' failed to create its service: %s\n",
                     m_path.c_str(), e.what());
    } catch (...) {
        std::fprintf(stderr, "Service module '%s' failed to create its service\n", m_path.c_str());
    }
    return nullptr;
}

}  // namespace kest::utils
