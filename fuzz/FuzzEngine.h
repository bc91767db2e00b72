#pragma once

// What the engine-driving fuzz targets share: no pasteboard, a chooser that always picks
// one folder, and no log output (formatting the lines still runs, as in the companion).
#include "KXFileManager.h"
#include "PasteboardAccess.h"

#include <QUrl>

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
