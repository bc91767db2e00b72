#include "QtFolderChooser.h"

#include "ContentsText.h"

#include <QCursor>
#include <QFileDialog>
#include <QGuiApplication>
#include <QLineEdit>
#include <QScreen>

namespace {

QString titleFor(const PasteContents &contents)
{
    const QString items = ContentsText::items(contents.items);
    return contents.bytes ? QObject::tr("Paste %1 (%2) into…").arg(items, ContentsText::size(*contents.bytes))
                          : QObject::tr("Paste %1 into…").arg(items);
}

// As large as the dialog likes to be, but within the screen the pointer is on: at a large
// scale factor a small screen would otherwise leave its buttons below the edge.
void fitToScreen(QFileDialog &dialog)
{
    const QScreen *screen = QGuiApplication::screenAt(QCursor::pos());
    if (!screen)
        screen = QGuiApplication::primaryScreen();
    if (!screen)
        return;
    const QRect area = screen->availableGeometry();
    const QSize room(area.width() * 9 / 10, area.height() * 17 / 20); // the frame and title bar too
    const QSize size = dialog.sizeHint().expandedTo(QSize(760, 520)).boundedTo(room);
    dialog.resize(size);
    dialog.move(area.center() - QPoint(size.width() / 2, size.height() / 2));
}

} // namespace

FolderChoice QtFolderChooser::runModal(const FolderRequest &request)
{
    QFileDialog dialog;
    dialog.setWindowTitle(titleFor(request.contents));
    dialog.setFileMode(QFileDialog::Directory);
    dialog.setOption(QFileDialog::ShowDirsOnly, true);
    dialog.setOption(QFileDialog::DontUseNativeDialog, true); // same dialog everywhere; testable
    dialog.setDirectory(request.startFolder);
    // As each character is typed the dialog selects the matching entries of the folder on
    // view, and a selection of more than one is written back into the field as a quoted
    // list: a path typed faster than the listings load came back as its parent, or as
    // "/". The dialog no longer follows the field; the field's text is the answer when
    // it names a folder, and a click in the list still fills the field.
    if (auto *field = dialog.findChild<QLineEdit *>(QStringLiteral("fileNameEdit")))
        QObject::disconnect(field, &QLineEdit::textChanged, &dialog, nullptr);
    fitToScreen(dialog);
    if (dialog.exec() != QDialog::Accepted)
        return {};
    const QList<QUrl> urls = dialog.selectedUrls();
    return FolderChoice{true, urls.isEmpty() ? std::nullopt : std::optional(urls.first())};
}
