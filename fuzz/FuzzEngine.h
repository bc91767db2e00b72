#pragma once

// What the engine-driving fuzz targets share: a loopback connection, no pasteboard, a
// chooser that always picks <root>/chosen, and no log output (formatting the lines still
// runs, as in the companion). Each run gets a fresh engine, so a crash replays alone.
// The seeds in fuzz/corpus were made from real frames.
#include "ClipBoardManager.h"
#include "KXFileManager.h"
#include "LoopbackFrameSink.h"
#include "PasteboardAccess.h"
#include "Support.h"

#include <QCoreApplication>
#include <QTemporaryDir>
#include <QUrl>

#include <memory>

struct FixedFolderChooser : FolderChooser
{
    QString folder;
    FolderChoice runModal() override { return {true, QUrl::fromLocalFile(folder)}; }
};

struct FuzzEngine
{
    QTemporaryDir root;
    NoPasteboard pasteboard;
    LoopbackFrameSink sink;
    KXFileManager files;
    FixedFolderChooser *chooser = new FixedFolderChooser;

    FuzzEngine(int *argc, char ***argv)
    {
        new QCoreApplication(*argc, *argv);
        qInstallMessageHandler([](QtMsgType, const QMessageLogContext &, const QString &) {});
        chooser->folder = root.filePath(QStringLiteral("chosen"));
        files.setFolderChooser(std::unique_ptr<FolderChooser>(chooser));
    }
    std::unique_ptr<ClipBoardManager> makeEngine(int window)
    {
        sink.sent.clear();
        auto engine = std::make_unique<ClipBoardManager>(QStringLiteral("ws://127.0.0.1"), QStringLiteral("9"),
                                                         QStringLiteral("fuzz"), QStringLiteral("1"),
                                                         EngineContext{sink, files, pasteboard}, window);
        sink.open();
        return engine;
    }
};
