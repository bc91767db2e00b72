#pragma once

// The real engine with its own file manager, a scripted folder chooser and a chosen
// folder beneath a scratch root, talking to a remote side played by the test: over the
// loopback sink (no network, every step synchronous) or over a real socket manager and
// an in-process agent (ws or wss).
#include "ClipBoardManager.h"
#include "Frame.h"
#include "KXFileManager.h"
#include "LoopbackFrameSink.h"
#include "Messages.h"
#include "PasteboardAccess.h"
#include "SocketManager.h"
#include "Support.h"
#include "TestAgent.h"

#include <QTemporaryDir>
#include <QTest>

#include <functional>
#include <memory>

Q_DECLARE_METATYPE(PastedError)

using Descriptors = QList<FileSDK::FileDescriptorw>;
using Query = FileSDK::CliprdrFileContentsRequest;
using Contents = QHash<int, QByteArray>; // file bytes by list index

// A folder chooser whose answer the test sets; it can run a hook while "open", as a real
// modal dialog runs a nested event loop. What it was opened for is kept.
struct ScriptedChooser : FolderChooser
{
    FolderChoice answer;
    int runs = 0, depth = 0, maxDepth = 0;
    std::function<void()> whileOpen;
    QList<FolderRequest> requests;
    FolderChoice runModal(const FolderRequest &request) override
    {
        ++runs;
        requests.append(request);
        maxDepth = std::max(maxDepth, ++depth);
        if (auto hook = std::exchange(whileOpen, nullptr))
            hook();
        --depth;
        return answer;
    }
};

// The question about taken names, answered as the test says; what was asked is kept.
struct ScriptedConflicts : ConflictAsker
{
    ConflictChoice answer = ConflictChoice::keepBoth;
    QList<ConflictSummary> asked;
    ConflictChoice ask(const ConflictSummary &summary) override { return asked.append(summary), answer; }
};

struct CountingPasteboard : PasteboardAccess
{
    int clears = 0, withdrawals = 0;
    QList<QUrl> offered; // the remote files last offered as files
    void clearContents() override { ++clears; }
    void offerFiles(const QList<QUrl> &urls) override { offered = urls; }
    void withdrawFiles() override { ++withdrawals; }
};

// What the remote side answers to a query on this file: eight bytes to a size query, the
// bytes asked for (as many as there are) to a range query.
inline QByteArray answerFor(const FileSDK::CliprdrFileContentsRequest &q, const QByteArray &file)
{
    return q.dwflags() == 1 ? QByteArray(8, '\0') : file.mid(qsizetype(kx::queryOffset(q)), qsizetype(q.cbrequested()));
}

inline FileSDK::FileDescriptorw descriptor(const QString &name, std::uint64_t size, std::uint32_t attributes = 0x80,
                                           std::uint64_t lastWrite = 0)
{
    FileSDK::FileDescriptorw d;
    d.set_dwflags(lastWrite ? 0x4024 : 0x4004);
    d.set_dwfileattributes(attributes);
    d.set_nfilesizehigh(std::uint32_t(size >> 32));
    d.set_nfilesizelow(std::uint32_t(size & 0xffffffffu));
    d.set_ftlastwritetimehigh(std::uint32_t(lastWrite >> 32));
    d.set_ftlastwritetimelow(std::uint32_t(lastWrite & 0xffffffffu));
    d.set_cfilename(name.toStdString());
    return d;
}

class EngineHarness
{
public:
    enum class Link { loopback, ws, wss };

    explicit EngineHarness(int window = 1, Link link = Link::loopback, std::optional<TestAgent::Tls> tls = {},
                           const CertificatePin &pin = {})
    {
        dest = root.filePath(QStringLiteral("inner/dest"));
        QDir().mkpath(dest);
        chooser = new ScriptedChooser;
        chooser->answer = FolderChoice{true, QUrl::fromLocalFile(dest)};
        files.setFolderChooser(std::unique_ptr<FolderChooser>(chooser));
        conflicts = new ScriptedConflicts;
        files.setConflictAsker(std::unique_ptr<ConflictAsker>(conflicts));
        if (link == Link::loopback) {
            engine = std::make_unique<ClipBoardManager>(QStringLiteral("ws://agent"), QStringLiteral("1"),
                                                        QStringLiteral("tok"), QStringLiteral("7"),
                                                        EngineContext{sink, files, pasteboard}, window);
            sink.open();
            sink.sent.clear(); // the client type frame; the desktop and integration tests check it
            return;
        }
        agent = std::make_unique<TestAgent>(link == Link::wss ? tls : std::nullopt);
        socket = std::make_unique<SocketManager>();
        socket->setCertificatePin(pin);
        engine = std::make_unique<ClipBoardManager>(agent->ip(), agent->port(), QStringLiteral("tok"),
                                                    QStringLiteral("7"), EngineContext{*socket, files, pasteboard},
                                                    window);
    }

    // The remote side's moves.
    void send(const QByteArray &frame) { agent ? agent->send(frame) : sink.deliver(frame); }
    void send(const google::protobuf::MessageLite &message, FrameType type) { send(kx::encodeFrame(message, type)); }
    void remoteCopy()
    {
        const int clears = pasteboard.clears;
        send(kx::makeFileFormatList(kx::makeHeader(3, 2, 0, 7)), FrameType::formatList);
        (void)QTest::qWaitFor([&] { return pasteboard.clears > clears; }, 5000);
    }
    // A newer remote copy while files of an older one are read: its list is asked for at once
    // and compared with the older one's.
    bool newerCopy(const Descriptors &list)
    {
        remoteCopy();
        const bool asked = next<FileSDK::CliprdrFormatDataRequest>(FrameType::formatDataRequest).has_value();
        offer(list);
        return asked;
    }
    void offer(const Descriptors &list)
    {
        FileSDK::MacCliprdrFormatDataResponse response;
        for (const auto &d : list)
            *response.add_filedes() = d;
        send(response, FrameType::formatDataResponse);
    }
    void reply(std::uint32_t stream, const QByteArray &data) { send(kx::makeContentsAnswer(stream, data.toStdString()), FrameType::fileContentsResponse); }
    // The connection back after a loss (loopback), its client type frame taken.
    void reopen() { sink.open(), sink.sent.clear(); }
    void paste()
    {
        engine->startPaste([this](double value) { progress.append(value), shownNames.append(engine->pasteFigures().name); },
                           [this](bool ok, PastedError error) { ends.append({ok, error}), statusAtEnd = engine->pasteStatus(); });
    }

    // What the engine sent, in order, waiting for it if need be.
    std::optional<QByteArray> nextFrame(int timeoutMs = 5000)
    {
        if (agent)
            return agent->nextFrame(timeoutMs);
        if (sink.sent.isEmpty() && !QTest::qWaitFor([&] { return !sink.sent.isEmpty(); }, timeoutMs))
            return std::nullopt;
        return sink.sent.takeFirst();
    }
    // The next frame, which must be of this type.
    template <typename Message>
    std::optional<Message> next(FrameType type, int timeoutMs = 5000)
    {
        const auto frame = nextFrame(timeoutMs);
        if (!frame || frame->isEmpty() || std::uint8_t(frame->back()) != std::uint8_t(type))
            return std::nullopt;
        return kx::parseMessage<Message>(frame->first(frame->size() - 1));
    }
    std::optional<Query> nextQuery(int timeoutMs = 5000) { return next<Query>(FrameType::fileContentsRequest, timeoutMs); }
    // The next query, which must come: a test fails without one.
    Query query(int timeoutMs = 5000)
    {
        const auto q = nextQuery(timeoutMs);
        if (!q)
            QTest::qFail("no file-contents query came", __FILE__, __LINE__);
        return q.value_or(Query());
    }

    // Answers every query as the remote side would, from the contents by list index,
    // until the paste ends; with reverse, each batch of queries is answered last first.
    bool serve(const Contents &contents, bool reverse = false, qsizetype before = -1)
    {
        before = before < 0 ? ends.size() : before;
        const auto sentSome = [&] { return agent ? !agent->frames.isEmpty() : !sink.sent.isEmpty(); };
        while (ends.size() == before) {
            if (!QTest::qWaitFor([&] { return sentSome() || ends.size() > before; }, 10000))
                return false;
            QList<Query> batch;
            while (auto q = nextQuery(0))
                batch.append(*q);
            widest = std::max(widest, batch.size());
            if (reverse)
                std::reverse(batch.begin(), batch.end());
            for (const Query &q : batch)
                reply(q.streamid(), answerFor(q, contents.value(int(q.listindex()))));
        }
        return true;
    }
    // A remote copy, Ctrl+V, and the list offered: the paste is running.
    bool pasteOf(const Descriptors &list)
    {
        remoteCopy();
        paste();
        const bool asked = next<FileSDK::CliprdrFormatDataRequest>(FrameType::formatDataRequest).has_value();
        offer(list);
        return asked;
    }
    // A whole paste, every query answered.
    bool pasteAll(const Descriptors &list, const Contents &contents, bool reverse = false)
    {
        const qsizetype before = ends.size();
        return pasteOf(list) && serve(contents, reverse, before);
    }
    bool lastEnd(bool ok, PastedError error) const { return !ends.isEmpty() && ends.last() == std::pair(ok, error); }

    QTemporaryDir root;
    QString dest;
    LoopbackFrameSink sink;
    std::unique_ptr<TestAgent> agent;
    std::unique_ptr<SocketManager> socket;
    KXFileManager files;
    ScriptedChooser *chooser = nullptr;
    ScriptedConflicts *conflicts = nullptr;
    CountingPasteboard pasteboard;
    std::unique_ptr<ClipBoardManager> engine;
    QList<double> progress;
    QStringList shownNames; // the file the progress window names, at each report
    QList<std::pair<bool, PastedError>> ends;
    ClipBoardManager::PasteStatus statusAtEnd{}; // as the completion found it: told first, then the state cleared
    qsizetype widest = 0; // the most queries outstanding at once that serve() saw
};
