#pragma once

namespace kx {

// Call once at start-up in every process that moves file ranges over the socket.
void keepFrameBuffersMapped();

} // namespace kx
