// Per-unit loggers. QRV_LOGGER_FOR("QRVRequest") gives the logger of that source unit: created on
// first use with subsystem "io.quorvi" and the unit's name as category, then cached for the
// process. Log lines never carry secrets (account key, tokens).
#pragma once

#include <memory>
#include <string_view>

#include <spdlog/spdlog.h>

namespace quorvix {

inline constexpr std::string_view kLogSubsystem = "io.quorvi";

std::shared_ptr<spdlog::logger> loggerFor(std::string_view category);

// Logs the reason and aborts. Only for broken invariants, never for bad input.
[[noreturn]] void fatal(std::string_view category, std::string_view message);

}  // namespace quorvix

#define QRV_LOGGER_FOR(category) ::quorvix::loggerFor(category)
#define QRV_FATAL(category, message) ::quorvix::fatal(category, message)
