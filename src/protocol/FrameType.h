#pragma once

#include <cstdint>

// The one byte appended to every frame; it alone tells the receiver which message
// the frame carries (the header inside the message plays no part).
enum class FrameType : std::uint8_t {
    clientType = 0,
    formatList = 1,
    formatDataRequest = 3,
    fileContentsRequest = 5,
    fileContentsResponse = 6,
    formatDataResponse = 7,
};
