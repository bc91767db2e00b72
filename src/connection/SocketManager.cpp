#include "SocketManager.h"

#include "ConnectionLog.h"
#include "SecretMask.h"

#include <QAbstractSocket>
#include <QSslCertificate>
#include <QSslConfiguration>
#include <QSslError>
#include <QSslSocket>
#include <QTimer>
#include <QUrl>
#include <QWebSocket>

Q_LOGGING_CATEGORY(lcConnection, "kx.connection")

SocketManager::SocketManager(QObject *parent)
    : QObject(parent)
{
    m_connectTimer = new QTimer(this);
    m_connectTimer->setSingleShot(true);
    m_connectTimer->setInterval(connectTimeoutMs);
    QObject::connect(m_connectTimer, &QTimer::timeout, this, [this] {
        if (!m_socket || m_ended)
            return;
        QWebSocket *timedOut = m_socket;
        timedOut->disconnect(this);
        timedOut->abort();
        onError(QStringLiteral("The connection timed out"));
    });
    m_reconnectTimer = new QTimer(this);
    m_reconnectTimer->setSingleShot(true);
    m_reconnectTimer->setInterval(reconnectDelayMs);
    QObject::connect(m_reconnectTimer, &QTimer::timeout, this, [this] {
        qCInfo(lcConnection).noquote().nospace() << "再次重连self.urlStr:" << kx::maskedUrl(m_urlStr);
        connect(m_urlStr);
    });
}

SocketManager *SocketManager::shared()
{
    // Process-wide and never released, like the connection it keeps.
    static SocketManager *instance = new SocketManager;
    return instance;
}

void SocketManager::setDelegate(SocketManagerDelegate *delegate)
{
    m_delegate = delegate;
    m_delegateGuard = dynamic_cast<QObject *>(delegate);
}

SocketManagerDelegate *SocketManager::delegate() const
{
    return m_delegateGuard ? m_delegate : nullptr;
}

void SocketManager::dropSocket()
{
    if (!m_socket)
        return;
    // The old client must not touch the new connection with late events.
    m_socket->disconnect(this);
    if (m_tls)
        m_tls->disconnect(this);
    m_socket->abort();
    m_socket->deleteLater();
    m_socket = nullptr;
    m_tls = nullptr;
}

void SocketManager::connect(const QString &urlStr)
{
    m_urlStr = urlStr;
    const QUrl url(urlStr, QUrl::StrictMode);
    if (urlStr.isEmpty() || !url.isValid())
        return;

    // A fresh connection supersedes a reconnection still waiting to run.
    m_reconnectTimer->stop();
    dropSocket();
    m_socket = new QWebSocket(QString(), QWebSocketProtocol::VersionLatest, this);
    m_ended = false;
    m_refusedByPin = false;
    QWebSocket *client = m_socket;
    QObject::connect(client, &QWebSocket::connected, this, &SocketManager::onConnected);
    QObject::connect(client, &QWebSocket::disconnected, this, &SocketManager::onDisconnected);
    QObject::connect(client, &QWebSocket::textMessageReceived, this, &SocketManager::onTextMessage);
    QObject::connect(client, &QWebSocket::binaryMessageReceived, this, &SocketManager::onBinaryMessage);
#if QT_VERSION >= QT_VERSION_CHECK(6, 5, 0)
    const auto errorSignal = &QWebSocket::errorOccurred;
#else
    const auto errorSignal = qOverload<QAbstractSocket::SocketError>(&QWebSocket::error);
#endif
    QObject::connect(client, errorSignal, this,
                     [this, client](QAbstractSocket::SocketError) {
                         // Qt would blame the authorities the pin set aside.
                         onError(m_refusedByPin ? QStringLiteral("the agent's certificate is not the pinned one") : client->errorString());
                     });
    if (m_pin.isSet()) {
        // Trusting no authority at all makes every certificate reach the pin below, also one
        // an authority of this system vouches for: the pin alone decides, during the TLS
        // handshake, before the request with the token in it is sent.
        QSslConfiguration tls = client->sslConfiguration();
        tls.setCaCertificates({});
        client->setSslConfiguration(tls);
    }
    // The agent's certificate is of its own making and its clock may differ from ours:
    // whatever is wrong with it is accepted, and said once. The token guards the
    // connection; a pin, when given, narrows it to one certificate.
    QObject::connect(client, &QWebSocket::sslErrors, this, [this, client](const QList<QSslError> &errors) {
        m_refusedByPin = refusedByPin(client->findChild<QSslSocket *>());
        if (m_refusedByPin)
            return; // not ignored: the handshake fails, and the connection with it
        QStringList faults;
        for (const QSslError &error : errors)
            faults.append(error.errorString());
        qCInfo(lcConnection).noquote() << "accepting the agent's certificate despite:" << faults.join(QStringLiteral("; "));
        client->ignoreSslErrors(errors);
    });
    QObject::connect(client, &QWebSocket::bytesWritten, this, &SocketManager::onDrained);
    client->setMaxAllowedIncomingMessageSize(maxIncomingBytes);
    client->setMaxAllowedIncomingFrameSize(maxIncomingBytes);

    m_websoketStatus = WebsoketStatus::connecting;
    m_connectTimer->start();
    client->open(QNetworkRequest(url));
}

bool SocketManager::refusedByPin(QSslSocket *tls) const
{
    const QSslCertificate presented = tls ? tls->peerCertificate() : QSslCertificate();
    if (!m_pin.isSet() || m_pin.matches(presented))
        return false;
    qCInfo(lcConnection).noquote().nospace() << "refusing the agent's certificate: its SHA-256 fingerprint is "
                                            << CertificatePin::fingerprint(presented) << ", the pin is " << m_pin.expected();
    return true;
}

// What the agent or Qt says may quote the request: the token in it is masked.
QString SocketManager::masked(const QString &text) const
{
    return kx::maskedWithin(text, kx::urlSecret(m_urlStr));
}

void SocketManager::reconnect()
{
    if (m_websoketStatus == WebsoketStatus::connecting) {
        qCInfo(lcConnection).noquote() << "重连中无需再次重连";
        return;
    }
    m_websoketStatus = WebsoketStatus::connecting;
    m_reconnectTimer->start();
}

void SocketManager::write(const QByteArray &frame, std::function<void()> completion)
{
    if (!m_socket || m_socket->state() != QAbstractSocket::ConnectedState)
        return;
    m_socket->sendBinaryMessage(frame);
    if (completion)
        QMetaObject::invokeMethod(this, std::move(completion), Qt::QueuedConnection);
}

qint64 SocketManager::bytesToWrite() const
{
    if (!m_socket)
        return 0;
    return m_socket->bytesToWrite() + (m_tls ? m_tls->encryptedBytesToWrite() : 0);
}

void SocketManager::dropConnection(const QString &reason)
{
    if (!m_socket || m_ended)
        return;
    dropSocket();
    markDisconnected();
    callDidDisconnect();
    qCInfo(lcConnection).noquote().nospace() << "websocket is disconnected: " << reason
                                            << " with code: " << int(QWebSocketProtocol::CloseCodePolicyViolated);
}

void SocketManager::onDrained()
{
    if (auto *d = delegate())
        d->socketDidDrain();
}

void SocketManager::onConnected()
{
    m_connectTimer->stop();
    m_tls = m_socket ? m_socket->findChild<QSslSocket *>() : nullptr;
    // A certificate that raised no fault never met the pin: it meets it here, before
    // anything is sent on the connection.
    if (m_tls && refusedByPin(m_tls)) {
        dropSocket();
        markDisconnected();
        callDidDisconnect();
        return;
    }
    if (m_tls)
        QObject::connect(m_tls, &QSslSocket::encryptedBytesWritten, this, &SocketManager::onDrained);
    // Queries are small and each waits for its answer: Nagle's algorithm against the
    // peer's delayed acknowledgement would cost tens of milliseconds per round trip.
    if (m_socket) {
        for (QAbstractSocket *transport : m_socket->findChildren<QAbstractSocket *>())
            transport->setSocketOption(QAbstractSocket::LowDelayOption, true);
    }
    m_isConnected = true;
    m_websoketStatus = WebsoketStatus::connected;
    // Qt does not expose the handshake response's headers; the empty dictionary keeps the
    // line's shape for whoever reads the log.
    qCInfo(lcConnection).noquote() << "websocket is connected: [:]";
    if (auto *d = delegate())
        d->socketDidConnect();
}

// The connect time-out may still fire for the attempt that ended; it finds it ended.
void SocketManager::markDisconnected()
{
    m_ended = true;
    m_isConnected = false;
    m_websoketStatus = WebsoketStatus::disconnect;
}

void SocketManager::callDidDisconnect()
{
    if (auto *d = delegate())
        d->socketDidDisconnect();
}

void SocketManager::onDisconnected()
{
    // A failed attempt is reported by Qt as a disconnect immediately followed by the error
    // that explains it; handling the disconnect one turn later lets the error speak first.
    QPointer<QWebSocket> client = m_socket;
    QMetaObject::invokeMethod(this, [this, client] {
        if (client == m_socket) // a client replaced meanwhile has ended for nobody
            finishDisconnected();
    }, Qt::QueuedConnection);
}

void SocketManager::finishDisconnected()
{
    if (m_ended)
        return;
    const QString reason = m_socket->closeReason();
    const int code = int(m_socket->closeCode());
    markDisconnected();
    callDidDisconnect();
    qCInfo(lcConnection).noquote().nospace() << "websocket is disconnected: " << masked(reason) << " with code: " << code;
}

void SocketManager::onError(const QString &message)
{
    if (m_ended)
        return;
    markDisconnected();
    if (message.isEmpty()) {
        callDidDisconnect();
        qCInfo(lcConnection).noquote() << "websocket encountered an error";
    } else {
        qCInfo(lcConnection).noquote().nospace() << "websocket encountered an error: " << masked(message);
        callDidDisconnect();
    }
    callDidDisconnect();
}

void SocketManager::onTextMessage(const QString &text)
{
    if (text.size() <= loggedTextLength)
        qCInfo(lcConnection).noquote().nospace() << "websocket is Received text: " << masked(text);
    else
        qCInfo(lcConnection).noquote().nospace() << "websocket is Received text: " << masked(text.left(loggedTextLength))
                                                << "… (" << text.size() << " characters in all)";
    if (auto *d = delegate())
        d->socketDidReceive(text);
}

void SocketManager::onBinaryMessage(const QByteArray &data)
{
    qCInfo(lcConnection).noquote().nospace() << "websocket is Received data: " << data.size();
    if (auto *d = delegate())
        d->socketDidReceive(data);
}
