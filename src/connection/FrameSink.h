#pragma once

#include <QByteArray>
#include <QString>

#include <functional>

class CertificatePin;
class SocketManagerDelegate;

// What the session engine needs of its connection to the remote agent. The socket
// manager is the product's; a loopback sink serves tests and fuzzing, so the engine runs
// without a network and no build swaps one source file for another.
class FrameSink
{
public:
    virtual ~FrameSink() = default;

    virtual void connect(const QString &urlStr) = 0;
    // Holds for every connection made after it; a connection without TLS has nothing to check.
    virtual void setCertificatePin(const CertificatePin &pin) = 0;
    virtual void reconnect() = 0;
    // The delegate must be a QObject as well, so that a destroyed delegate is never called.
    virtual void setDelegate(SocketManagerDelegate *delegate) = 0;
    virtual SocketManagerDelegate *delegate() const = 0;

    virtual bool isConnected() const = 0;
    // One binary message; the completion runs once it has been handed to the connection.
    virtual void write(const QByteArray &frame, std::function<void()> completion) = 0;
    // Bytes written but not yet taken by the peer: a peer that stops reading makes it grow.
    virtual qint64 bytesToWrite() const = 0;
    // Ends the connection as a loss does; the delegate hears socketDidDisconnect.
    virtual void dropConnection(const QString &reason) = 0;
};
