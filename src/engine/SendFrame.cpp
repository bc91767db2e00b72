#include "SendFrame.h"

#include "EngineLog.h"
#include "Frame.h"
#include "FrameSink.h"

namespace kx {

void sendFrame(FrameSink &connection, const google::protobuf::MessageLite &message, FrameType type,
               const char *completionText)
{
    if (connection.isConnected())
        sendFrame(connection, encodeFrame(message, type), completionText);
}

void sendFrame(FrameSink &connection, const QByteArray &frame, const char *completionText)
{
    if (!connection.isConnected())
        return;
    connection.write(frame, [completionText] { qCInfo(lcEngine).noquote() << QString::fromUtf8(completionText); });
}

} // namespace kx
