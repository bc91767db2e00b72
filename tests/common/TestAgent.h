#pragma once

#include <QByteArray>
#include <QList>
#include <QObject>
#include <QPointer>
#include <QSslCertificate>
#include <QSslKey>
#include <QTcpSocket>
#include <QWebSocket>

#include <optional>

class QTcpServer;
class QWebSocketServer;

// An in-process remote agent on 127.0.0.1 (ws, or wss with the certificate given): it
// keeps every frame the companion sends, in order, and lets a test send what it likes,
// down to raw bytes on the TCP stream (ws), or stop reading as a hostile peer would.
class TestAgent : public QObject
{
public:
    struct Tls
    {
        QSslCertificate certificate;
        QSslKey key;
    };
    explicit TestAgent(std::optional<Tls> tls = std::nullopt);
    ~TestAgent() override { closeClient(); }

    QString ip() const { return m_secure ? QStringLiteral("wss://127.0.0.1") : QStringLiteral("ws://127.0.0.1"); }
    QString port() const;
    int connections() const { return m_connections; }
    bool hasClient() const { return m_client && m_client->state() == QAbstractSocket::ConnectedState; }

    void send(const QByteArray &frame) { if (m_client) m_client->sendBinaryMessage(frame); }
    void sendText(const QString &text) { if (m_client) m_client->sendTextMessage(text); }
    void sendRaw(const QByteArray &bytes) { if (m_transport) m_transport->write(bytes); }
    void closeClient() { if (m_client) m_client->abort(); }
    void closeGracefully(const QString &reason) { if (m_client) m_client->close(QWebSocketProtocol::CloseCodeNormal, reason); }
    // The frame being read never completes in a buffer this small: nothing more is taken
    // from the connection, and what the companion sends piles up on its side.
    void stopReading() { if (m_transport) m_transport->setReadBufferSize(1); }

    std::optional<QByteArray> nextFrame(int timeoutMs);
    QList<QByteArray> frames;

private:
    QWebSocketServer *m_server = nullptr;
    QTcpServer *m_tcp = nullptr; // ws only: the TCP side stays at hand
    QPointer<QTcpSocket> m_transport;
    QPointer<QWebSocket> m_client;
    bool m_secure = false;
    int m_connections = 0;
};
