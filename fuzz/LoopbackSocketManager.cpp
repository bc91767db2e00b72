// SocketManager for fuzzing: always connected, and everything the engine writes is kept
// in sentFrames() for the harness to answer, so a paste can be played to its end
// without a network in each run.
#include "LoopbackSocketManager.h"
#include "SocketManager.h"

namespace {
QList<QByteArray> sent;
}

QList<QByteArray> &sentFrames()
{
    return sent;
}

SocketManager::SocketManager(QObject *parent)
    : QObject(parent)
{
    m_isConnected = true;
    m_websoketStatus = WebsoketStatus::connected;
}

SocketManager *SocketManager::shared()
{
    static SocketManager *manager = new SocketManager;
    return manager;
}

void SocketManager::connect(const QString &urlStr)
{
    m_urlStr = urlStr;
}

void SocketManager::reconnect() {}

void SocketManager::setDelegate(SocketManagerDelegate *delegate)
{
    m_delegate = delegate;
}

SocketManagerDelegate *SocketManager::delegate() const
{
    return m_delegate;
}

void SocketManager::write(const QByteArray &frame, std::function<void()> completion)
{
    sent.append(frame);
    if (completion)
        completion();
}
