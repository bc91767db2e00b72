#include "QtFolderChooser.h"

#include <QFileDialog>

FolderChoice QtFolderChooser::runModal()
{
    QFileDialog dialog;
    dialog.setWindowTitle(QObject::tr("Choose a destination folder"));
    dialog.setFileMode(QFileDialog::Directory);
    dialog.setOption(QFileDialog::ShowDirsOnly, true);
    dialog.setOption(QFileDialog::DontUseNativeDialog, true); // same dialog everywhere; testable
    if (dialog.exec() != QDialog::Accepted)
        return {};
    const QList<QUrl> urls = dialog.selectedUrls();
    return FolderChoice{true, urls.isEmpty() ? std::nullopt : std::optional(urls.first())};
}
