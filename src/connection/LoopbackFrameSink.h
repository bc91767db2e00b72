#pragma once

#include "CertificatePin.h"
#include "FrameSink.h"

#include <QList>
#include <QPointer>

class QObject;

// A connection without a network: what the engine writes is kept in order, and the
// holder plays the remote side by delivering frames and connection events by hand.
// Tests and fuzz targets hand it to the engine; queued bytes can be set to play a peer
// that stops reading.
class LoopbackFrameSink : public FrameSink
{
public:
    void connect(const QString &urlStr) override;
    void reconnect() override { ++reconnects; }
    void setCertificatePin(const CertificatePin &given) override { pin = given; }
    void setDelegate(SocketManagerDelegate *delegate) override;
    SocketManagerDelegate *delegate() const override;
    bool isConnected() const override { return connected; }
    void write(const QByteArray &frame, std::function<void()> completion) override;
    qint64 bytesToWrite() const override { return queuedBytes; }
    void dropConnection(const QString &reason) override;

    // The remote side's moves.
    void open();                          // the connection is established
    void lose();                          // the connection is lost
    void deliver(const QByteArray &frame);
    void drain(qint64 bytes);             // the peer reads this many of the queued bytes

    QString urlStr;
    CertificatePin pin;
    bool connected = false;
    int reconnects = 0;
    int drops = 0;
    QList<QByteArray> sent;   // every frame written, in order
    qint64 queuedBytes = 0;   // grows with every frame written until drained
    bool runCompletions = true;

private:
    SocketManagerDelegate *m_delegate = nullptr;
    QPointer<QObject> m_delegateGuard;
};
