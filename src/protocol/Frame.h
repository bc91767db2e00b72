#pragma once

#include "FrameType.h"

#include <QByteArray>
#include <optional>

namespace google::protobuf { class MessageLite; }
class FrameHandler;

namespace kx {

// A frame is one serialized message followed by its type byte; no length prefix.
QByteArray encodeFrame(const google::protobuf::MessageLite &message, FrameType type);
QByteArray clientTypeFrame();

struct ReceivedFrame
{
    std::uint8_t type = 0;
    QByteArray payload;
};

// The last byte is the type, everything before it the payload; an empty frame has neither.
std::optional<ReceivedFrame> splitFrame(const QByteArray &frame);

// Hands the payload to the handler of the frame's type; empty frames and unknown
// types are dropped without a word.
void dispatchFrame(const QByteArray &frame, FrameHandler &handler);

} // namespace kx
