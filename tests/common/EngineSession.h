#pragma once

#include "ClipBoardManager.h"
#include "FakePasteboard.h"
#include "KXFileManager.h"
#include "ScriptedChooser.h"
#include "TestAgent.h"

#include <QFile>
#include <QTemporaryDir>
#include <QTest>

#include <memory>

Q_DECLARE_METATYPE(PastedError)

using Descriptors = QList<FileSDK::FileDescriptorw>;

inline QByteArray pattern(qsizetype size, int seed)
{
    QByteArray data(size, Qt::Uninitialized);
    for (qsizetype i = 0; i < size; ++i)
        data[i] = char((i * 131 + seed + i / 977) & 0xff);
    return data;
}

// A file-contents answer as the remote side sends it.
inline FileSDK::CliprdrFileContentsResponse rangeReply(std::uint32_t streamId, const QByteArray &data)
{
    FileSDK::CliprdrFileContentsResponse reply;
    *reply.mutable_header() = kx::makeHeader(1, 0, 1, 1);
    reply.set_streamid(streamId);
    reply.set_cbrequested(std::uint32_t(data.size()));
    reply.set_requesteddata(data.constData(), size_t(data.size()));
    return reply;
}

// A file-contents query as the remote side sends it.
inline FileSDK::CliprdrFileContentsRequest query(std::uint32_t listIndex, std::uint32_t flags, std::uint64_t offset = 0,
                                                 std::uint32_t length = 0, std::uint32_t streamId = 3)
{
    FileSDK::CliprdrFileContentsRequest request;
    request.set_streamid(streamId);
    request.set_listindex(listIndex);
    request.set_dwflags(flags);
    request.set_npositionlow(std::uint32_t(offset & 0xffffffffu));
    request.set_npositionhigh(std::uint32_t(offset >> 32));
    request.set_cbrequested(length);
    return request;
}

inline QByteArray readFile(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray("<missing>");
}

inline bool writeFile(const QString &path, const QByteArray &data)
{
    QFile file(path);
    return file.open(QIODevice::WriteOnly) && file.write(data) == data.size();
}

// One paste session: the real engine and socket manager against the in-process agent,
// with a scripted folder chooser and a fake pasteboard.
struct EngineSession
{
    TestAgent agent;
    FakePasteboard pasteboard;
    ScriptedChooser *chooser = nullptr;
    QTemporaryDir root;
    QString dest;
    std::unique_ptr<ClipBoardManager> engine;
    QList<double> progress;
    QList<std::pair<bool, PastedError>> completions;

    EngineSession()
    {
        dest = root.filePath(QStringLiteral("inner/dest"));
        QDir().mkpath(dest);
        chooser = new ScriptedChooser;
        chooser->answer = ScriptedChooser::choose(dest);
        KXFileManager::shared()->setFolderChooser(std::unique_ptr<FolderChooser>(chooser));
    }

    bool start()
    {
        if (!agent.listen())
            return false;
        engine = std::make_unique<ClipBoardManager>(agent.ip(), agent.port(), QStringLiteral("tok"),
                                                    QStringLiteral("7"), &pasteboard);
        const auto hello = agent.nextFrame();
        return hello && *hello == QByteArray(1, '\0');
    }

    bool remoteCopy(const FileSDK::CliprdrFormatList &list = TestAgent::remoteFormatList())
    {
        const int clears = pasteboard.clears;
        agent.sendMessage(list, FrameType::formatList);
        return QTest::qWaitFor([&] { return pasteboard.clears > clears; }, 10000);
    }

    void paste()
    {
        engine->startPaste([this](double value) { progress.append(value); },
                           [this](bool success, PastedError error) { completions.append({success, error}); });
    }

    // Answers the format data request with the descriptors.
    bool offer(const Descriptors &descriptors)
    {
        if (!agent.next<FileSDK::CliprdrFormatDataRequest>(FrameType::formatDataRequest))
            return false;
        FileSDK::MacCliprdrFormatDataResponse response;
        *response.mutable_header() = kx::makeHeader(1, 0, 1, 1);
        for (const auto &descriptor : descriptors)
            *response.add_filedes() = descriptor;
        agent.sendMessage(response, FrameType::formatDataResponse);
        return true;
    }

    // A whole paste with the agent answering every query from the contents by list index.
    bool pasteServed(const Descriptors &descriptors, const QHash<std::uint32_t, QByteArray> &contents)
    {
        agent.serveContents(contents);
        const qsizetype before = completions.size();
        if (!remoteCopy())
            return false;
        paste();
        return offer(descriptors) && QTest::qWaitFor([&] { return completions.size() > before; }, 60000);
    }

    std::optional<FileSDK::CliprdrFileContentsRequest> nextQuery()
    {
        return agent.next<FileSDK::CliprdrFileContentsRequest>(FrameType::fileContentsRequest);
    }
};

