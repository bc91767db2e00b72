#pragma once

#include "CertificatePin.h"
#include "FrameSink.h"
#include "SocketManagerDelegate.h"
#include "WebsoketStatus.h"

#include <QObject>
#include <QPointer>
#include <QString>

#include <functional>

class QSslSocket;
class QWebSocket;
class QTimer;

// Owns the one WebSocket connection of the process to the remote clipboard agent.
// It knows nothing of the messages: it connects, reports events to its delegate and
// reconnects two seconds after a loss when asked, for as long as the process runs.
class SocketManager : public QObject, public FrameSink
{
    Q_OBJECT
public:
    static constexpr int connectTimeoutMs = 15000;
    static constexpr int reconnectDelayMs = 2000;
    // The largest message or frame taken from the agent: room for a list of 100,000
    // files, and a bound on what a hostile peer can make us hold. A larger one ends the
    // connection as a loss does.
    static constexpr quint64 maxIncomingBytes = 64ull * 1024 * 1024;
    // How much of a received text message the log shows.
    static constexpr qsizetype loggedTextLength = 4096;

    explicit SocketManager(QObject *parent = nullptr);
    static SocketManager *shared();

    void connect(const QString &urlStr) override;
    void reconnect() override;
    void setCertificatePin(const CertificatePin &pin) override { m_pin = pin; }

    bool isConnected() const override { return m_isConnected; }
    WebsoketStatus websoketStatus() const { return m_websoketStatus; }
    QString urlStr() const { return m_urlStr; }
    QWebSocket *socket() const { return m_socket; }

    void setDelegate(SocketManagerDelegate *delegate) override;
    SocketManagerDelegate *delegate() const override;

    void write(const QByteArray &frame, std::function<void()> completion) override;
    qint64 bytesToWrite() const override;
    void dropConnection(const QString &reason) override;

private:
    void dropSocket();
    void onConnected();
    void onDrained();
    void onDisconnected();
    void finishDisconnected();
    void onError(const QString &message);
    void onTextMessage(const QString &text);
    void onBinaryMessage(const QByteArray &data);
    bool refusedByPin(QSslSocket *tls) const;
    QString masked(const QString &text) const;
    void markDisconnected();
    void callDidDisconnect();

    QWebSocket *m_socket = nullptr;
    // The TLS layer under m_socket, whose encrypted bytes queue apart from the plain ones.
    QPointer<QSslSocket> m_tls;
    QTimer *m_connectTimer = nullptr;
    QTimer *m_reconnectTimer = nullptr;
    bool m_isConnected = false;
    WebsoketStatus m_websoketStatus = WebsoketStatus::create;
    SocketManagerDelegate *m_delegate = nullptr;
    QPointer<QObject> m_delegateGuard;
    QString m_urlStr;
    CertificatePin m_pin;
    bool m_refusedByPin = false; // the current attempt's certificate was not the pinned one
    // Qt reports one loss as an error and then a disconnect; only the first ends the connection.
    bool m_ended = false;
};
