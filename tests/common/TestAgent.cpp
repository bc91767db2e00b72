#include "TestAgent.h"

#include "Frame.h"
#include "TestCertificate.h"

#include <QHostAddress>
#include <QSslConfiguration>
#include <QTest>
#include <QWebSocket>
#include <QWebSocketServer>

TestAgent::TestAgent(bool secure, QObject *parent)
    : QObject(parent)
    , m_secure(secure)
{
    m_server = new QWebSocketServer(QStringLiteral("test-agent"),
                                    secure ? QWebSocketServer::SecureMode : QWebSocketServer::NonSecureMode, this);
    if (secure) {
        static const std::optional<TestCertificate> certificate = makeSelfSignedCertificate();
        if (certificate) {
            QSslConfiguration configuration = QSslConfiguration::defaultConfiguration();
            configuration.setLocalCertificate(certificate->certificate);
            configuration.setPrivateKey(certificate->key);
            configuration.setPeerVerifyMode(QSslSocket::VerifyNone);
            m_server->setSslConfiguration(configuration);
        }
    }
    connect(m_server, &QWebSocketServer::newConnection, this, &TestAgent::onNewConnection);
}

TestAgent::~TestAgent()
{
    if (m_client)
        m_client->abort();
}

bool TestAgent::listen()
{
    return m_server->listen(QHostAddress::LocalHost, 0);
}

QString TestAgent::ip() const
{
    return m_secure ? QStringLiteral("wss://127.0.0.1") : QStringLiteral("ws://127.0.0.1");
}

QString TestAgent::port() const
{
    return QString::number(m_server->serverPort());
}

QString TestAgent::url(const QString &token) const
{
    return ip() + QLatin1Char(':') + port() + QLatin1Char('/') + token;
}

bool TestAgent::waitForClient(int timeoutMs)
{
    return QTest::qWaitFor([this] { return hasClient(); }, timeoutMs);
}

bool TestAgent::hasClient() const
{
    return m_client && m_client->state() == QAbstractSocket::ConnectedState;
}

void TestAgent::closeClient()
{
    if (m_client)
        m_client->abort();
}

void TestAgent::closeClientGracefully(int code, const QString &reason)
{
    if (m_client)
        m_client->close(QWebSocketProtocol::CloseCode(code), reason);
}

void TestAgent::send(const QByteArray &frame)
{
    if (m_client)
        m_client->sendBinaryMessage(frame);
}

void TestAgent::sendMessage(const google::protobuf::MessageLite &message, FrameType type)
{
    send(kx::encodeFrame(message, type));
}

std::optional<QByteArray> TestAgent::nextFrame(int timeoutMs)
{
    if (m_frames.isEmpty() && !QTest::qWaitFor([this] { return !m_frames.isEmpty(); }, timeoutMs))
        return std::nullopt;
    return m_frames.takeFirst();
}

void TestAgent::onNewConnection()
{
    while (QWebSocket *socket = m_server->nextPendingConnection()) {
        if (m_client)
            m_client->abort();
        m_client = socket;
        socket->setParent(this);
        ++m_connections;
        connect(socket, &QWebSocket::binaryMessageReceived, this, &TestAgent::onBinaryMessage);
        emit clientConnected();
    }
}

void TestAgent::onBinaryMessage(const QByteArray &frame)
{
    if (m_serve && answer(frame))
        return;
    m_frames.append(frame);
    emit frameReceived();
}

bool TestAgent::answer(const QByteArray &frame)
{
    if (frame.isEmpty() || std::uint8_t(frame.back()) != std::uint8_t(FrameType::fileContentsRequest))
        return false;
    const auto request = kx::parseMessage<FileSDK::CliprdrFileContentsRequest>(frame.first(frame.size() - 1));
    if (!request || !m_contents.contains(request->listindex()))
        return false;
    const QByteArray &content = m_contents[request->listindex()];
    FileSDK::CliprdrFileContentsResponse response;
    *response.mutable_header() = kx::makeHeader(1, 0, 1, 1);
    response.set_streamid(request->streamid());
    if (request->dwflags() == 1) {
        const std::uint64_t size = std::uint64_t(content.size());
        response.set_cbrequested(8);
        response.set_requesteddata(reinterpret_cast<const char *>(&size), 8);
    } else {
        const std::uint64_t offset = kx::joinHalves(request->npositionhigh(), request->npositionlow());
        const QByteArray part = offset < std::uint64_t(content.size())
            ? content.mid(qsizetype(offset), qsizetype(request->cbrequested()))
            : QByteArray();
        response.set_cbrequested(std::uint32_t(part.size()));
        response.set_requesteddata(part.constData(), size_t(part.size()));
    }
    m_served.append(*request);
    sendMessage(response, FrameType::fileContentsResponse);
    return true;
}

FileSDK::CliprdrFormatList TestAgent::remoteFormatList()
{
    FileSDK::CliprdrFormatList list;
    *list.mutable_header() = kx::makeHeader(3, 2, 0, 7);
    list.set_numformats(2);
    auto *contents = list.add_formats();
    contents->set_formatid(49327);
    contents->set_formatname("FileContents");
    auto *descriptors = list.add_formats();
    descriptors->set_formatid(49346);
    descriptors->set_formatname("FileGroupDescriptorW");
    return list;
}

FileSDK::FileDescriptorw TestAgent::fileDescriptor(const QString &name, std::uint64_t size, std::uint32_t attributes)
{
    FileSDK::FileDescriptorw descriptor;
    descriptor.set_dwflags(0x4024);
    descriptor.set_dwfileattributes(attributes);
    descriptor.set_nfilesizehigh(std::uint32_t(size >> 32));
    descriptor.set_nfilesizelow(std::uint32_t(size & 0xffffffffu));
    descriptor.set_cfilename(name.toStdString());
    return descriptor;
}
