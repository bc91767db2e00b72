#include "Frame.h"

#include "FrameHandler.h"
#include "Messages.h"

#include "ProtocolLog.h"

Q_LOGGING_CATEGORY(lcProtocol, "kx.protocol")

namespace kx {

// Encoded straight into a buffer that already has room for the type byte: appending it
// afterwards reallocated, that is copied, every range answer and every offer once more.
QByteArray encodeFrame(const google::protobuf::MessageLite &message, FrameType type)
{
    const qsizetype size = qsizetype(message.ByteSizeLong());
    QByteArray frame(size + 1, Qt::Uninitialized);
    message.SerializeWithCachedSizesToArray(reinterpret_cast<std::uint8_t *>(frame.data()));
    frame[size] = char(type);
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
    if (frame.isEmpty())
        return;
    // A range answer is a quarter of a MiB: the handlers read the payload in place (the
    // frame outlives the call), rather than from a copy made for each one.
    const ReceivedFrame received{std::uint8_t(frame.back()), QByteArray::fromRawData(frame.constData(), frame.size() - 1)};
    switch (FrameType(received.type)) {
    case FrameType::formatList:
        qCInfo(lcProtocol).noquote() << "收到formatListRequest";
        handler.handleFormListRespose(received.payload);
        break;
    case FrameType::formatDataRequest:
        qCInfo(lcProtocol).noquote() << "收到dataRequest";
        handler.handleDataRequest(received.payload);
        break;
    case FrameType::fileContentsRequest:
        handler.handleContentRequest(received.payload);
        break;
    case FrameType::fileContentsResponse:
        handler.handleContentResponse(received.payload);
        break;
    case FrameType::formatDataResponse:
        handler.handleFormatDataResponse(received.payload);
        break;
    default:
        break;
    }
}

} // namespace kx
