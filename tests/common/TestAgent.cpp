#include "TestAgent.h"

#include <QHostAddress>
#include <QSslConfiguration>
#include <QTcpServer>
#include <QTcpSocket>
#include <QTest>
#include <QWebSocket>
#include <QWebSocketServer>

TestAgent::TestAgent(std::optional<Tls> tls)
    : m_secure(tls.has_value())
{
    m_server = new QWebSocketServer(QStringLiteral("test-agent"),
                                    tls ? QWebSocketServer::SecureMode : QWebSocketServer::NonSecureMode, this);
    if (tls) {
        QSslConfiguration configuration = QSslConfiguration::defaultConfiguration();
        configuration.setLocalCertificate(tls->certificate);
        configuration.setPrivateKey(tls->key);
        configuration.setPeerVerifyMode(QSslSocket::VerifyNone);
        m_server->setSslConfiguration(configuration);
    }
    connect(m_server, &QWebSocketServer::newConnection, this, [this] {
        while (QWebSocket *socket = m_server->nextPendingConnection()) {
            if (m_client)
                m_client->abort();
            m_client = socket;
            socket->setParent(this);
            socket->setMaxAllowedIncomingMessageSize(QWebSocket::maxIncomingMessageSize());
            ++m_connections;
            connect(socket, &QWebSocket::binaryMessageReceived, this, [this](const QByteArray &f) { frames.append(f); });
        }
    });
    if (tls) {
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

TestAgent::~TestAgent()
{
    if (m_client)
        m_client->abort();
}

QString TestAgent::ip() const
{
    return m_secure ? QStringLiteral("wss://127.0.0.1") : QStringLiteral("ws://127.0.0.1");
}

QString TestAgent::port() const
{
    return QString::number(m_tcp ? m_tcp->serverPort() : m_server->serverPort());
}

bool TestAgent::hasClient() const
{
    return m_client && m_client->state() == QAbstractSocket::ConnectedState;
}

void TestAgent::send(const QByteArray &frame)
{
    if (m_client)
        m_client->sendBinaryMessage(frame);
}

void TestAgent::sendText(const QString &text)
{
    if (m_client)
        m_client->sendTextMessage(text);
}

void TestAgent::sendRaw(const QByteArray &bytes)
{
    if (m_transport)
        m_transport->write(bytes);
}

void TestAgent::stopReading()
{
    // The frame being read never completes in a buffer this small, so nothing more is
    // taken from the connection.
    if (m_transport)
        m_transport->setReadBufferSize(1);
}

void TestAgent::closeClient()
{
    if (m_client)
        m_client->abort();
}

void TestAgent::closeGracefully(const QString &reason)
{
    if (m_client)
        m_client->close(QWebSocketProtocol::CloseCodeNormal, reason);
}

std::optional<QByteArray> TestAgent::nextFrame(int timeoutMs)
{
    if (frames.isEmpty() && !QTest::qWaitFor([this] { return !frames.isEmpty(); }, timeoutMs))
        return std::nullopt;
    return frames.takeFirst();
}
