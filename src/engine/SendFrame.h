#pragma once

#include "FrameType.h"

#include <QByteArray>

class FrameSink;
namespace google::protobuf { class MessageLite; }

namespace kx {

// Sends one message as a frame while the connection is up, and drops it silently
// otherwise; once written, the completion text is logged.
void sendFrame(FrameSink &connection, const google::protobuf::MessageLite &message, FrameType type,
               const char *completionText);
void sendFrame(FrameSink &connection, const QByteArray &frame, const char *completionText);

} // namespace kx
