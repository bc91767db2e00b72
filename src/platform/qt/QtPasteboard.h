#pragma once

#include "Pasteboard.h"

#include <QObject>

// The desktop clipboard. Its change count is ours: it rises on every change Qt reports,
// our own clearing included, as the watcher expects of a system counter; only the loss
// of the board's owner, which writes nothing, leaves it as it is.
class QtPasteboard : public QObject, public Pasteboard
{
public:
    // fileUrisInText: take a text that is only lines of file URLs as those files. Under
    // Wayland some compositors hand a file copy to X11 clients as plain text.
    explicit QtPasteboard(bool fileUrisInText = false);
    std::int64_t changeCount() const override { return m_changeCount; }
    std::optional<QList<QUrl>> readUrls() const override;
    void clearContents() override;
    void offerFiles(const QList<QUrl> &urls) override;
    void withdrawFiles() override;
    bool holdsOfferedFiles() const override;

private:
    std::int64_t m_changeCount = 0;
    bool m_fileUrisInText = false;
};
