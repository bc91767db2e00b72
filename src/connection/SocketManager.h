#pragma once

#include "SocketManagerDelegate.h"
#include "WebsoketStatus.h"

#include <QObject>
#include <QPointer>
#include <QString>

#include <functional>

class QWebSocket;
class QTimer;

// Owns the one WebSocket connection of the process to the remote clipboard agent.
// It knows nothing of the messages: it connects, reports events to its delegate and
// reconnects two seconds after a loss when asked, for as long as the process runs.
class SocketManager : public QObject
{
    Q_OBJECT
public:
    static constexpr int connectTimeoutMs = 15000;
    static constexpr int reconnectDelayMs = 2000;

    static SocketManager *shared();

    void connect(const QString &urlStr);
    void reconnect();

    bool isConnected() const { return m_isConnected; }
    WebsoketStatus websoketStatus() const { return m_websoketStatus; }
    QString urlStr() const { return m_urlStr; }
    QWebSocket *socket() const { return m_socket; }

    // The delegate must be a QObject as well, so that a destroyed delegate is never called.
    void setDelegate(SocketManagerDelegate *delegate);
    SocketManagerDelegate *delegate() const;

    // Hands one binary message to the socket; the completion runs once it has been written.
    void write(const QByteArray &frame, std::function<void()> completion);

private:
    explicit SocketManager(QObject *parent = nullptr);

    void dropSocket();
    void onConnected();
    void onDisconnected();
    void finishDisconnected();
    void onError(const QString &message);
    void onTextMessage(const QString &text);
    void onBinaryMessage(const QByteArray &data);
    void markDisconnected();
    void callDidDisconnect();

    QWebSocket *m_socket = nullptr;
    QTimer *m_connectTimer = nullptr;
    QTimer *m_reconnectTimer = nullptr;
    bool m_isConnected = false;
    WebsoketStatus m_websoketStatus = WebsoketStatus::create;
    SocketManagerDelegate *m_delegate = nullptr;
    QPointer<QObject> m_delegateGuard;
    QString m_urlStr;
    // Qt reports one loss as an error and then a disconnect; only the first ends the connection.
    bool m_ended = false;
};
