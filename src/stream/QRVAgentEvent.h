// One event from the agent's console as the stream hands it on: whatever its parser made of the
// message, or nothing when the message did not parse.
#pragma once

#include <variant>

#include "annotations/QRVAnnotationRecords.h"
#include "quorvix/QRVKeyPress.h"
#include "quorvix/QRVMouseEvent.h"
#include "quorvix/QRVTouchEvent.h"

namespace quorvix {

using QRVAgentEvent =
    std::variant<std::monostate, QRVDrawing, QRVLaser, QRVTouchEvent, QRVKeyPress, QRVMouseEvent>;

}  // namespace quorvix
