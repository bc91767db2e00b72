#include "QtAlerts.h"

#include <QEventLoop>
#include <QMessageBox>
#include <QPushButton>

int QtAlerts::runModal(const QString &message, const QString &informative, const QStringList &buttons, int defaultButton)
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
    box.setText(message);
    box.setInformativeText(informative);
    QList<QAbstractButton *> added;
    for (const QString &title : buttons)
        added.append(box.addButton(title, added.isEmpty() ? QMessageBox::AcceptRole : QMessageBox::RejectRole));
    if (defaultButton >= 0 && defaultButton < added.size())
        box.setDefaultButton(qobject_cast<QPushButton *>(added.at(defaultButton)));
    QEventLoop loop;
    QObject::connect(&box, &QDialog::finished, &loop, &QEventLoop::quit);
    box.show();
    box.raise();
    loop.exec();
    const qsizetype index = added.indexOf(box.clickedButton());
    return 1000 + int(index < 0 ? added.size() : index);
}
