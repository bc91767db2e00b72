#include "KXFileManager.h"
#include "KXFileStreamOperation.h"
#include "LogCapture.h"
#include "RemotePathGuard.h"
#include "ScriptedChooser.h"

#include <QDir>
#include <QFile>
#include <QRegularExpression>
#include <QSet>
#include <QTemporaryDir>
#include <QTest>

#include <fcntl.h>
#include <unistd.h>

namespace {

class RecordingFileDelegate : public QObject, public KXFileManagerDelegate
{
public:
    QList<QUrl> chosen;
    int cancelled = 0;
    void folderChosen(const QUrl &url) override { chosen.append(url); }
    void folderChoiceCancelled() override { ++cancelled; }
};

QByteArray pattern(qsizetype size, int seed)
{
    QByteArray data(size, Qt::Uninitialized);
    for (qsizetype i = 0; i < size; ++i)
        data[i] = char((i * 31 + seed) & 0xff);
    return data;
}

bool makeSparseFile(const QString &path, qint64 size)
{
    QFile file(path);
    return file.open(QIODevice::WriteOnly) && file.resize(size);
}

} // namespace

class TestStorage : public QObject
{
    Q_OBJECT
private slots:
    void pathMapping_data();
    void pathMapping();
    void containment_data();
    void containment();
    void removeTrailingSlash();
    void writeCreatesFoldersAndReplaces();
    void writeOutsideBaseIsNeverCreatedForContainedNames();
    void defaultBaseIsTheDownloadsFolder();
    void readRanges_data();
    void readRanges();
    void readMissingFileFails();
    void readAboveFourGiB();
    void writeAboveFourGiB();
    void fragments_data();
    void fragments();
    void fileKeyFormatAndUniqueness();
    void archiveRoundTrip();
    void chooser_data();
    void chooser();
    void chooserWithoutDelegate();
    void attributes();
};

void TestStorage::pathMapping_data()
{
    QTest::addColumn<QString>("remote");
    QTest::addColumn<QString>("expected");
    QTest::addColumn<QStringList>("folders");

    QTest::newRow("nested") << "a\\b\\c.txt" << "/base/a/b/c.txt" << QStringList{"/base/a", "/base/a/b"};
    QTest::newRow("one component") << "c.txt" << "/base/c.txt" << QStringList{};
    QTest::newRow("leading backslash") << "\\a\\b.txt" << "/base/a/b.txt" << QStringList{"/base/", "/base/a"};
    QTest::newRow("double backslash") << "a\\\\b.txt" << "/base/a//b.txt" << QStringList{"/base/a", "/base/a"};
    QTest::newRow("empty") << "" << "/base/" << QStringList{};
    QTest::newRow("percent sign") << "100%d.txt" << "/base/100%d.txt" << QStringList{};
    QTest::newRow("trailing backslash") << "dir\\" << "/base/dir" << QStringList{"/base/dir"};
    QTest::newRow("unicode") << "文件夹\\ü.txt" << "/base/文件夹/ü.txt" << QStringList{"/base/文件夹"};
}

void TestStorage::pathMapping()
{
    QFETCH(QString, remote);
    QFETCH(QString, expected);
    QFETCH(QStringList, folders);

    QCOMPARE(KXFileStreamOperation::getFullPathWithWindowsPath(remote, QStringLiteral("/base")), expected);
    QCOMPARE(KXFileStreamOperation::getMacPathFromWindowsPath(remote, QStringLiteral("/base")), expected);

    // The same mapping on disk: the folders of the path are made, the file itself is not.
    QTemporaryDir dir;
    LogCapture log;
    KXFileStreamOperation::createFolder(remote, dir.path());
    QStringList made;
    for (const QString &line : log.lines()) {
        if (line.startsWith(QStringLiteral("文件夹不存在需要创建这个文件夹:")) || line.startsWith(QStringLiteral("文件夹已经存在:")))
            made.append(line.section(QLatin1Char(':'), 1).replace(dir.path(), QStringLiteral("/base")));
    }
    QCOMPARE(made, folders);
    QVERIFY(!QFileInfo::exists(KXFileStreamOperation::getFullPathWithWindowsPath(remote, dir.path()))
            || remote.isEmpty() || remote.endsWith(QLatin1Char('\\')));
}

void TestStorage::containment_data()
{
    QTest::addColumn<QString>("remote");
    QTest::addColumn<bool>("contained");

    QTest::newRow("plain") << "a\\b.txt" << true;
    QTest::newRow("leading backslash") << "\\a\\b.txt" << true;
    QTest::newRow("dots in a name") << "a..b\\..c" << true;
    QTest::newRow("single dot") << ".\\a" << true;
    QTest::newRow("parent") << "..\\..\\x" << false;
    QTest::newRow("parent after a folder") << "a\\..\\..\\x" << false;
    QTest::newRow("parent with forward slashes") << "a/../../x" << false;
    QTest::newRow("trailing parent") << "a\\.." << false;
    QTest::newRow("drive letter") << "C:\\x" << false;
    QTest::newRow("drive-relative") << "c:x" << false;
    QTest::newRow("absolute POSIX") << "/etc/x" << false;
    QTest::newRow("UNC") << "\\\\server\\share\\x" << false;
}

void TestStorage::containment()
{
    QFETCH(QString, remote);
    QFETCH(bool, contained);
    QCOMPARE(kx::isContainedRemotePath(remote), contained);
}

void TestStorage::removeTrailingSlash()
{
    QCOMPARE(KXFileStreamOperation::removeTrailingSlash(QStringLiteral("//a/b//")), QStringLiteral("a/b"));
    QCOMPARE(KXFileStreamOperation::removeTrailingSlash(QStringLiteral("///")), QString());
}

void TestStorage::writeCreatesFoldersAndReplaces()
{
    QTemporaryDir dir;
    const QString target = dir.filePath(QStringLiteral("d/e/f.bin"));
    QDir().mkpath(dir.filePath(QStringLiteral("d/e")));
    {
        QFile old(target);
        QVERIFY(old.open(QIODevice::WriteOnly));
        old.write("old content that is longer than the new one");
    }
    LogCapture log;
    auto operation = KXFileStreamOperation::initFileOperationAtPath(QStringLiteral("d\\e\\f.bin"), true, dir.path());
    QVERIFY(operation);
    QCOMPARE(QFileInfo(target).size(), 0); // replaced by an empty file before the first write
    QVERIFY(log.contains(QStringLiteral("fileMgr 先删除path:") + target));
    QVERIFY(log.contains(QStringLiteral("创建path成功：") + target));
    QCOMPARE(operation->basePath, std::optional<QString>(dir.path()));

    const QByteArray first = pattern(1000, 1);
    const QByteArray second = pattern(500, 2);
    QVERIFY(operation->writeDateOffSet(0, first));
    QVERIFY(operation->writeDateOffSet(1000, second));
    operation->closeFile();
    QVERIFY(!operation->writeDateOffSet(1500, second)); // closed: nothing is written

    QFile written(target);
    QVERIFY(written.open(QIODevice::ReadOnly));
    QCOMPARE(written.readAll(), first + second);

    // A folder already at the target is the user's data: it is not removed.
    QDir().mkpath(dir.filePath(QStringLiteral("folder/keep")));
    QVERIFY(!KXFileStreamOperation::initFileOperationAtPath(QStringLiteral("folder"), true, dir.path()));
    QVERIFY(QFileInfo(dir.filePath(QStringLiteral("folder/keep"))).isDir());
}

void TestStorage::writeOutsideBaseIsNeverCreatedForContainedNames()
{
    // A symbolic link at the target is replaced by a file, never written through.
    QTemporaryDir outside;
    QTemporaryDir dir;
    const QString victim = outside.filePath(QStringLiteral("victim.txt"));
    {
        QFile file(victim);
        QVERIFY(file.open(QIODevice::WriteOnly));
        file.write("keep me");
    }
    QVERIFY(QFile::link(victim, dir.filePath(QStringLiteral("link.txt"))));
    auto operation = KXFileStreamOperation::initFileOperationAtPath(QStringLiteral("link.txt"), true, dir.path());
    QVERIFY(operation);
    QVERIFY(operation->writeDateOffSet(0, "new"));
    QFile file(victim);
    QVERIFY(file.open(QIODevice::ReadOnly));
    QCOMPARE(file.readAll(), QByteArray("keep me"));
    QVERIFY(!QFileInfo(dir.filePath(QStringLiteral("link.txt"))).isSymLink());
}

void TestStorage::defaultBaseIsTheDownloadsFolder()
{
    QTemporaryDir home;
    qputenv("HOME", home.path().toUtf8());
    qputenv("XDG_DOWNLOAD_DIR", home.filePath(QStringLiteral("Downloads")).toUtf8());
    QDir().mkpath(home.filePath(QStringLiteral("Downloads")));
    const QString downloads = KXFileStreamOperation::downloadDirectory();
    QVERIFY(downloads.startsWith(home.path()));
    auto operation = KXFileStreamOperation::initFileOperationAtPath(QStringLiteral("x.txt"), true, QString());
    QVERIFY(operation);
    QVERIFY(!operation->basePath);
    QVERIFY(QFileInfo::exists(downloads + QStringLiteral("/x.txt")));
}

void TestStorage::readRanges_data()
{
    QTest::addColumn<quint64>("offset");
    QTest::addColumn<quint64>("length");
    QTest::addColumn<int>("expected");

    QTest::newRow("whole") << quint64(0) << quint64(262144) << 100;
    QTest::newRow("inside") << quint64(10) << quint64(20) << 20;
    QTest::newRow("across the end") << quint64(95) << quint64(100) << 5;
    QTest::newRow("at the end") << quint64(100) << quint64(100) << 0;
    QTest::newRow("past the end") << quint64(5000) << quint64(100) << 0;
}

void TestStorage::readRanges()
{
    QFETCH(quint64, offset);
    QFETCH(quint64, length);
    QFETCH(int, expected);
    QTemporaryDir dir;
    const QString path = dir.filePath(QStringLiteral("f"));
    const QByteArray content = pattern(100, 3);
    QFile file(path);
    QVERIFY(file.open(QIODevice::WriteOnly));
    file.write(content);
    file.close();

    auto operation = KXFileStreamOperation::initFileOperationAtPath(path, false, QStringLiteral("/ignored"));
    QVERIFY(operation);
    QCOMPARE(operation->fileSize, 100u);
    QCOMPARE(operation->fileName, QStringLiteral("f"));
    const auto data = operation->readDateOffSet(offset, length);
    QVERIFY(data);
    QCOMPARE(data->size(), expected);
    QCOMPARE(*data, content.mid(qsizetype(offset), expected));
}

void TestStorage::readMissingFileFails()
{
    LogCapture log;
    QVERIFY(!KXFileStreamOperation::initFileOperationAtPath(QStringLiteral("/nonexistent/x"), false, QString()));
    QVERIFY(log.contains(QStringLiteral("文件不存在：/nonexistent/x")));
}

void TestStorage::readAboveFourGiB()
{
    QTemporaryDir dir;
    const QString path = dir.filePath(QStringLiteral("sparse"));
    const qint64 size = 5LL * 1024 * 1024 * 1024;
    if (!makeSparseFile(path, size))
        QSKIP("this file system cannot hold a 5 GiB sparse file");
    const quint64 offset = (quint64(1) << 32) + 12345;
    {
        const int fd = ::open(QFile::encodeName(path).constData(), O_WRONLY);
        QVERIFY(fd >= 0);
        QCOMPARE(::pwrite(fd, "marker", 6, off_t(offset)), ssize_t(6));
        ::close(fd);
    }
    auto operation = KXFileStreamOperation::initFileOperationAtPath(path, false, QString());
    QVERIFY(operation);
    QCOMPARE(operation->fileSize, quint64(size));
    QCOMPARE(operation->readDateOffSet(offset, 6), std::optional<QByteArray>("marker"));
    QCOMPARE(operation->readDateOffSet(quint64(size) - 2, 100), std::optional<QByteArray>(QByteArray(2, '\0')));
}

void TestStorage::writeAboveFourGiB()
{
    QTemporaryDir dir;
    auto operation = KXFileStreamOperation::initFileOperationAtPath(QStringLiteral("big"), true, dir.path());
    QVERIFY(operation);
    const quint64 offset = (quint64(1) << 32) + 7;
    if (!operation->writeDateOffSet(offset, "tail"))
        QSKIP("this file system cannot hold a sparse file above 4 GiB");
    operation->closeFile();
    QCOMPARE(QFileInfo(dir.filePath(QStringLiteral("big"))).size(), qint64(offset + 4));
    auto reader = KXFileStreamOperation::initFileOperationAtPath(dir.filePath(QStringLiteral("big")), false, QString());
    QCOMPARE(reader->readDateOffSet(offset, 4), std::optional<QByteArray>("tail"));
}

void TestStorage::fragments_data()
{
    QTest::addColumn<int>("fileSize");
    QTest::addColumn<qint64>("segment");
    QTest::addColumn<QList<quint64>>("offsets");
    QTest::addColumn<QList<quint64>>("sizes");

    QTest::newRow("10 by 4") << 10 << qint64(4) << QList<quint64>{0, 4, 8} << QList<quint64>{4, 4, 2};
    QTest::newRow("10 by 5") << 10 << qint64(5) << QList<quint64>{0, 5} << QList<quint64>{5, 5};
    QTest::newRow("10 by 0") << 10 << qint64(0) << QList<quint64>{0} << QList<quint64>{10};
    QTest::newRow("empty file") << 0 << qint64(4) << QList<quint64>{} << QList<quint64>{};
}

void TestStorage::fragments()
{
    QFETCH(int, fileSize);
    QFETCH(qint64, segment);
    QFETCH(QList<quint64>, offsets);
    QFETCH(QList<quint64>, sizes);
    QTemporaryDir dir;
    const QString path = dir.filePath(QStringLiteral("f"));
    const QByteArray content = pattern(fileSize, 9);
    QFile file(path);
    QVERIFY(file.open(QIODevice::WriteOnly));
    file.write(content);
    file.close();

    auto operation = KXFileStreamOperation::initFileOperationAtPath(path, segment, true);
    QVERIFY(operation);
    QVERIFY(operation->isReadOperation);
    QCOMPARE(operation->fileFragments.size(), offsets.size());
    QByteArray joined;
    for (qsizetype i = 0; i < offsets.size(); ++i) {
        const KXFileFragment &fragment = operation->fileFragments.at(i);
        QCOMPARE(fragment.fragementOffset, offsets.at(i));
        QCOMPARE(fragment.fragmentSize, sizes.at(i));
        QCOMPARE(fragment.fragmentStatus, 0);
        joined += operation->readDateOfFragment(fragment).value_or(QByteArray());
    }
    QCOMPARE(joined, content);
    QVERIFY(!operation->readDateOfFragment(std::nullopt));
}

void TestStorage::fileKeyFormatAndUniqueness()
{
    static const QRegularExpression format(QStringLiteral("^[0-9a-f]{40}$"));
    QSet<QString> keys;
    for (int i = 0; i < 200; ++i) {
        const QString key = KXFileStreamOperation::fileKey();
        QVERIFY2(format.match(key).hasMatch(), qPrintable(key));
        keys.insert(key);
    }
    QCOMPARE(keys.size(), 200);
}

void TestStorage::archiveRoundTrip()
{
    QTemporaryDir dir;
    const QString path = dir.filePath(QStringLiteral("archived.bin"));
    QFile file(path);
    QVERIFY(file.open(QIODevice::WriteOnly));
    file.write(pattern(10, 4));
    file.close();
    auto operation = KXFileStreamOperation::initFileOperationAtPath(path, 4, true);
    QVERIFY(operation);
    const QByteArray bytes = QCborValue(operation->encode()).toCbor();
    const auto decoded = KXFileStreamOperation::decode(QCborValue::fromCbor(bytes).toMap());
    QCOMPARE(decoded->fileName, QStringLiteral("archived.bin"));
    QCOMPARE(decoded->fileSize, 10u);
    QCOMPARE(decoded->filePath, path);
    QCOMPARE(decoded->fileFragments, operation->fileFragments);
    QVERIFY(!decoded->hasReadHandle() && !decoded->hasWriteHandle());
    QVERIFY(!decoded->readDateOffSet(0, 4));
}

void TestStorage::chooser_data()
{
    QTest::addColumn<bool>("confirmed");
    QTest::addColumn<QString>("folder"); // "-" for no URL at all
    QTest::addColumn<int>("chosen");
    QTest::addColumn<int>("cancelled");
    QTest::addColumn<QString>("logLine");

    QTest::newRow("cancel") << false << "/tmp" << 0 << 1 << "用户取消选择文件";
    QTest::newRow("choose") << true << "/tmp/dest" << 1 << 0 << "选择的文件路径：/tmp/dest";
    QTest::newRow("confirmed without a URL") << true << "-" << 0 << 1 << "";
    QTest::newRow("confirmed with an empty path") << true << "" << 0 << 1 << "选择的文件路径：";
}

void TestStorage::chooser()
{
    QFETCH(bool, confirmed);
    QFETCH(QString, folder);
    QFETCH(int, chosen);
    QFETCH(int, cancelled);
    QFETCH(QString, logLine);

    auto *script = new ScriptedChooser;
    script->answer.confirmed = confirmed;
    if (folder != QLatin1String("-"))
        script->answer.url = folder.isEmpty() ? QUrl() : QUrl::fromLocalFile(folder);
    KXFileManager::shared()->setFolderChooser(std::unique_ptr<FolderChooser>(script));
    RecordingFileDelegate delegate;
    KXFileManager::shared()->setDelegate(&delegate);
    LogCapture log;
    KXFileManager::shared()->chooseDestinationFolder();
    QCOMPARE(script->runs, 1);
    QCOMPARE(delegate.chosen.size(), chosen);
    QCOMPARE(delegate.cancelled, cancelled);
    if (chosen)
        QCOMPARE(delegate.chosen.first().toLocalFile(), folder);
    QCOMPARE(log.lines(), logLine.isEmpty() ? QStringList() : QStringList{logLine});
}

void TestStorage::chooserWithoutDelegate()
{
    auto *script = new ScriptedChooser;
    script->answer = ScriptedChooser::choose(QStringLiteral("/tmp/x"));
    KXFileManager::shared()->setFolderChooser(std::unique_ptr<FolderChooser>(script));
    {
        RecordingFileDelegate gone;
        KXFileManager::shared()->setDelegate(&gone);
    } // destroyed: the manager must notice and call nobody
    LogCapture log;
    KXFileManager::shared()->chooseDestinationFolder();
    QCOMPARE(script->runs, 1);
    QCOMPARE(log.lines(), QStringList{QStringLiteral("选择的文件路径：/tmp/x")});
}

void TestStorage::attributes()
{
    KXFileManager *files = KXFileManager::shared();
    LogCapture log;
    QCOMPARE(files->fileSizeAtPath(QString()), 0u);
    QVERIFY(log.lines().isEmpty());

    QTemporaryDir dir;
    const QString empty = dir.filePath(QStringLiteral("empty"));
    QFile(empty).open(QIODevice::WriteOnly);
    QCOMPARE(files->fileSizeAtPath(empty), 0u);
    QVERIFY(log.contains(QStringLiteral("File size: 0 bytes")));

    const QDateTime before = QDateTime::currentDateTimeUtc().addSecs(-1);
    QVERIFY(files->creationDateAtPath(QString()) >= before);
    log.clear();
    const QString missing = dir.filePath(QStringLiteral("missing"));
    QCOMPARE(files->fileSizeAtPath(missing), 0u);
    QVERIFY(files->modificationDateAtPath(missing) >= before);
    QCOMPARE(log.count(QStringLiteral("Cannot read the attributes of ") + missing), 2);

    const QDateTime stamp = QDateTime(QDate(2020, 1, 1), QTime(0, 0, 0, 750), Qt::UTC);
    QFile file(empty);
    QVERIFY(file.open(QIODevice::ReadWrite));
    QVERIFY(file.setFileTime(stamp, QFileDevice::FileModificationTime));
    file.close();
    log.clear();
    QCOMPARE(files->modificationDateAtPath(empty), stamp);
    QVERIFY(log.contains(QStringLiteral("modificationDate date: 2020-01-01 00:00:00 +0000")));
}

QTEST_GUILESS_MAIN(TestStorage)
#include "tst_storage.moc"
