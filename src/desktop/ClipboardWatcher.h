#pragma once

#include "CertificatePin.h"
#include "ClipBoardError.h"
#include "ClipBoardManager.h"
#include "Platform.h"

#include <QObject>
#include <QPointer>

#include <functional>
#include <memory>

class QTimer;

// Connects the desktop to the session engine: a one-second clipboard poll announces local
// copies, a global Ctrl+V starts a paste, and a one-minute check ends the process once
// the host application is gone. It also runs the keyboard-permission flow.
class ClipboardWatcher : public QObject
{
    Q_OBJECT
public:
    using ProgressCallback = std::function<void(double)>;
    using CompletionCallback = std::function<void(bool, ClipBoardError)>;

    ClipboardWatcher(Platform &platform, EngineContext engineContext, const QString &hostAppId,
                     QObject *parent = nullptr);
    ~ClipboardWatcher() override;

    void startWatching(const QString &ipAdress, const QString &port, const QString &token, const QString &cid,
                       ProgressCallback progress, CompletionCallback completion, int window = 1,
                       const CertificatePin &pin = {}, bool pasteFiles = false);
    void stopWatching();

    void checkPasteboard();
    void handleKeyDown(const KeyEvent &event);
    void paste();
    void quit();
    void checkAccessibility();
    void createEventTap();
    void showAccessibilityAlert();
    void accessibilityPermissionChanged();
    void showRestartAlert();
    void checkHostApplication();

    ClipBoardManager *clipManager() const { return m_clipManager.get(); }
    std::int64_t lastChangeCount() const { return m_lastChangeCount; }
    QTimer *clipTimer() const { return m_clipTimer; }
    QTimer *progressTimer() const { return m_progressTimer; }

    static constexpr int clipIntervalMs = 1000;
    static constexpr int hostCheckIntervalMs = 60000;
    static constexpr int alertDelayMs = 1000;

private:
    void serveFiles();
    Platform &m_platform;
    EngineContext m_engineContext;
    QString m_hostAppId;
    std::int64_t m_lastChangeCount = 0;
    std::unique_ptr<ClipBoardManager> m_clipManager;
    QTimer *m_clipTimer = nullptr;
    QTimer *m_progressTimer = nullptr;
    bool m_eventsObserver = false;
    ProgressCallback m_progress;
    CompletionCallback m_completion;
};
