#include "AgentSimulator.h"

#include "Frame.h"
#include "FileTime.h"
#include "Wire.h"

#include <QDirIterator>
#include <QFileInfo>
#include <QProcess>
#include <QSslConfiguration>
#include <QSslKey>
#include <QTcpServer>
#include <QTemporaryDir>
#include <QTimer>
#include <QWebSocket>
#include <QWebSocketServer>

#include <cstdio>

namespace {

using namespace kx::wire;

bool makeCertificate(QSslConfiguration &configuration, QString *error)
{
    QTemporaryDir dir;
    const QString key = dir.filePath(QStringLiteral("key.pem"));
    const QString cert = dir.filePath(QStringLiteral("cert.pem"));
    QProcess openssl;
    openssl.start(QStringLiteral("openssl"), {"req", "-x509", "-newkey", "rsa:2048", "-nodes", "-keyout", key, "-out",
                                              cert, "-days", "30", "-subj", "/CN=127.0.0.1", "-addext",
                                              "subjectAltName=IP:127.0.0.1,DNS:localhost"});
    if (!openssl.waitForFinished(60000) || openssl.exitCode() != 0) {
        *error = QStringLiteral("openssl could not make a certificate");
        return false;
    }
    QFile keyFile(key);
    QFile certFile(cert);
    if (!keyFile.open(QIODevice::ReadOnly) || !certFile.open(QIODevice::ReadOnly))
        return false;
    configuration.setLocalCertificate(QSslCertificate(certFile.readAll(), QSsl::Pem));
    configuration.setPrivateKey(QSslKey(keyFile.readAll(), QSsl::Rsa, QSsl::Pem));
    configuration.setPeerVerifyMode(QSslSocket::VerifyNone);
    return true;
}

QString rate(quint64 bytes, qint64 ms)
{
    return QString::number(double(bytes) / 1e6 / (double(std::max<qint64>(ms, 1)) / 1000.0), 'f', 1) + " MB/s";
}

} // namespace

AgentSimulator::AgentSimulator(const Options &options, QObject *parent)
    : QObject(parent)
    , m_options(options)
{
}

void AgentSimulator::say(const QString &line)
{
    std::printf("agent: %s\n", line.toUtf8().constData());
    std::fflush(stdout);
}

bool AgentSimulator::start(QString *error)
{
    m_server = new QWebSocketServer(QStringLiteral("kx-agent-sim"),
                                    m_options.tls ? QWebSocketServer::SecureMode : QWebSocketServer::NonSecureMode, this);
    if (m_options.tls) {
        QSslConfiguration configuration = QSslConfiguration::defaultConfiguration();
        if (!makeCertificate(configuration, error))
            return false;
        m_server->setSslConfiguration(configuration);
    }
    connect(m_server, &QWebSocketServer::newConnection, this, &AgentSimulator::onConnection);
    if (!m_options.tls) {
        m_tcp = new QTcpServer(this);
        connect(m_tcp, &QTcpServer::newConnection, this, [this] {
            while (QTcpSocket *socket = m_tcp->nextPendingConnection())
                m_server->handleConnection(m_transport = socket);
        });
    }
    if (m_tcp ? !m_tcp->listen(QHostAddress(m_options.host), m_options.port)
              : !m_server->listen(QHostAddress(m_options.host), m_options.port)) {
        *error = m_tcp ? m_tcp->errorString() : m_server->errorString();
        return false;
    }
    if (!m_options.offerDir.isEmpty() || !m_options.extraNames.isEmpty())
        buildOffer();
    say(QStringLiteral("listening on %1://%2:%3").arg(m_options.tls ? "wss" : "ws", m_options.host).arg(port()));
    return true;
}

quint16 AgentSimulator::port() const
{
    return m_tcp ? m_tcp->serverPort() : m_server ? m_server->serverPort() : 0;
}

void AgentSimulator::buildOffer()
{
    m_serving.reset(); // the files may have been replaced since
    m_offer.clear();
    m_offerBytes = 0;
    const QDir root(m_options.offerDir);
    QDirIterator it(m_options.offerDir, QDir::AllEntries | QDir::NoDotAndDotDot | QDir::Hidden,
                    QDirIterator::Subdirectories);
    QStringList paths;
    while (it.hasNext())
        paths.append(it.next());
    paths.sort(); // a folder sorts before its contents
    for (const QString &path : std::as_const(paths)) {
        const QFileInfo info(path);
        FileSDK::FileDescriptorw d;
        d.set_dwflags(descriptorFlags);
        d.set_dwfileattributes(info.isDir() ? folderAttributes : normalAttributes);
        const quint64 size = info.isDir() ? 0 : quint64(info.size());
        d.set_nfilesizehigh(kx::highHalf(size));
        d.set_nfilesizelow(kx::lowHalf(size));
        const quint64 written = kx::fileTime(info.lastModified());
        d.set_ftlastwritetimehigh(kx::highHalf(written));
        d.set_ftlastwritetimelow(kx::lowHalf(written));
        d.set_cfilename(root.relativeFilePath(path).replace('/', '\\').toStdString());
        m_offer.append({path, d});
        m_offerBytes += size;
    }
    for (const QString &name : std::as_const(m_options.extraNames)) {
        FileSDK::FileDescriptorw d;
        d.set_dwfileattributes(normalAttributes);
        d.set_nfilesizelow(4);
        d.set_cfilename(name.toStdString());
        m_offer.append({QString(), d});
        m_offerBytes += 4;
    }
}

void AgentSimulator::onConnection()
{
    while (QWebSocket *socket = m_server->nextPendingConnection()) {
        if (m_client)
            m_client->abort();
        m_client = socket;
        socket->setParent(this);
        for (QAbstractSocket *transport : socket->findChildren<QAbstractSocket *>())
            transport->setSocketOption(QAbstractSocket::LowDelayOption, 1);
        say(QStringLiteral("companion connected"));
        connect(socket, &QWebSocket::binaryMessageReceived, this, &AgentSimulator::onFrame);
        connect(socket, &QWebSocket::disconnected, this, [this, socket] {
            if (socket == m_client)
                say(QStringLiteral("companion disconnected"));
            socket->deleteLater();
        });
    }
}

void AgentSimulator::send(const google::protobuf::MessageLite &message, FrameType type)
{
    const QByteArray frame = kx::encodeFrame(message, type);
    if (m_options.reorder && type == FrameType::fileContentsResponse) {
        // Held until this turn of the event loop ends, then sent last first.
        if (m_held.isEmpty())
            QTimer::singleShot(0, this, [this] {
                QList<QByteArray> held;
                held.swap(m_held);
                for (auto it = held.crbegin(); it != held.crend(); ++it)
                    deliver(*it);
            });
        m_held.append(frame);
        return;
    }
    deliver(frame);
}

// Each answer is delayed on its own, as a far network delays every packet: queries that
// arrive together are answered together, one round trip later.
void AgentSimulator::deliver(const QByteArray &frame)
{
    QPointer<QWebSocket> client = m_client;
    auto write = [client, frame] {
        if (client)
            client->sendBinaryMessage(frame);
    };
    if (m_options.rttMs > 0)
        QTimer::singleShot(m_options.rttMs, this, write);
    else
        write();
}

void AgentSimulator::sendFormatList()
{
    if (m_offer.isEmpty())
        return;
    send(kx::makeFileFormatList(kx::makeHeader(1, 2, 0, 0)), FrameType::formatList);
    say(QStringLiteral("offered %1 entries (%2 bytes): press Ctrl+V to paste them").arg(m_offer.size()).arg(m_offerBytes));
}

void AgentSimulator::onFrame(const QByteArray &frame)
{
    const auto received = kx::splitFrame(frame);
    if (!received)
        return;
    switch (FrameType(received->type)) {
    case FrameType::clientType:
        say(QStringLiteral("client type frame received"));
        sendFormatList();
        attackOnConnect();
        break;
    case FrameType::formatDataRequest:
        if (auto request = kx::parseMessage<FileSDK::CliprdrFormatDataRequest>(received->payload))
            answerDescriptorRequest(*request);
        break;
    case FrameType::fileContentsRequest:
        if (auto request = kx::parseMessage<FileSDK::CliprdrFileContentsRequest>(received->payload))
            answerContents(*request);
        break;
    case FrameType::formatList:
        say(QStringLiteral("the companion announced a local copy"));
        if (!attackOnLocalCopy())
            startFetch();
        break;
    case FrameType::formatDataResponse:
        if (auto list = kx::parseMessage<FileSDK::MacCliprdrFormatDataResponse>(received->payload))
            onDescriptorList(*list);
        break;
    case FrameType::fileContentsResponse:
        if (auto response = kx::parseMessage<FileSDK::CliprdrFileContentsResponse>(received->payload))
            onContents(*response);
        break;
    default:
        break;
    }
}

void AgentSimulator::answerDescriptorRequest(const FileSDK::CliprdrFormatDataRequest &request)
{
    say(QStringLiteral("descriptor list asked for (format %1)").arg(request.requestedformatid()));
    if (attackOnDescriptorRequest())
        return;
    FileSDK::MacCliprdrFormatDataResponse response;
    *response.mutable_header() = kx::answerHeader();
    for (const Entry &entry : std::as_const(m_offer))
        *response.add_filedes() = entry.descriptor;
    m_servedBytes = 0;
    // Timed from the first query on: the list is asked for before the folder chooser
    // opens, and the user's time in it is not the transfer's.
    m_offerClock.invalidate();
    send(response, FrameType::formatDataResponse);
}

void AgentSimulator::answerContents(const FileSDK::CliprdrFileContentsRequest &request)
{
    if (attackOnContents(request))
        return;
    if (!m_offerClock.isValid())
        m_offerClock.start();
    FileSDK::CliprdrFileContentsResponse response;
    *response.mutable_header() = kx::answerHeader();
    response.set_streamid(request.streamid());
    if (request.listindex() >= std::uint32_t(m_offer.size()))
        return;
    const Entry &entry = m_offer.at(request.listindex());
    const quint64 size = kx::descriptorSize(entry.descriptor);
    if (request.dwflags() == sizeQueryFlag) {
        response.set_cbrequested(sizeQueryLength);
        response.set_requesteddata(reinterpret_cast<const char *>(&size), 8);
        send(response, FrameType::fileContentsResponse);
        return;
    }
    const quint64 offset = kx::queryOffset(request);
    std::string &data = *response.mutable_requesteddata();
    if (entry.localPath.isEmpty()) {
        data = QByteArray("evil").mid(qsizetype(offset), qsizetype(request.cbrequested())).toStdString();
    } else {
        // Read straight into the answer, from a file kept open while its ranges are asked for.
        if (!m_serving || m_serving->fileName() != entry.localPath) {
            m_serving = std::make_unique<QFile>(entry.localPath);
            if (!m_serving->open(QIODevice::ReadOnly))
                m_serving.reset();
        }
        data.resize(std::min<std::uint32_t>(request.cbrequested(), 64u << 20));
        const qint64 got = m_serving && m_serving->seek(qint64(offset))
            ? m_serving->read(data.data(), qint64(data.size())) : 0;
        data.resize(size_t(std::max<qint64>(got, 0)));
    }
    response.set_cbrequested(std::uint32_t(data.size()));
    send(response, FrameType::fileContentsResponse);
    m_servedBytes += quint64(data.size());
    if (m_options.dropAfterBytes >= 0 && m_servedBytes >= quint64(m_options.dropAfterBytes) && m_droppedAfter == 0) {
        m_droppedAfter = qint64(m_servedBytes);
        say(QStringLiteral("dropping the connection after %1 bytes").arg(m_servedBytes));
        QTimer::singleShot(0, this, [this] { if (m_client) m_client->abort(); });
        return;
    }
    if (m_servedBytes >= m_offerBytes && offset + quint64(data.size()) >= size) {
        const qint64 ms = m_offerClock.elapsed();
        say(QStringLiteral("served the whole offer: %1 bytes in %2 ms (%3)").arg(m_servedBytes).arg(ms).arg(rate(m_servedBytes, ms)));
        m_servedBytes = 0;
        // The remote board still holds the files: offer them again for the next paste.
        QTimer::singleShot(300, this, &AgentSimulator::sendFormatList);
    }
}

void AgentSimulator::command(const QString &line)
{
    if (line == QLatin1String("offer")) {
        if (!m_options.offerDir.isEmpty())
            buildOffer();
        sendFormatList();
    } else if (line == QLatin1String("drop") && m_client) {
        say(QStringLiteral("dropping the connection"));
        m_client->abort();
    } else if (!line.isEmpty()) {
        say(QStringLiteral("unknown command: %1").arg(line));
    }
}

void AgentSimulator::startFetch()
{
    if (m_options.inboxDir.isEmpty())
        return;
    FileSDK::CliprdrFormatDataRequest request;
    *request.mutable_header() = kx::makeHeader(0, 0, 0, 0);
    request.set_requestedformatid(descriptorFormatId);
    send(request, FrameType::formatDataRequest);
    say(QStringLiteral("pasting on the remote side: asked for the descriptor list"));
}

void AgentSimulator::onDescriptorList(const FileSDK::MacCliprdrFormatDataResponse &list)
{
    if (attackOnDescriptorList(list))
        return;
    m_incoming = QList<FileSDK::FileDescriptorw>(list.filedes().begin(), list.filedes().end());
    say(QStringLiteral("descriptor list: %1 entries").arg(m_incoming.size()));
    m_fetch = Fetch{};
    m_fetchedBytes = 0;
    m_fetchedFiles = 0;
    m_fetching = true;
    m_fetchClock.start();
    fetchNext();
}

void AgentSimulator::fetchNext()
{
    const QDir inbox(m_options.inboxDir);
    for (int index = m_fetch.index + 1; index < m_incoming.size(); ++index) {
        const auto &d = m_incoming.at(index);
        QString name = QString::fromStdString(d.cfilename()).replace(QStringLiteral("//"), QStringLiteral("/"));
        while (name.endsWith('/'))
            name.chop(1);
        if (name.isEmpty() || name.split('/').contains(QStringLiteral("..")))
            continue;
        const QString path = inbox.filePath(name);
        if (d.dwfileattributes() == folderAttributes) {
            inbox.mkpath(name);
            continue;
        }
        QDir().mkpath(QFileInfo(path).path());
        m_fetch = Fetch{index, path, kx::descriptorSize(d), 0, std::make_unique<QFile>(path), false};
        if (!m_fetch.file->open(QIODevice::WriteOnly | QIODevice::Truncate)) {
            say(QStringLiteral("cannot write %1").arg(path));
            continue;
        }
        send(kx::makeContentsQuery(std::uint32_t(index % 10), std::uint32_t(index), sizeQueryFlag, 0, sizeQueryLength),
             FrameType::fileContentsRequest);
        return;
    }
    m_fetching = false;
    const qint64 ms = m_fetchClock.elapsed();
    say(QStringLiteral("received %1 files, %2 bytes in %3 ms (%4) into %5")
            .arg(m_fetchedFiles).arg(m_fetchedBytes).arg(ms).arg(rate(m_fetchedBytes, ms), m_options.inboxDir));
}

void AgentSimulator::askRange()
{
    if (m_fetch.received >= m_fetch.size) {
        m_fetch.file->close();
        ++m_fetchedFiles;
        fetchNext();
        return;
    }
    send(kx::makeContentsQuery(std::uint32_t(m_fetch.index % 10), std::uint32_t(m_fetch.index), rangeQueryFlag,
                               m_fetch.received, chunkSize),
         FrameType::fileContentsRequest);
}

void AgentSimulator::onContents(const FileSDK::CliprdrFileContentsResponse &response)
{
    if (!m_fetching || !m_fetch.file)
        return;
    if (response.header().msgflags() == responseFailed) {
        say(QStringLiteral("the companion could not read %1").arg(m_fetch.path));
        m_fetch.file->close();
        fetchNext();
        return;
    }
    if (!m_fetch.sized) { // the answer to the size query; the descriptor already told
        m_fetch.sized = true;
        askRange();
        return;
    }
    m_fetch.file->write(response.requesteddata().data(), qint64(response.requesteddata().size()));
    m_fetch.received += response.requesteddata().size();
    m_fetchedBytes += response.requesteddata().size();
    if (response.requesteddata().empty()) {
        say(QStringLiteral("empty answer for %1; giving up on it").arg(m_fetch.path));
        m_fetch.received = m_fetch.size;
    }
    askRange();
}
