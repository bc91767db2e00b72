#include "LoopbackFrameSink.h"

#include "SocketManagerDelegate.h"

#include <QObject>

void LoopbackFrameSink::connect(const QString &url)
{
    urlStr = url;
}

void LoopbackFrameSink::setDelegate(SocketManagerDelegate *delegate)
{
    m_delegate = delegate;
    m_delegateGuard = dynamic_cast<QObject *>(delegate);
}

SocketManagerDelegate *LoopbackFrameSink::delegate() const
{
    return m_delegateGuard ? m_delegate : nullptr;
}

void LoopbackFrameSink::write(const QByteArray &frame, std::function<void()> completion)
{
    if (!connected)
        return;
    sent.append(frame);
    queuedBytes += frame.size();
    if (completion && runCompletions)
        completion();
}

void LoopbackFrameSink::dropConnection(const QString &reason)
{
    Q_UNUSED(reason);
    ++drops;
    lose();
}

void LoopbackFrameSink::open()
{
    connected = true;
    if (auto *d = delegate())
        d->socketDidConnect();
}

void LoopbackFrameSink::lose()
{
    connected = false;
    queuedBytes = 0;
    if (auto *d = delegate())
        d->socketDidDisconnect();
}

void LoopbackFrameSink::deliver(const QByteArray &frame)
{
    if (auto *d = delegate())
        d->socketDidReceive(frame);
}

void LoopbackFrameSink::drain(qint64 bytes)
{
    queuedBytes -= std::min(bytes, queuedBytes);
    if (auto *d = delegate())
        d->socketDidDrain();
}
