#include "ViewController.h"

#include "DesktopLog.h"
#include "LaunchArguments.h"
#include "LogText.h"
#include "PasteEndText.h"

#include <QApplication>
#include <QCloseEvent>
#include <QGridLayout>
#include <QLabel>
#include <QLocale>
#include <QProgressBar>
#include <QPushButton>
#include <QScreen>
#include <QTimer>

#include <cmath>

namespace {

constexpr int barSteps = 10000; // the bar is integer; the fraction maps onto this many steps
constexpr int cornerGap = 48;   // between the window and the screen's corner, its frame included

// A text cut to its label's width, whole in its tooltip. A path is cut in its folders
// first: the file's name is what the user looks for.
void setElided(QLabel *label, const QString &text, Qt::TextElideMode mode, bool path = false)
{
    const QFontMetrics metrics = label->fontMetrics();
    const int width = label->contentsRect().width();
    QString shown = metrics.elidedText(text, mode, width);
    const qsizetype slash = path ? text.lastIndexOf(QLatin1Char('/')) : -1;
    if (shown != text && slash > 0) {
        const QString name = text.mid(slash);
        const int room = width - metrics.horizontalAdvance(name);
        if (room > metrics.horizontalAdvance(QStringLiteral("……")))
            shown = metrics.elidedText(text.left(slash), Qt::ElideLeft, room) + name;
    }
    label->setText(shown);
    label->setToolTip(shown == text ? QString() : text);
}

} // namespace

ViewController::ViewController(Platform &platform, EngineContext engineContext, const QString &hostAppId,
                               QWidget *parent)
    : QWidget(parent)
    , m_platform(platform)
    , m_watcher(new ClipboardWatcher(platform, engineContext, hostAppId, this))
{
    setWindowTitle(tr("Receiving files"));
    // A background agent's window: it is shown and raised, but the keyboard stays with
    // the application the user types into, and no key typed there can press Stop. Once the
    // user clicks it or switches to it, it has the keyboard: Stop is reached by Tab.
    setAttribute(Qt::WA_ShowWithoutActivating);
    m_file = new QLabel(this);
    QFont bold = m_file->font();
    bold.setBold(true);
    m_file->setFont(bold);
    m_folder = new QLabel(this);
    m_count = new QLabel(this);
    m_rate = new QLabel(this);
    m_quiet = new QTimer(this);
    m_quiet->setSingleShot(true);
    m_quiet->setInterval(quietMs);
    connect(m_quiet, &QTimer::timeout, this, [this] {
        if (m_pasting)
            setElided(m_rate, tr("Waiting for the remote desktop…"), Qt::ElideRight);
    });
    m_progressIndicator = new QProgressBar(this);
    m_stopBtn = new QPushButton(tr("Stop"), this);
    connect(m_stopBtn, &QPushButton::clicked, this, &ViewController::clickStopPasteBtn);

    // Paths give way in their middle to the window's width; the other lines make it.
    for (QLabel *path : {m_file, m_folder})
        path->setSizePolicy(QSizePolicy::Ignored, QSizePolicy::Preferred);
    auto *grid = new QGridLayout(this);
    grid->addWidget(m_file, 0, 0, 1, 2);
    grid->addWidget(m_folder, 1, 0, 1, 2);
    grid->addWidget(m_progressIndicator, 2, 0, 1, 2);
    grid->addWidget(m_count, 3, 0, 1, 2);
    grid->addWidget(m_rate, 4, 0, 1, 2);
    grid->setRowStretch(5, 1);
    grid->addWidget(m_stopBtn, 6, 1);
    grid->setColumnStretch(0, 1);
    // Sized once, in this font at this scale, for the longest lines a paste can show.
    const QLocale locale;
    const QString most = locale.formattedDataSize(Q_INT64_C(999) << 30);
    m_file->setText(QStringLiteral("/"));
    m_folder->setText(QStringLiteral("/"));
    m_count->setText(tr("File %1 of %2 — %3 of %4").arg(locale.toString(999999), locale.toString(1000000), most, most));
    m_rate->setText(tr("%1 — %2 h %3 min left").arg(tr("%1/s").arg(most)).arg(99).arg(59));
    setFixedSize(QSize(contentWidth, contentHeight).expandedTo(grid->minimumSize()));
    grid->activate();
    for (QLabel *label : detailLabels())
        label->clear();
}

void ViewController::viewDidLoad(const QStringList &arguments)
{
    // Not over a paste that has shown the window since: on a busy machine one can start
    // within the half second.
    QTimer::singleShot(hideDelayMs, this, [this] {
        if (!m_pasting)
            hideWindow();
    });
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
        m_window, m_pin, values.pasteFiles);
}

void ViewController::resetProgressControls()
{
    m_progressIndicator->setRange(0, barSteps);
    m_progressIndicator->setValue(0);
    m_progressIndicator->setHidden(true);
    m_stopBtn->setHidden(true);
}

// The bar's figure is the title's, from one rounding: never 93 % in one and 94 % in the other.
void ViewController::setBarValue(double progress)
{
    const double part = std::clamp(progress, 0.0, 1.0);
    m_progressIndicator->setValue(int(part * barSteps));
    m_progressIndicator->setFormat(QStringLiteral("%1%").arg(int(part * 100)));
}

void ViewController::hideWindow()
{
    hide();
    setBarValue(0.0);
}

void ViewController::showWindow()
{
    if (!isVisible()) {
        // Away from the middle of the screen, where alerts and questions open: the window
        // stays readable beside them.
        const QRect area = screen()->availableGeometry();
        move(area.right() - width() - cornerGap, area.bottom() - height() - cornerGap);
    }
    show();
    if (!QApplication::activeModalWidget()) // raised above a question, it would hide it
        raise();
}

// Read when the report comes: by the time the window shows it, the paste may have ended.
ViewController::Figures ViewController::takeFigures()
{
    const ClipBoardManager *engine = m_watcher->clipManager();
    if (!engine)
        return m_shown;
    const PasteFigures now = engine->pasteFigures();
    if (now.number) // between two files the last one named stays named
        m_shown = now;
    else
        m_shown.folder = now.folder, m_shown.count = now.count, m_shown.saved = now.saved, m_shown.total = now.total;
    return m_shown;
}

void ViewController::showFigures(const Figures &figures, double progress)
{
    const QLocale locale;
    setWindowTitle(tr("%1% — Receiving files").arg(int(std::clamp(progress, 0.0, 1.0) * 100)));
    m_speed.add(m_clock.elapsed(), figures.saved);
    setElided(m_file, figures.path, Qt::ElideMiddle, true);
    setElided(m_folder, figures.folder.isEmpty() ? QString() : tr("to %1").arg(figures.folder), Qt::ElideMiddle);
    setElided(m_count,
              tr("File %1 of %2 — %3 of %4")
                  .arg(locale.toString(qulonglong(figures.number)), locale.toString(qulonglong(figures.count)),
                       locale.formattedDataSize(qint64(figures.saved)), locale.formattedDataSize(qint64(figures.total))),
              Qt::ElideRight);
    setElided(m_rate, speedText(figures.total - std::min(figures.saved, figures.total)), Qt::ElideRight);
}

QString ViewController::speedText(std::uint64_t left) const
{
    const std::optional<double> rate = m_speed.bytesPerSecond();
    if (!rate)
        return tr("Estimating the time left…");
    const QString speed = tr("%1/s").arg(QLocale().formattedDataSize(qint64(*rate)));
    if (*rate < 1)
        return speed; // stalled: no time can be told
    const auto seconds = std::int64_t(std::ceil(double(left) / *rate));
    if (seconds < 60)
        return tr("%1 — %2 s left").arg(speed).arg(seconds);
    const std::int64_t minutes = (seconds + 59) / 60;
    if (minutes < 60)
        return tr("%1 — %2 min left").arg(speed).arg(minutes);
    return tr("%1 — %2 h %3 min left").arg(speed).arg(minutes / 60).arg(minutes % 60);
}

void ViewController::handlePasteProgress(double progress)
{
    const Figures figures = takeFigures();
    QMetaObject::invokeMethod(this, [this, progress, figures] {
        if (!m_pasting) {
            m_pasting = true;
            m_stopBtn->setEnabled(true);
            m_speed.clear();
            m_clock.start();
        }
        showWindow();
        m_progressIndicator->setHidden(false);
        m_stopBtn->setHidden(false);
        setBarValue(progress);
        showFigures(figures, progress);
        m_quiet->start();
        qCInfo(lcDesktop).noquote().nospace() << "Progress: " << kx::decimalText(progress);
    }, Qt::QueuedConnection);
}

void ViewController::handlePasteFinished(bool success, ClipBoardError error)
{
    // Read now: by the time the alert shows, another paste may have ended.
    const ClipBoardManager *engine = m_watcher->clipManager();
    const PasteReport report = engine ? engine->lastPasteReport() : PasteReport();
    m_shown = {};
    if (success) {
        qCInfo(lcDesktop).noquote() << "所有文件粘贴成功";
        QMetaObject::invokeMethod(this, [this, report] {
            showEnd(true, QStringLiteral("下载成功"), PasteEndText::text(true, report), report, tr("Done"));
        }, Qt::QueuedConnection);
        return;
    }
    const QString name = clipBoardErrorName(error);
    qCInfo(lcDesktop).noquote().nospace() << "eror:" << name;
    QMetaObject::invokeMethod(this, [this, name, report] {
        showEnd(false, QStringLiteral("下载失败错误原因：") + name, PasteEndText::text(false, report), report, tr("Not completed"));
    }, Qt::QueuedConnection);
}

// What the window last showed stays readable beside the alert; it goes once the alert
// is answered.
void ViewController::showEnd(bool success, const QString &message, const QString &informative, const PasteReport &report,
                             const QString &outcome)
{
    m_pasting = false;
    m_quiet->stop();
    ++m_ends;
    m_stopBtn->setEnabled(false);
    setElided(m_rate, outcome, Qt::ElideRight);
    showAlert(success, message, informative, report);
    m_progressIndicator->setHidden(true);
    m_stopBtn->setHidden(true);
    hideWindow();
}

// What happened in words, and the folder a button away when something was saved in it.
// Under a Chinese locale the described message is the headline; under any other, the
// first sentence in words is, and the described message follows as a small reference.
void ViewController::showAlert(bool success, const QString &message, const QString &informative, const PasteReport &report)
{
    const bool saved = !report.folder.isEmpty() && report.filesSaved > 0;
    Alert alert{.message = message, .informative = informative, .buttons = {QStringLiteral("ok")}};
    alert.kind = success ? Alert::Kind::information : Alert::Kind::warning;
    if (saved)
        alert.buttons << tr("Open folder");
    // Where the folder was the trouble, the same copy is a choice of folder away.
    using Why = PasteReport::Why;
    const bool otherFolder = !success && (report.why == Why::notEnoughSpace || report.why == Why::diskFull
                                          || report.why == Why::noPermission || report.why == Why::insideRemoteFiles);
    if (otherFolder)
        alert.buttons << tr("Choose another folder…");
    if (QLocale().language() != QLocale::Chinese && !informative.isEmpty()) {
        alert.message = informative.section(QLatin1Char('\n'), 0, 0);
        alert.informative = informative.section(QLatin1Char('\n'), 1);
        alert.reference = message;
    }
    const int answer = m_platform.alerts->runModal(alert);
    if (answer == 1001 && saved)
        m_platform.services->openUrl(QUrl::fromLocalFile(report.folder));
    else if (answer == 1000 + alert.buttons.size() - 1 && otherFolder)
        m_watcher->paste();
}

void ViewController::clickStopPasteBtn()
{
    qCInfo(lcDesktop).noquote() << "click stop";
    if (ClipBoardManager *engine = m_watcher->clipManager())
        engine->setPasteStatus(ClipBoardManager::PasteStatus::cancel);
    hideWindow();
}

// Closing the window would leave a paste running unseen: it is a way to stop, asked first.
void ViewController::closeEvent(QCloseEvent *event)
{
    event->ignore();
    if (!m_pasting)
        return hideWindow();
    const int ends = m_ends;
    const int answer = m_platform.alerts->runModal( // a Return typed on is no Stop
        {.message = tr("Stop this paste?"),
         .informative = tr("Files already complete stay in the folder; the one being written is removed."),
         .buttons = {tr("Stop"), tr("Keep pasting")},
         .defaultButton = 1,
         .kind = Alert::Kind::question});
    if (answer == 1000 && ends == m_ends) // not if the paste ended while the question was up
        clickStopPasteBtn();
}
