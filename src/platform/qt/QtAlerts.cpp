#include "QtAlerts.h"

#include <QMessageBox>
#include <QPushButton>

int QtAlerts::runModal(const QString &message, const QString &informative, const QStringList &buttons)
{
    QMessageBox box;
    box.setWindowTitle(QStringLiteral(KX_APP_DISPLAY_NAME));
    box.setText(message);
    box.setInformativeText(informative);
    QList<QAbstractButton *> added;
    for (const QString &title : buttons)
        added.append(box.addButton(title, added.isEmpty() ? QMessageBox::AcceptRole : QMessageBox::RejectRole));
    box.exec();
    const qsizetype index = added.indexOf(box.clickedButton());
    return 1000 + int(index < 0 ? added.size() : index);
}
