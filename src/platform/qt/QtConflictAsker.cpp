#include "QtConflictAsker.h"

#include <QDir>
#include <QMessageBox>
#include <QPushButton>

ConflictChoice QtConflictAsker::ask(const ConflictSummary &summary)
{
    QMessageBox box;
    box.setIcon(QMessageBox::Question);
    box.setWindowTitle(QObject::tr("Names already taken"));
    QStringList shown = summary.firstNames;
    if (summary.count > std::size_t(shown.size()))
        shown.append(QStringLiteral("…"));
    box.setText(QObject::tr("%n of the pasted items already exist in “%1”:", nullptr, int(summary.count))
                    .arg(QDir(summary.folder).dirName())
                + QStringLiteral("\n\n") + shown.join(QLatin1Char('\n')));
    box.setInformativeText(
        QObject::tr("Keep both: the pasted item gets a new name, such as “report (2).pdf”.\n"
                    "Replace: the pasted file takes the place of yours.\n"
                    "Skip: yours stays as it is, and the pasted one is left out.\n"
                    "Folders are never replaced: the pasted ones are merged into yours."));
    QPushButton *keepBoth = box.addButton(QObject::tr("Keep both"), QMessageBox::AcceptRole);
    QPushButton *replace = box.addButton(QObject::tr("Replace"), QMessageBox::DestructiveRole);
    QPushButton *skip = box.addButton(QObject::tr("Skip"), QMessageBox::ActionRole);
    QPushButton *cancel = box.addButton(QMessageBox::Cancel);
    box.setDefaultButton(keepBoth);
    box.setEscapeButton(cancel);
    box.exec();
    if (box.clickedButton() == replace)
        return ConflictChoice::replace;
    if (box.clickedButton() == skip)
        return ConflictChoice::skip;
    return box.clickedButton() == keepBoth ? ConflictChoice::keepBoth : ConflictChoice::cancel;
}
