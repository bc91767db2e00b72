#pragma once

// What the engine-driving fuzz targets share: a loopback connection, no pasteboard, a
// chooser that always picks one folder, and no log output (formatting the lines still
// runs, as in the companion). Each run gets a fresh engine, so a crash replays alone.
#include "ClipBoardManager.h"
#include "KXFileManager.h"
#include "LoopbackFrameSink.h"
#include "PasteboardAccess.h"

#include <QCoreApplication>
#include <QTemporaryDir>
#include <QUrl>

#include <cstdlib>
#include <memory>

struct FixedFolderChooser : FolderChooser
{
    QString folder;
    FolderChoice runModal() override { return {true, QUrl::fromLocalFile(folder)}; }
};

inline void silence(QtMsgType, const QMessageLogContext &, const QString &) {}

struct FuzzEngine
{
    QTemporaryDir root;
    NoPasteboard pasteboard;
    LoopbackFrameSink sink;
    KXFileManager files;
    FixedFolderChooser *chooser = nullptr;

    std::unique_ptr<ClipBoardManager> makeEngine(int window)
    {
        sink.sent.clear();
        sink.queuedBytes = 0;
        auto engine = std::make_unique<ClipBoardManager>(QStringLiteral("ws://127.0.0.1"), QStringLiteral("9"),
                                                         QStringLiteral("fuzz"), QStringLiteral("1"),
                                                         EngineContext{sink, files, pasteboard}, window);
        sink.open();
        return engine;
    }
};

// Starts the application; the chooser picks <root>/chosen. With KX_FUZZ_WRITE_SEEDS set
// it writes the target's seeds into that folder and exits instead.
inline FuzzEngine *startFuzzEngine(int *argc, char ***argv, void (*writeSeeds)(const QString &))
{
    new QCoreApplication(*argc, *argv);
    qInstallMessageHandler(silence);
    if (qEnvironmentVariableIsSet("KX_FUZZ_WRITE_SEEDS")) {
        writeSeeds(qEnvironmentVariable("KX_FUZZ_WRITE_SEEDS"));
        std::exit(0);
    }
    auto *fuzz = new FuzzEngine;
    fuzz->chooser = new FixedFolderChooser;
    fuzz->chooser->folder = fuzz->root.filePath(QStringLiteral("chosen"));
    fuzz->files.setFolderChooser(std::unique_ptr<FolderChooser>(fuzz->chooser));
    return fuzz;
}
