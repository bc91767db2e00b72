#pragma once

#include <QByteArray>
#include <QList>
#include <QObject>
#include <QPointer>
#include <QSslCertificate>
#include <QSslKey>

#include <optional>

class QTcpServer;
class QTcpSocket;
class QWebSocket;
class QWebSocketServer;

// An in-process remote agent on 127.0.0.1 (ws, or wss with the certificate given): it
// keeps every frame the companion sends, in order, and lets a test send what it likes,
// down to raw bytes on the TCP stream, or stop reading as a hostile peer would.
class TestAgent : public QObject
{
public:
    struct Tls
    {
        QSslCertificate certificate;
        QSslKey key;
    };
    explicit TestAgent(std::optional<Tls> tls = std::nullopt);
    ~TestAgent() override;

    QString ip() const;
    QString port() const;
    int connections() const { return m_connections; }
    bool hasClient() const;

    void send(const QByteArray &frame);
    void sendText(const QString &text);
    void sendRaw(const QByteArray &bytes); // straight onto the TCP stream, framing and all
    void closeClient();
    void closeGracefully(const QString &reason); // a close frame with code 1000
    // A peer that stops reading: what the companion sends piles up on its side.
    void stopReading();

    std::optional<QByteArray> nextFrame(int timeoutMs);
    QList<QByteArray> frames;

private:
    QWebSocketServer *m_server = nullptr;
    QTcpServer *m_tcp = nullptr;        // ws only: the TCP side stays at hand
    QPointer<QTcpSocket> m_transport;
    QPointer<QWebSocket> m_client;
    bool m_secure = false;
    int m_connections = 0;
};
