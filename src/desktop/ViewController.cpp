#include "ViewController.h"

#include "DesktopLog.h"
#include "LaunchArguments.h"
#include "LogText.h"
#include "PasteEndText.h"

#include <QLabel>
#include <QLocale>
#include <QProgressBar>
#include <QPushButton>
#include <QTimer>

namespace {

constexpr int barSteps = 10000; // the bar is integer; the fraction maps onto this many steps

} // namespace

ViewController::ViewController(Platform &platform, EngineContext engineContext, const QString &hostAppId,
                               QWidget *parent)
    : QWidget(parent)
    , m_platform(platform)
    , m_watcher(new ClipboardWatcher(platform, engineContext, hostAppId, this))
{
    setWindowTitle(tr("%1: receiving files").arg(platform.services->applicationName()));
    // A background agent's window: it is shown and raised, but the keyboard stays with
    // the application the user types into, and no key typed there can press Stop.
    setAttribute(Qt::WA_ShowWithoutActivating);
    setWindowFlag(Qt::WindowDoesNotAcceptFocus);
    setFixedSize(contentWidth, contentHeight);
    // Fixed places in a fixed window: the Stop button is where a script expects to click.
    m_detail = new QLabel(this);
    m_detail->setGeometry(detailArea);
    m_progressIndicator = new QProgressBar(this);
    m_progressIndicator->setGeometry(progressArea);
    m_stopBtn = new QPushButton(tr("Stop"), this);
    m_stopBtn->setFocusPolicy(Qt::NoFocus);
    m_stopBtn->setGeometry(stopButtonArea);
    connect(m_stopBtn, &QPushButton::clicked, this, &ViewController::clickStopPasteBtn);
}

void ViewController::viewDidLoad(const QStringList &arguments)
{
    QTimer::singleShot(hideDelayMs, this, &ViewController::hideWindow);
    const LaunchArguments values = LaunchArguments::read(arguments);
    m_ipAdress = values.ipAdress;
    m_port = values.port;
    m_token = values.token;
    m_cid = values.cid;
    m_window = values.window;
    m_pin = values.pin;
    resetProgressControls();
    QPointer<ViewController> self(this);
    m_watcher->startWatching(
        m_ipAdress, m_port, m_token, m_cid, [self](double progress) { if (self) self->handlePasteProgress(progress); },
        [self](bool success, ClipBoardError error) { if (self) self->handlePasteFinished(success, error); },
        m_window, m_pin);
}

void ViewController::resetProgressControls()
{
    m_progressIndicator->setRange(0, barSteps);
    m_progressIndicator->setValue(0);
    m_progressIndicator->setHidden(true);
    m_stopBtn->setHidden(true);
}

void ViewController::setBarValue(double progress)
{
    m_progressIndicator->setValue(int(std::clamp(progress, 0.0, 1.0) * barSteps));
}

void ViewController::hideWindow()
{
    setFixedSize(contentWidth, contentHeight);
    hide();
    setBarValue(0.0);
}

void ViewController::showWindow()
{
    setFixedSize(contentWidth, contentHeight);
    show();
    raise();
}

void ViewController::updateDetail()
{
    const ClipBoardManager *engine = m_watcher->clipManager();
    if (!engine)
        return;
    const QLocale locale;
    // A remote name may be as long as a path: its middle gives way, never the line below.
    const QString name = m_detail->fontMetrics().elidedText(engine->currentFileName(), Qt::ElideMiddle, detailArea.width());
    m_detail->setText(tr("%1\n%2 of %3")
                          .arg(name, locale.formattedDataSize(qint64(engine->savedBytes())),
                               locale.formattedDataSize(qint64(engine->totalBytes()))));
}

void ViewController::handlePasteProgress(double progress)
{
    QMetaObject::invokeMethod(this, [this, progress] {
        showWindow();
        m_progressIndicator->setHidden(false);
        m_stopBtn->setHidden(false);
        setBarValue(progress);
        updateDetail();
        qCInfo(lcDesktop).noquote().nospace() << "Progress: " << kx::decimalText(progress);
    }, Qt::QueuedConnection);
}

void ViewController::handlePasteFinished(bool success, ClipBoardError error)
{
    // Read now: by the time the alert shows, another paste may have ended.
    const ClipBoardManager *engine = m_watcher->clipManager();
    const PasteReport report = engine ? engine->lastPasteReport() : PasteReport();
    if (success) {
        qCInfo(lcDesktop).noquote() << "所有文件粘贴成功";
        QMetaObject::invokeMethod(this, [this, report] {
            m_progressIndicator->setHidden(true);
            m_stopBtn->setHidden(true);
            showAlert(QStringLiteral("下载成功"), PasteEndText::text(true, report), report);
            hideWindow();
        }, Qt::QueuedConnection);
        return;
    }
    const QString name = clipBoardErrorName(error);
    qCInfo(lcDesktop).noquote().nospace() << "eror:" << name;
    QMetaObject::invokeMethod(this, [this, name, report] {
        m_progressIndicator->setHidden(true);
        showAlert(QStringLiteral("下载失败错误原因：") + name, PasteEndText::text(false, report), report);
        m_stopBtn->setHidden(true);
        hideWindow();
    }, Qt::QueuedConnection);
}

// The described message, what happened in words, and the folder a button away when
// something was saved in it.
void ViewController::showAlert(const QString &message, const QString &informative, const PasteReport &report)
{
    const bool saved = !report.folder.isEmpty() && report.filesSaved > 0;
    QStringList buttons{QStringLiteral("ok")};
    if (saved)
        buttons << tr("Open folder");
    if (m_platform.alerts->runModal(message, informative, buttons) == 1001 && saved)
        m_platform.services->openUrl(QUrl::fromLocalFile(report.folder));
}

void ViewController::clickStopPasteBtn()
{
    qCInfo(lcDesktop).noquote() << "click stop";
    if (ClipBoardManager *engine = m_watcher->clipManager())
        engine->setPasteStatus(ClipBoardManager::PasteStatus::cancel);
    hideWindow();
}
