#include "QtConflictAsker.h"

#include "PasteTarget.h"

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
    const QString example = kx::numberedName(summary.firstNames.value(0, QStringLiteral("report.pdf")).section(QLatin1Char('/'), -1), 2);
    box.setInformativeText(
        QObject::tr("Keep both: the pasted item gets a new name, such as “%1”.\n"
                    "Replace: the pasted file takes the place of yours.\n"
                    "Skip: yours stays as it is, and the pasted one is left out.\n"
                    "Folders are never replaced: the pasted ones are merged into yours.")
            .arg(example));
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
