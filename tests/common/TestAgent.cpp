#include "TestAgent.h"

#include <QSslConfiguration>
#include <QTcpServer>
#include <QTest>
#include <QWebSocketServer>

TestAgent::TestAgent(std::optional<Tls> tls)
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

QString TestAgent::port() const
{
    return QString::number(m_tcp ? m_tcp->serverPort() : m_server->serverPort());
}

std::optional<QByteArray> TestAgent::nextFrame(int timeoutMs)
{
    if (frames.isEmpty() && !QTest::qWaitFor([this] { return !frames.isEmpty(); }, timeoutMs))
        return std::nullopt;
    return frames.takeFirst();
}
