#include "QtFolderChooser.h"

#include "ContentsText.h"

#include <QCursor>
#include <QDir>
#include <QFileDialog>
#include <QGuiApplication>
#include <QLineEdit>
#include <QMessageBox>
#include <QPushButton>
#include <QScreen>
#include <QSplitter>
#include <QStandardPaths>

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

// The places a user looks for first, those that exist.
QList<QUrl> places()
{
    QList<QUrl> urls{QUrl::fromLocalFile(QDir::homePath())};
    for (const auto location : {QStandardPaths::DesktopLocation, QStandardPaths::DocumentsLocation, QStandardPaths::DownloadLocation}) {
        const QString path = QStandardPaths::writableLocation(location);
        if (!path.isEmpty() && QDir(path).exists() && !urls.contains(QUrl::fromLocalFile(path)))
            urls.append(QUrl::fromLocalFile(path));
    }
    return urls;
}

// A folder typed that does not exist yet is offered to be made, rather than refused.
class PasteFolderDialog : public QFileDialog
{
public:
    void accept() override
    {
        const auto *field = findChild<QLineEdit *>(QStringLiteral("fileNameEdit"));
        const QString typed = field ? field->text().trimmed() : QString();
        const QString path = typed.isEmpty() ? QString() : QDir(directory()).absoluteFilePath(typed);
        if (!path.isEmpty() && !QFileInfo::exists(path)) {
            QMessageBox ask(QMessageBox::Question, windowTitle(),
                            QObject::tr("The folder “%1” does not exist. Make it, and paste there?").arg(QDir::toNativeSeparators(path)),
                            QMessageBox::NoButton, this);
            QPushButton *make = ask.addButton(QObject::tr("Make the folder"), QMessageBox::AcceptRole);
            ask.addButton(QMessageBox::Cancel);
            ask.setDefaultButton(make);
            ask.exec();
            if (ask.clickedButton() != make)
                return;
            if (!QDir().mkpath(path)) {
                QMessageBox::warning(this, windowTitle(), QObject::tr("The folder “%1” could not be made.").arg(QDir::toNativeSeparators(path)));
                return;
            }
        }
        QFileDialog::accept();
    }
};

} // namespace

FolderChoice QtFolderChooser::runModal(const FolderRequest &request)
{
    PasteFolderDialog dialog;
    dialog.setWindowTitle(titleFor(request.contents));
    dialog.setFileMode(QFileDialog::Directory);
    dialog.setOption(QFileDialog::ShowDirsOnly, true);
    dialog.setOption(QFileDialog::DontUseNativeDialog, true); // same dialog everywhere; testable
    dialog.setDirectory(request.startFolder);
    dialog.setLabelText(QFileDialog::Accept, QObject::tr("Paste here"));
    dialog.setSidebarUrls(places());
    // As each character is typed the dialog selects the matching entries of the folder on
    // view, and a selection of more than one is written back into the field as a quoted
    // list: a path typed faster than the listings load came back as its parent, or as
    // "/". The dialog no longer follows the field; the field's text is the answer when
    // it names a folder, and a click in the list still fills the field.
    if (auto *field = dialog.findChild<QLineEdit *>(QStringLiteral("fileNameEdit")))
        QObject::disconnect(field, &QLineEdit::textChanged, &dialog, nullptr);
    fitToScreen(dialog);
    // Room for the places' names: the dialog's own split leaves them cut at "Docume…".
    if (auto *split = dialog.findChild<QSplitter *>(QStringLiteral("splitter")))
        split->setSizes({dialog.width() / 4, dialog.width() * 3 / 4});
    if (dialog.exec() != QDialog::Accepted)
        return {};
    const QList<QUrl> urls = dialog.selectedUrls();
    return FolderChoice{true, urls.isEmpty() ? std::nullopt : std::optional(urls.first())};
}
