#include "tag.h"

#include <cxxabi.h>

#include <cstdio>
#include <cstdlib>
#include <memory>

namespace kest::utils::log {

std::string Tag::fromObject(const std::type_info& type, const void* object)
{
    int status = 0;
    std::unique_ptr<char, decltype(&std::free)> demangled(
        abi::__cxa_demangle(type.name(), nullptr, nullptr, &status), &std::free);
    std::string name = status == 0 && demangled ? demangled.get() : type.name();
    char address[32];
    std::snprintf(address, sizeof(address), "(%p)", object);
    return name + address;
}

}  // namespace kest::utils::log
