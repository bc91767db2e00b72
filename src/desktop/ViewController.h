#pragma once

#include "ClipBoardError.h"
#include "ClipboardWatcher.h"

#include <QPointer>
#include <QRect>
#include <QWidget>

class QLabel;
class QProgressBar;
class QPushButton;

// The one window: a progress bar, the current file and a stop button, shown while a
// paste from the remote side runs, and the alert that tells how it ended.
class ViewController : public QWidget
{
    Q_OBJECT
public:
    static constexpr int contentWidth = 400;
    static constexpr int contentHeight = 200;
    static constexpr int hideDelayMs = 500;
    static constexpr QRect detailArea{20, 20, 360, 56};
    static constexpr QRect progressArea{20, 88, 360, 24};
    static constexpr QRect stopButtonArea{150, 136, 100, 36};

    ViewController(Platform &platform, EngineContext engineContext, const QString &hostAppId,
                   QWidget *parent = nullptr);

    void viewDidLoad(const QStringList &arguments);
    void clickStopPasteBtn();
    void handlePasteProgress(double progress);
    void handlePasteFinished(bool success, ClipBoardError error);

    ClipboardWatcher *watcher() const { return m_watcher; }
    QProgressBar *progressIndicator() const { return m_progressIndicator; }
    QPushButton *stopBtn() const { return m_stopBtn; }
    QLabel *detailLabel() const { return m_detail; }
    const QString &ipAdress() const { return m_ipAdress; }
    const QString &port() const { return m_port; }
    const QString &token() const { return m_token; }
    const QString &cid() const { return m_cid; }
    int window() const { return m_window; }
    const CertificatePin &pin() const { return m_pin; }

private:
    void resetProgressControls();
    void hideWindow();
    void showWindow();
    void showAlert(const QString &message, const QString &informative, const PasteReport &report);
    void setBarValue(double progress);
    void updateDetail();

    Platform &m_platform;
    ClipboardWatcher *m_watcher = nullptr;
    QProgressBar *m_progressIndicator = nullptr;
    QPushButton *m_stopBtn = nullptr;
    QLabel *m_detail = nullptr;
    QString m_ipAdress;
    QString m_port;
    QString m_token;
    QString m_cid;
    int m_window = 1;
    CertificatePin m_pin;
};
