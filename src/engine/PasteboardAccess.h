#pragma once

#include <QList>
#include <QUrl>

// What the engine needs of the local pasteboard: a remote copy empties it, so that a
// local paste does not offer stale local content while remote files are announced.
// Where remote files are served as files, the board offers them as a file manager's copy
// does, and withdraws them when they are gone, unless something else was copied since.
class PasteboardAccess
{
public:
    virtual ~PasteboardAccess() = default;
    virtual void clearContents() = 0;
    virtual void offerFiles(const QList<QUrl> &urls) { (void)urls; }
    virtual void withdrawFiles() {}
};

// For an engine with no desktop to clear: benchmarks, the soak, fuzzing.
class NoPasteboard : public PasteboardAccess
{
public:
    void clearContents() override {}
};
