#include "QtAlerts.h"

#include <QEventLoop>
#include <QMessageBox>
#include <QPushButton>

int QtAlerts::runModal(const Alert &alert)
{
    QMessageBox box;
    // Shown over the user's work without taking the keyboard from it: a Return typed on
    // there would answer it unread. A click or a switch to it gives it the keyboard. A
    // modal window is always activated on X11, so it waits in a loop of its own instead.
    box.setAttribute(Qt::WA_ShowWithoutActivating);
    box.setWindowModality(Qt::NonModal);
    // Above the progress window, which is raised with every report.
    box.setWindowFlag(Qt::WindowStaysOnTopHint);
    box.setWindowTitle(QStringLiteral(KX_APP_DISPLAY_NAME));
    box.setIcon(alert.kind == Alert::Kind::warning    ? QMessageBox::Warning
                : alert.kind == Alert::Kind::question ? QMessageBox::Question
                                                      : QMessageBox::Information);
    box.setText(alert.message);
    box.setTextFormat(Qt::PlainText);
    QString informative = alert.informative.toHtmlEscaped().replace(QLatin1Char('\n'), QLatin1String("<br>"));
    if (!alert.reference.isEmpty())
        informative += QStringLiteral("<p><small>%1</small></p>").arg(alert.reference.toHtmlEscaped());
    box.setInformativeText(informative);
    QList<QAbstractButton *> added;
    for (const QString &title : alert.buttons)
        added.append(box.addButton(title, added.isEmpty() ? QMessageBox::AcceptRole : QMessageBox::RejectRole));
    if (alert.defaultButton >= 0 && alert.defaultButton < added.size())
        box.setDefaultButton(qobject_cast<QPushButton *>(added.at(alert.defaultButton)));
    QEventLoop loop;
    QObject::connect(&box, &QDialog::finished, &loop, &QEventLoop::quit);
    box.show();
    box.raise();
    loop.exec();
    const qsizetype index = added.indexOf(box.clickedButton());
    return 1000 + int(index < 0 ? added.size() : index);
}
