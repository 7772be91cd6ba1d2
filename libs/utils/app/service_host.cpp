// The generic service host: loads a service module and runs its service until SIGINT or
// SIGTERM.
//
//   kest_service_host MODULE [SERVICE ARGS...]

#include <cstdio>
#include <exception>
#include <filesystem>
#include <string>
#include <vector>

#include <kest/utils/service_module.h>

namespace {

/** "libfoo.so" → "foo": what the service's help and logs call the program. */
std::string programName(const std::string& modulePath)
{
    std::string name = std::filesystem::path(modulePath).filename().string();
    if (name.starts_with("lib"))
        name.erase(0, 3);
    if (const auto dot = name.find(".so"); dot != std::string::npos)
        name.erase(dot);
    return name.empty() ? modulePath : name;
}

}  // namespace

int main(int argc, char** argv)
{
    if (argc < 2 || std::string(argv[1]) == "-h" || std::string(argv[1]) == "--help") {
        std::fprintf(stderr, "Usage: %s MODULE [SERVICE ARGS...]\n", argc > 0 ? argv[0] : "host");
        return argc < 2 ? 2 : 0;
    }
    try {
        const kest::utils::ServiceModule module(argv[1]);
        std::string name = programName(module.path());
        std::vector<char*> args{name.data()};
        for (int i = 2; i < argc; ++i)
            args.push_back(argv[i]);
        args.push_back(nullptr);

        int exitCode = 1;
        if (auto service = module.createService(static_cast<int>(args.size() - 1), args.data())) {
            service->enableSignalHandling();
            exitCode = service->exec();
        }
        // The service is destroyed here, before the module that holds its code is unloaded.
        return exitCode;
    } catch (const std::exception& e) {
        std::fprintf(stderr, "%s: %s\n", argv[0], e.what());
        return 1;
    }
}
