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
};
