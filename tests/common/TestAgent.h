#pragma once

#include <QByteArray>
#include <QList>
#include <QObject>
#include <QPointer>
#include <QSslCertificate>
#include <QSslConfiguration>
#include <QSslKey>
#include <QTcpServer>
#include <QTcpSocket>
#include <QTest>
#include <QWebSocket>
#include <QWebSocketServer>

#include <optional>

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
        QString fingerprint;       // SHA-256, AB:CD:…, as openssl prints it
        QSslCertificate authority; // the issuer, where it is not the certificate itself
    };
    explicit TestAgent(std::optional<Tls> tls = std::nullopt)
        : m_secure(tls.has_value())
    {
        m_server = new QWebSocketServer("test-agent", tls ? QWebSocketServer::SecureMode : QWebSocketServer::NonSecureMode, this);
        connect(m_server, &QWebSocketServer::newConnection, this, [this] {
            while (QWebSocket *socket = m_server->nextPendingConnection()) {
                closeClient();
                m_client = socket;
                socket->setParent(this);
                ++m_connections;
                connect(socket, &QWebSocket::binaryMessageReceived, this, [this](const QByteArray &f) { frames.append(f); });
            }
        });
        if (tls) {
            QSslConfiguration configuration = QSslConfiguration::defaultConfiguration();
            configuration.setLocalCertificate(tls->certificate);
            configuration.setPrivateKey(tls->key);
            configuration.setPeerVerifyMode(QSslSocket::VerifyNone);
            m_server->setSslConfiguration(configuration);
            m_server->listen(QHostAddress::LocalHost, 0);
            return;
        }
        m_tcp = new QTcpServer(this);
        connect(m_tcp, &QTcpServer::newConnection, this, [this] {
            while (QTcpSocket *socket = m_tcp->nextPendingConnection()) {
                m_transport = socket;
                m_server->handleConnection(socket);
            }
        });
        m_tcp->listen(QHostAddress::LocalHost, 0);
    }
    ~TestAgent() override { closeClient(); }

    QString ip() const { return m_secure ? QStringLiteral("wss://127.0.0.1") : QStringLiteral("ws://127.0.0.1"); }
    QString port() const { return QString::number(m_tcp ? m_tcp->serverPort() : m_server->serverPort()); }
    int connections() const { return m_connections; }
    bool hasClient() const { return m_client && m_client->state() == QAbstractSocket::ConnectedState; }

    void send(const QByteArray &frame) { if (m_client) m_client->sendBinaryMessage(frame); }
    void sendText(const QString &text) { if (m_client) m_client->sendTextMessage(text); }
    void sendRaw(const QByteArray &bytes) { if (m_transport) m_transport->write(bytes); }
    void closeClient() { if (m_client) m_client->abort(); }
    void closeGracefully(const QString &reason) { if (m_client) m_client->close(QWebSocketProtocol::CloseCodeNormal, reason); }
    // The frame being read never completes in a buffer this small: nothing more is taken
    // from the connection, and what the companion sends piles up on its side.
    void stopReading() { m_transport ? m_transport->setReadBufferSize(1) : m_client->setReadBufferSize(1); }

    std::optional<QByteArray> nextFrame(int timeoutMs)
    {
        if (frames.isEmpty() && !QTest::qWaitFor([this] { return !frames.isEmpty(); }, timeoutMs))
            return std::nullopt;
        return frames.takeFirst();
    }
    QList<QByteArray> frames;

private:
    QWebSocketServer *m_server = nullptr;
    QTcpServer *m_tcp = nullptr; // ws only: the TCP side stays at hand
    QPointer<QTcpSocket> m_transport;
    QPointer<QWebSocket> m_client;
    bool m_secure = false;
    int m_connections = 0;
};
