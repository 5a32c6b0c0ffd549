// A prepared WebSocket upgrade: where to connect and which headers to send. Built by the core,
// read by the transports. A plain value: any thread may copy and read it.
#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "utils/QRVURL.h"

namespace quorvix {

struct QRVSocketRequest {
  QRVURL url;
  std::vector<std::pair<std::string, std::string>> headers;
  std::chrono::milliseconds timeout{10000};

  // The first header of that name, compared without case.
  std::optional<std::string> header(std::string_view name) const;
};

}  // namespace quorvix
