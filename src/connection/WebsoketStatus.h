#pragma once

#include <cstdint>

enum class WebsoketStatus : std::uint8_t {
    create = 0,     // no connection attempted yet
    connecting = 1, // an attempt, or a scheduled reconnection, is under way
    connected = 2,  // the handshake has completed
    disconnect = 3, // the connection ended, failed or was cancelled
};
