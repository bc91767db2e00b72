#pragma once

#include <QByteArray>

// Receiver of dispatched frames: one handler per frame type, each given the payload
// (the frame without its type byte). The payload points into the received frame and is
// valid only during the call; a handler that keeps it must copy it. The session engine
// implements it.
class FrameHandler
{
public:
    virtual ~FrameHandler() = default;
    virtual void handleFormListRespose(const QByteArray &payload) = 0;
    virtual void handleDataRequest(const QByteArray &payload) = 0;
    virtual void handleContentRequest(const QByteArray &payload) = 0;
    virtual void handleContentResponse(const QByteArray &payload) = 0;
    virtual void handleFormatDataResponse(const QByteArray &payload) = 0;
};
