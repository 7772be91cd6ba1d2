#pragma once

// Logging macros. A line is formatted only when its level is enabled:
//     KEST_ERROR(this, "saving data( %1 ) to MongoDB failed", items);

#include "../to_text.h"
#include "logger.h"
#include "tag.h"

#define KEST_LOG(level, tag, ...)                                                                \
    do {                                                                                         \
        if (::kest::utils::log::Logger::instance().isEnabled(level)) {                           \
            ::kest::utils::log::Logger::instance().write(                                        \
                level, ::kest::utils::log::Tag(tag).text(), ::kest::utils::format(__VA_ARGS__)); \
        }                                                                                        \
    } while (0)

#define KEST_ALWAYS(tag, ...) KEST_LOG(::kest::utils::log::Level::always, tag, __VA_ARGS__)
#define KEST_ERROR(tag, ...) KEST_LOG(::kest::utils::log::Level::error, tag, __VA_ARGS__)
#define KEST_WARNING(tag, ...) KEST_LOG(::kest::utils::log::Level::warning, tag, __VA_ARGS__)
#define KEST_INFO(tag, ...) KEST_LOG(::kest::utils::log::Level::info, tag, __VA_ARGS__)
#define KEST_DEBUG(tag, ...) KEST_LOG(::kest::utils::log::Level::debug, tag, __VA_ARGS__)
#define KEST_VERBOSE(tag, ...) KEST_LOG(::kest::utils::log::Level::verbose, tag, __VA_ARGS__)
