#pragma once

// What the engine-driving fuzz targets share: no pasteboard, a chooser that always picks
// one folder, and no log output (formatting the lines still runs, as in the companion).
#include "ClipBoardManager.h"
#include "KXFileManager.h"
#include "PasteboardAccess.h"

#include <QCoreApplication>
#include <QTemporaryDir>
#include <QUrl>

#include <cstdlib>

struct NoPasteboard : PasteboardAccess
{
    void clearContents() override {}
};

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
    FixedFolderChooser *chooser = nullptr;
    ClipBoardManager *engine = nullptr;
};

// Starts the application and an engine whose chooser picks <root>/chosen. With
// KX_FUZZ_WRITE_SEEDS set it writes the target's seeds into that folder and exits instead.
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
    KXFileManager::shared()->setFolderChooser(std::unique_ptr<FolderChooser>(fuzz->chooser));
    fuzz->engine = new ClipBoardManager(QStringLiteral("ws://127.0.0.1"), QStringLiteral("9"), QStringLiteral("fuzz"),
                                        QStringLiteral("1"), &fuzz->pasteboard);
    return fuzz;
}
