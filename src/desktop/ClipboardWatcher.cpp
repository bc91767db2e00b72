#include "ClipboardWatcher.h"

#include "DesktopLog.h"
#include "FrameSink.h"
#include "LogText.h"

#include <QTimer>

Q_LOGGING_CATEGORY(lcDesktop, "kx.desktop")

ClipboardWatcher::ClipboardWatcher(Platform &platform, EngineContext engineContext, const QString &hostAppId,
                                   QObject *parent)
    : QObject(parent)
    , m_platform(platform)
    , m_engineContext(engineContext)
    , m_hostAppId(hostAppId)
    , m_lastChangeCount(platform.pasteboard->changeCount())
{
}

ClipboardWatcher::~ClipboardWatcher()
{
    stopWatching();
}

void ClipboardWatcher::startWatching(const QString &ipAdress, const QString &port, const QString &token,
                                     const QString &cid, ProgressCallback progress, CompletionCallback completion,
                                     int window, const CertificatePin &pin, bool pasteFiles)
{
    m_engineContext.connection.setCertificatePin(pin); // before the engine connects
    m_clipManager = std::make_unique<ClipBoardManager>(ipAdress, port, token, cid, m_engineContext, window);
    if (pasteFiles)
        serveFiles();
    m_progress = std::move(progress);
    m_completion = std::move(completion);

    delete m_clipTimer;
    m_clipTimer = new QTimer(this);
    m_clipTimer->setInterval(clipIntervalMs);
    connect(m_clipTimer, &QTimer::timeout, this, &ClipboardWatcher::checkPasteboard);
    m_clipTimer->start();

    delete m_progressTimer;
    m_progressTimer = new QTimer(this);
    m_progressTimer->setInterval(hostCheckIntervalMs);
    connect(m_progressTimer, &QTimer::timeout, this, &ClipboardWatcher::checkHostApplication);
    m_progressTimer->start();

    QPointer<ClipboardWatcher> self(this);
    m_platform.accessibility->onPermissionChanged([self] {
        if (self)
            self->accessibilityPermissionChanged();
    });
    // Every companion of the user's sees Ctrl+V: the one whose remote files came last answers it.
    if (LatestAnnouncement *latest = m_platform.latestAnnouncement.get())
        connect(m_clipManager.get(), &ClipBoardManager::remoteFilesAnnounced, this, [latest] { latest->claim(); });
    m_eventsObserver = m_platform.keyMonitor->install([self](const KeyEvent &event) {
        if (self)
            self->handleKeyDown(event);
    });
    // Where keys cannot be watched, a notification or a tray item offers the same paste.
    for (const auto &trigger : m_platform.pasteTriggers) {
        PasteTrigger *way = trigger.get();
        const ClipBoardManager *engine = m_clipManager.get();
        connect(engine, &ClipBoardManager::filesOffered, this, [way](bool offered) { way->setOffered(offered); });
        connect(engine, &ClipBoardManager::connectionChanged, this, [way](bool up) { way->setConnected(up); });
        connect(engine, &ClipBoardManager::offerChanged, this, [way](const RemoteOffer &offer) { way->setRemoteOffer(offer); });
        connect(engine, &ClipBoardManager::copySending, this, [way](const CopySending &sending) { way->setCopySending(sending); });
        way->onPaste([self] {
            if (!self)
                return;
            qCInfo(lcDesktop).noquote() << "Paste… chosen";
            self->paste();
        });
        way->onQuit([self] {
            if (self)
                self->quit();
        });
    }
    checkAccessibility();
}

// The remote files as files: where the file system cannot be mounted, the paste stays as
// it was, and the log says why, once.
void ClipboardWatcher::serveFiles()
{
    QString whyNot = QStringLiteral("this desktop has no file system for them");
    if (!m_platform.fileSystem || !m_platform.fileSystem->serve(m_clipManager->remoteFiles(), whyNot)) {
        qCInfo(lcDesktop).noquote() << "remote files cannot be pasted from the file manager:" << whyNot
                                    << "- Ctrl+V opens the folder chooser instead";
        return;
    }
    for (const auto &trigger : m_platform.pasteTriggers)
        trigger->setFilesServed();
}

void ClipboardWatcher::stopWatching()
{
    delete m_clipTimer;
    m_clipTimer = nullptr;
    if (m_eventsObserver)
        m_platform.keyMonitor->remove();
    m_eventsObserver = false;
}

void ClipboardWatcher::checkPasteboard()
{
    const std::int64_t count = m_platform.pasteboard->changeCount();
    if (count == m_lastChangeCount)
        return;
    m_lastChangeCount = count; // before reading: a failed read is not retried for this change
    if (m_platform.pasteboard->holdsOfferedFiles())
        return; // the remote files this process offers: never announced back
    const std::optional<QList<QUrl>> urls = m_platform.pasteboard->readUrls();
    if (!urls)
        return;
    m_clipManager->copiedFiles(*urls);
}

void ClipboardWatcher::handleKeyDown(const KeyEvent &event)
{
    if (!event.command || event.charactersIgnoringModifiers != QLatin1String("v"))
        return;
    qCInfo(lcDesktop).noquote() << "Command + V 按下";
    if (m_platform.latestAnnouncement && !m_platform.latestAnnouncement->isOurs()) {
        qCInfo(lcDesktop).noquote() << "remote files were announced later to another companion; this Ctrl+V is left to it";
        return;
    }
    // Where something else took the clipboard since (a clipboard manager does), the file
    // manager has nothing of ours to paste: the chooser does it.
    if (m_clipManager->servesFiles()) {
        if (m_platform.pasteboard->holdsOfferedFiles() || !m_clipManager->remoteFiles().copies()) {
            qCInfo(lcDesktop).noquote() << "the file manager pastes the remote files; no folder is asked for";
            return;
        }
        qCInfo(lcDesktop).noquote() << "the clipboard no longer holds the remote files; the folder chooser opens";
    }
    // A Ctrl+V meant for another program never costs a running paste.
    switch (m_clipManager->runningPaste()) {
    case ClipBoardManager::RunningPaste::none:
        break;
    case ClipBoardManager::RunningPaste::sameCopy:
        qCInfo(lcDesktop).noquote() << "a paste of this remote copy runs already; Ctrl+V does nothing";
        return;
    case ClipBoardManager::RunningPaste::olderCopy:
        if (m_platform.alerts->runModal({.message = tr("Stop the running paste and paste the new files?"),
                                         .informative = tr("Other files were copied on the remote desktop while a paste "
                                                           "runs. It goes on unless you stop it; the files it has "
                                                           "completed stay where they are."),
                                         .buttons = {tr("Keep pasting"), tr("Stop and paste the new files")},
                                         .kind = Alert::Kind::question}) != 1001) {
            qCInfo(lcDesktop).noquote() << "the running paste goes on; the newer remote copy is not pasted";
            return;
        }
        break;
    }
    paste();
}

// The paste of whatever the remote side announced, with the shell's callbacks wrapped.
void ClipboardWatcher::paste()
{
    ProgressCallback progress = m_progress;
    CompletionCallback completion = m_completion;
    m_clipManager->startPaste(
        [progress](double value) {
            qCInfo(lcDesktop).noquote().nospace() << "当前的百分比：" << kx::decimalText(value);
            if (progress)
                progress(value);
        },
        [completion](bool success, PastedError error) {
            const ClipBoardError mapped = clipBoardErrorFromRaw(int(error)).value_or(ClipBoardError::unKonwnError);
            if (completion)
                completion(success, mapped);
        });
}

// The event loop is told to end first: a question or an alert opened after that returns
// at once, so nothing is asked of a user who asked to go. A paste that runs then ends as
// Stop ends it, which takes away what it had half written.
void ClipboardWatcher::quit()
{
    qCInfo(lcDesktop).noquote() << "Quit chosen";
    m_platform.services->quit();
    if (m_clipManager)
        m_clipManager->setPasteStatus(ClipBoardManager::PasteStatus::cancel);
}

void ClipboardWatcher::checkAccessibility()
{
    if (m_platform.accessibility->isProcessTrusted(true)) {
        qCInfo(lcDesktop).noquote() << "已获得辅助功能权限";
        return;
    }
    qCInfo(lcDesktop).noquote() << "未获得辅助功能权限";
    const QString missing = m_platform.accessibility->missingCapability();
    if (!missing.isEmpty())
        qCInfo(lcDesktop).noquote() << missing;
    // Asking for a permission nobody can grant only gets in the way.
    if (m_platform.accessibility->canBeGranted())
        createEventTap();
}

void ClipboardWatcher::createEventTap()
{
    m_platform.accessibility->createEventTap();
    QTimer::singleShot(alertDelayMs, this, &ClipboardWatcher::showAccessibilityAlert);
}

void ClipboardWatcher::showAccessibilityAlert()
{
    QString name = m_platform.services->applicationName();
    if (name.isEmpty())
        name = QStringLiteral("KXMacOSPasteBoard");
    const int answer = m_platform.alerts->runModal(
        {.message = QStringLiteral("使用复制粘贴功能，请授权") + name + QStringLiteral("应用"),
         .buttons = {QStringLiteral("授权成功后，点此按钮重启应用"), QStringLiteral("暂不使用复制粘贴")}});
    const QUrl settings = m_platform.accessibility->settingsUrl();
    if (answer == 1000 && settings.isValid())
        m_platform.services->openUrl(settings);
}

void ClipboardWatcher::accessibilityPermissionChanged()
{
    if (!m_platform.accessibility->isProcessTrusted(false)) {
        qCInfo(lcDesktop).noquote() << "用户未授权辅助功能";
        return;
    }
    qCInfo(lcDesktop).noquote() << "用户已授权辅助功能";
    showRestartAlert();
}

void ClipboardWatcher::showRestartAlert()
{
    const int answer = m_platform.alerts->runModal(
        {.message = QStringLiteral("重启后才可使用复制粘贴功能"), .buttons = {QStringLiteral("现在重启"), QStringLiteral("先不使用")}});
    if (answer == 1000)
        m_platform.services->exitProcess(0);
}

void ClipboardWatcher::checkHostApplication()
{
    if (!m_platform.services->isApplicationRunning(m_hostAppId)) {
        qCInfo(lcDesktop).noquote() << "此程序已经不存在";
        m_platform.services->exitProcess(0);
        return;
    }
    qCInfo(lcDesktop).noquote() << "此程序在运行中";
}
