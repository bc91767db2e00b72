#pragma once

#include <QByteArray>
#include <QString>

// Receiver of the connection's events, called on the main thread.
class SocketManagerDelegate
{
public:
    virtual ~SocketManagerDelegate() = default;
    virtual void socketDidConnect() = 0;
    virtual void socketDidDisconnect() = 0;
    virtual void socketDidReceive(const QByteArray &data) = 0;
    virtual void socketDidReceive(const QString &text) = 0;
    // Some of what was written has been taken by the peer; bytesToWrite() has fallen.
    virtual void socketDidDrain() {}
};
