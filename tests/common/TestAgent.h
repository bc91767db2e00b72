#pragma once

#include "FrameType.h"
#include "Messages.h"

#include <QByteArray>
#include <QHash>
#include <QList>
#include <QObject>
#include <QPointer>

#include <optional>

class QWebSocket;
class QWebSocketServer;

// An in-process remote agent on 127.0.0.1: it records every frame the companion sends and
// lets a test answer frame by frame, or answer file-contents queries by itself.
class TestAgent : public QObject
{
    Q_OBJECT
public:
    explicit TestAgent(bool secure = false, QObject *parent = nullptr);
    ~TestAgent() override;

    bool listen();
    QString ip() const;
    QString port() const;
    QString url(const QString &token) const;

    bool waitForClient(int timeoutMs = 10000);
    int connections() const { return m_connections; }
    bool hasClient() const;
    void closeClient(); // drops the TCP connection abruptly
    void closeClientGracefully(int code, const QString &reason);

    void send(const QByteArray &frame);
    void sendMessage(const google::protobuf::MessageLite &message, FrameType type);

    // The next frame received (in order), waiting up to the time-out.
    std::optional<QByteArray> nextFrame(int timeoutMs = 10000);
    // The next frame of the given type, dropping frames of other types before it.
    template <typename Message>
    std::optional<Message> next(FrameType type, int timeoutMs = 10000)
    {
        while (auto frame = nextFrame(timeoutMs)) {
            if (frame->isEmpty() || std::uint8_t(frame->back()) != std::uint8_t(type))
                continue;
            return kx::parseMessage<Message>(frame->first(frame->size() - 1));
        }
        return std::nullopt;
    }
    QList<QByteArray> pending() const { return m_frames; }
    void clearPending() { m_frames.clear(); }

    // When set, size and range queries are answered from these contents by list index.
    void serveContents(const QHash<std::uint32_t, QByteArray> &contents) { m_contents = contents; m_serve = true; }
    void stopServing() { m_serve = false; }
    int answeredQueries() const { return int(m_served.size()); }
    // Every file-contents query the agent answered by itself, in order.
    QList<FileSDK::CliprdrFileContentsRequest> servedQueries() const { return m_served; }

    // Messages the remote side sends in a paste from it.
    static FileSDK::CliprdrFormatList remoteFormatList();
    static FileSDK::FileDescriptorw fileDescriptor(const QString &name, std::uint64_t size,
                                                   std::uint32_t attributes = 0x80);

signals:
    void frameReceived();
    void clientConnected();

private:
    void onNewConnection();
    void onBinaryMessage(const QByteArray &frame);
    bool answer(const QByteArray &frame);

    QWebSocketServer *m_server = nullptr;
    QPointer<QWebSocket> m_client;
    QList<QByteArray> m_frames;
    int m_connections = 0;
    bool m_secure = false;
    bool m_serve = false;
    QList<FileSDK::CliprdrFileContentsRequest> m_served;
    QHash<std::uint32_t, QByteArray> m_contents;
};
