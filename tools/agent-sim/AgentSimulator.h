#pragma once

#include "FrameType.h"
#include "Messages.h"

#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QObject>
#include <QPointer>
#include <QStringList>

#include <memory>

class QTcpServer;
class QTcpSocket;
class QWebSocket;
class QWebSocketServer;

// Plays the remote clipboard agent for demos and end-to-end tests: it offers a folder
// tree for a paste, and fetches whatever the companion announces into an inbox.
class AgentSimulator : public QObject
{
    Q_OBJECT
public:
    struct Options
    {
        QString host = QStringLiteral("127.0.0.1");
        quint16 port = 0;
        bool tls = false;
        QString offerDir;
        QString inboxDir;
        int rttMs = 0;
        qint64 dropAfterBytes = -1; // drop the connection once this many bytes were served
        QStringList extraNames;     // names offered as they are, such as hostile ones
        bool reorder = false;       // answer the queries of one turn last first
        QString attack;             // a hostile agent's move (AgentSimulatorAttacks.cpp)
    };

    explicit AgentSimulator(const Options &options, QObject *parent = nullptr);
    bool start(QString *error);
    // Commands read from standard input, one a line: "offer" copies the offered tree
    // again on the remote side, "drop" drops the connection.
    void command(const QString &line);
    quint16 port() const;

private:
    struct Entry
    {
        QString localPath;
        FileSDK::FileDescriptorw descriptor;
    };
    struct Fetch
    {
        int index = -1;
        QString path;
        quint64 size = 0;
        quint64 received = 0;
        std::unique_ptr<QFile> file;
        bool sized = false;
    };

    void onConnection();
    void onFrame(const QByteArray &frame);
    void send(const google::protobuf::MessageLite &message, FrameType type);
    void deliver(const QByteArray &frame);
    void sendFormatList();
    void answerDescriptorRequest(const FileSDK::CliprdrFormatDataRequest &request);
    void answerContents(const FileSDK::CliprdrFileContentsRequest &request);
    void buildOffer();
    void startFetch();
    void onDescriptorList(const FileSDK::MacCliprdrFormatDataResponse &list);
    void fetchNext();
    void onContents(const FileSDK::CliprdrFileContentsResponse &response);
    void askRange();
    void say(const QString &line);
    // Hostile moves, for trying the companion as an attacker would; true when taken in
    // place of the usual answer.
    bool playing(const char *attack) const { return m_options.attack == QLatin1String(attack); }
    void attackOnConnect();
    bool attackOnDescriptorRequest();
    bool attackOnLocalCopy();
    bool attackOnDescriptorList(const FileSDK::MacCliprdrFormatDataResponse &list);
    bool attackOnContents(const FileSDK::CliprdrFileContentsRequest &request);
    void streamFrame(bool text, quint64 length);
    void repeatFormatList(int times, int intervalMs);

    Options m_options;
    QWebSocketServer *m_server = nullptr;
    QTcpServer *m_tcp = nullptr; // ws: the TCP side of the client stays at hand for attacks
    QPointer<QTcpSocket> m_transport;
    QPointer<QWebSocket> m_client;
    QList<Entry> m_offer;
    std::unique_ptr<QFile> m_serving; // the offered file read last, kept open between ranges
    quint64 m_offerBytes = 0;
    quint64 m_servedBytes = 0;
    qint64 m_droppedAfter = 0;
    QElapsedTimer m_offerClock;
    QList<FileSDK::FileDescriptorw> m_incoming;
    Fetch m_fetch;
    quint64 m_fetchedBytes = 0;
    int m_fetchedFiles = 0;
    QElapsedTimer m_fetchClock;
    bool m_fetching = false;
    QList<QByteArray> m_held; // answers of this turn, when they go out in reverse
    int m_attackCount = 0;    // what an attack counts: answers given, lists received
};
