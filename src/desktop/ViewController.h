#pragma once

#include "ClipBoardError.h"
#include "ClipboardWatcher.h"
#include "TransferRate.h"

#include <QElapsedTimer>
#include <QPointer>
#include <QTimer>
#include <QWidget>

#include <cstdint>

class QLabel;
class QProgressBar;
class QPushButton;

// The one window, shown while a paste from the remote side runs: where the current file
// goes, how far the paste is and how fast, and a stop button; and the alert that tells
// how the paste ended.
class ViewController : public QWidget
{
    Q_OBJECT
public:
    static constexpr int contentWidth = 400;
    static constexpr int contentHeight = 200;
    static constexpr int hideDelayMs = 500;

    ViewController(Platform &platform, EngineContext engineContext, const QString &hostAppId,
                   QWidget *parent = nullptr);

    void viewDidLoad(const QStringList &arguments);
    void clickStopPasteBtn();
    void handlePasteProgress(double progress);
    void handlePasteFinished(bool success, ClipBoardError error);

    ClipboardWatcher *watcher() const { return m_watcher; }
    QProgressBar *progressIndicator() const { return m_progressIndicator; }
    QPushButton *stopBtn() const { return m_stopBtn; }
    // From the top: the file, its folder, file k of n with the bytes, speed and time left.
    QList<QLabel *> detailLabels() const { return {m_file, m_folder, m_count, m_rate}; }
    const QString &ipAdress() const { return m_ipAdress; }
    const QString &port() const { return m_port; }
    const QString &token() const { return m_token; }
    const QString &cid() const { return m_cid; }
    int window() const { return m_window; }
    const CertificatePin &pin() const { return m_pin; }

protected:
    void closeEvent(QCloseEvent *event) override;

private:
    // What the engine tells of the paste at a progress report.
    using Figures = PasteFigures;

    void resetProgressControls();
    void hideWindow();
    void showWindow();
    void showAlert(bool success, const QString &message, const QString &informative, const PasteReport &report);
    void setBarValue(double progress);
    Figures takeFigures();
    void showFigures(const Figures &figures, double progress);
    QString speedText(std::uint64_t left) const;
    void showEnd(bool success, const QString &message, const QString &informative, const PasteReport &report, const QString &outcome);

    Platform &m_platform;
    ClipboardWatcher *m_watcher = nullptr;
    QProgressBar *m_progressIndicator = nullptr;
    QPushButton *m_stopBtn = nullptr;
    QLabel *m_file = nullptr;
    QLabel *m_folder = nullptr;
    QLabel *m_count = nullptr;
    QLabel *m_rate = nullptr;
    QString m_ipAdress;
    QString m_port;
    QString m_token;
    QString m_cid;
    int m_window = 1;
    CertificatePin m_pin;

    Figures m_shown;        // the last file named stays named while none is current
    bool m_pasting = false; // from a paste's first report to its end
    int m_ends = 0;         // pastes ended: a question answered after the end stops nothing
    QElapsedTimer m_clock;
    // No bytes for this long: the window says that the remote desktop is waited for.
    static constexpr int quietMs = 3000;
    QTimer *m_quiet = nullptr;
    TransferRate m_speed;
};
