#include "Frame.h"

#include "FrameHandler.h"
#include "Messages.h"

#include <QLoggingCategory>

Q_LOGGING_CATEGORY(lcProtocol, "kx.protocol")

namespace kx {

QByteArray encodeFrame(const google::protobuf::MessageLite &message, FrameType type)
{
    QByteArray frame = serialize(message);
    frame.append(char(type));
    return frame;
}

QByteArray clientTypeFrame()
{
    return QByteArray(1, char(FrameType::clientType));
}

std::optional<ReceivedFrame> splitFrame(const QByteArray &frame)
{
    if (frame.isEmpty())
        return std::nullopt;
    return ReceivedFrame{std::uint8_t(frame.back()), frame.first(frame.size() - 1)};
}

void dispatchFrame(const QByteArray &frame, FrameHandler &handler)
{
    const auto received = splitFrame(frame);
    if (!received)
        return;
    switch (FrameType(received->type)) {
    case FrameType::formatList:
        qCInfo(lcProtocol).noquote() << "收到formatListRequest";
        handler.handleFormListRespose(received->payload);
        break;
    case FrameType::formatDataRequest:
        qCInfo(lcProtocol).noquote() << "收到dataRequest";
        handler.handleDataRequest(received->payload);
        break;
    case FrameType::fileContentsRequest:
        handler.handleContentRequest(received->payload);
        break;
    case FrameType::fileContentsResponse:
        handler.handleContentResponse(received->payload);
        break;
    case FrameType::formatDataResponse:
        handler.handleFormatDataResponse(received->payload);
        break;
    default:
        break;
    }
}

} // namespace kx
