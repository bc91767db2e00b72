// File storage: remote names to local paths, files made beneath the chosen folder and
// never through a link, fragments and their archive, a file as a stream, and the
// attributes of local files. Ranges at 64-bit offsets and the folder chooser are
// exercised through the engine, in the copy and paste tests.
#include "EngineHarness.h"
#include "KXFileStreamOperation.h"
#include "LogCapture.h"
#include "RemotePath.h"

#include <QTimeZone>
#include <QCborValue>
#include <QRegularExpression>

#include <csignal>
#include <sys/resource.h>
#include <sys/stat.h>

class TestStorage : public QObject
{
    Q_OBJECT
private slots:
    void pathMapping_data();
    void pathMapping();
    void writesBeneath_data();
    void writesBeneath();
    void fragmentsAndArchive_data();
    void fragmentsAndArchive();
    void attributes();
    void sequentialAccess();
};

// A remote name as a local path (text only), and whether it stays inside the base.
void TestStorage::pathMapping_data()
{
    QTest::addColumn<QString>("remote");
    QTest::addColumn<QString>("expected");
    QTest::addColumn<bool>("contained");
    QTest::newRow("nested") << "a\\b\\c.txt" << "/base/a/b/c.txt" << true;
    QTest::newRow("leading backslash") << "\\a\\b.txt" << "/base/a/b.txt" << true;
    QTest::newRow("double backslash") << "a\\\\b.txt" << "/base/a//b.txt" << true;
    QTest::newRow("trailing backslash") << "dir\\" << "/base/dir" << true;
    QTest::newRow("empty") << "" << "/base/" << true;
    QTest::newRow("percent sign, dots in names") << "a..b\\100%d.\\.c" << "/base/a..b/100%d./.c" << true;
    QTest::newRow("parent") << "..\\..\\x" << "/base/../../x" << false;
    QTest::newRow("parent with forward slashes") << "a/../../x" << "/base/a/../../x" << false;
    QTest::newRow("drive letter") << "C:\\x" << "/base/C:/x" << false;
    QTest::newRow("drive-relative") << "c:x" << "/base/c:x" << false;
    QTest::newRow("absolute") << "/etc/x" << "/base/etc/x" << false;
    QTest::newRow("UNC") << "\\\\server\\x" << "/base/server/x" << false;
    QTest::newRow("NUL inside") << QString("a") + QChar(0) + "b" << "/base/a" + QString(QChar(0)) + "b" << false;
}

void TestStorage::pathMapping()
{
    QFETCH(QString, remote);
    QFETCH(QString, expected);
    QFETCH(bool, contained);
    QCOMPARE(KXFileStreamOperation::getFullPathWithWindowsPath(remote, "/base"), expected);
    QCOMPARE(KXFileStreamOperation::getMacPathFromWindowsPath(remote, "/base"), expected);
    QCOMPARE(kx::isContainedRemotePath(remote), contained);
    const QStringList deep(15, QString(255, 'd')); // "/b" + 15 * 256 + 253 is PATH_MAX
    QVERIFY(kx::fitsFileSystem("/b", deep + QStringList{QString(252, 'f')}) && !kx::fitsFileSystem("/b", deep + QStringList{QString(253, 'f')}));
}

// The chosen folder holds links to a folder outside, to a file outside, and one that
// points nowhere. Whatever the name, nothing outside changes; a link is never written
// through. A file is written under a hidden name and put in place, here replacing what
// has its name, when it is complete; a folder is never replaced.
void TestStorage::writesBeneath_data()
{
    QTest::addColumn<QString>("remote");
    QTest::addColumn<bool>("created");
    QTest::addColumn<QStringList>("inside"); // the chosen folder afterwards

    const QStringList links{"dangling -> nowhere", "file -> victim.txt", "photos -> outside"};
    const auto with = [&](QStringList extra) { extra += links; extra.sort(); return extra; };
    QTest::newRow("new folders") << "a\\b\\c.txt" << true << with({"a/", "a/b/", "a/b/c.txt 11"});
    QTest::newRow("existing file replaced") << "old.txt" << true << with({"old.txt 11"});
    QTest::newRow("through a link to a folder") << "photos\\.bashrc" << false << links;
    QTest::newRow("through it, deeper") << "photos\\new\\x" << false << links;
    QTest::newRow("a link where the file goes") << "file" << true << QStringList{"dangling -> nowhere", "file 11", "photos -> outside"};
    QTest::newRow("a folder where the file goes") << "keep" << true << with({"keep (2) 11", "keep/", "keep/mine 4"});
    QTest::newRow("a component over NAME_MAX") << "a\\" + QString(256, 'x') + "\\f" << false << links;
    QTest::newRow("a path over PATH_MAX") << QString("d\\").repeated(2100) + "f" << false << links;
    QTest::newRow("parents, walked") << "a\\..\\..\\up" << false << links;
}

void TestStorage::writesBeneath()
{
    QFETCH(QString, remote);
    QFETCH(bool, created);
    QFETCH(QStringList, inside);
    QTemporaryDir dir;
    const QString chosen = dir.filePath("chosen"), outside = dir.filePath("outside");
    QVERIFY(writeFile(outside + "/.bashrc", "mine") && writeFile(dir.filePath("victim.txt"), "victim"));
    QVERIFY(QDir().mkpath(chosen) && QFile::link(outside, chosen + "/photos"));
    QVERIFY(QFile::link(dir.filePath("victim.txt"), chosen + "/file") && QFile::link(dir.filePath("nowhere"), chosen + "/dangling"));
    if (remote == "keep")
        QVERIFY(writeFile(chosen + "/keep/mine", "mine"));
    if (remote == "old.txt")
        QVERIFY(writeFile(chosen + "/old.txt", "an older and longer file"));
    const QStringList outsideBefore = treeOf(dir.path()).filter(QRegularExpression("^(outside|victim)"));

    LogCapture log;
    KXFileStreamOperation::initFileOperationAtPath(remote, true, chosen).reset(); // dropped unfinished: no trace
    auto operation = KXFileStreamOperation::initFileOperationAtPath(remote, true, chosen);
    QCOMPARE(bool(operation), created);
    QVERIFY(!created || !log.containsPrefix("创建文件夹失败:"));
    if (operation) {
        QCOMPARE(operation->basePath, std::optional<QString>(chosen));
        QVERIFY(operation->writeDateOffSet(0, "first") && operation->writeDateOffSet(5, "second"));
        operation->closeFile();
        QVERIFY(!operation->writeDateOffSet(11, "closed"));
        QCOMPARE(readFile(operation->partialPath()), QByteArray("firstsecond"));
        const auto placed = operation->commit(true);
        QVERIFY(placed && readFile(*placed) == "firstsecond" && operation->partialPath().isEmpty());
        QVERIFY(!(QFile::permissions(*placed) & (QFile::ExeOwner | QFile::ExeOther | QFile::WriteOther))); // never made runnable
    }
    QCOMPARE(treeOf(chosen), inside);
    QCOMPARE(treeOf(dir.path()).filter(QRegularExpression("^(outside|victim)")), outsideBefore);
    QCOMPARE(readFile(outside + "/.bashrc"), QByteArray("mine"));
}

void TestStorage::fragmentsAndArchive_data()
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

void TestStorage::fragmentsAndArchive()
{
    QFETCH(int, fileSize);
    QFETCH(qint64, segment);
    QFETCH(QList<quint64>, offsets);
    QFETCH(QList<quint64>, sizes);
    QTemporaryDir dir;
    QVERIFY(writeFile(dir.filePath("f"), pattern(fileSize, 9)));
    auto operation = KXFileStreamOperation::initFileOperationAtPath(dir.filePath("f"), segment, true);
    QVERIFY(operation && operation->isReadOperation);
    QCOMPARE(operation->fileFragments.size(), offsets.size());
    QByteArray joined;
    for (qsizetype i = 0; i < offsets.size(); ++i) {
        const KXFileFragment &fragment = operation->fileFragments.at(i);
        QCOMPARE(fragment.fragementOffset, offsets.at(i));
        QCOMPARE(fragment.fragmentSize, sizes.at(i));
        QVERIFY(QRegularExpression("^[0-9a-f]{40}$").match(fragment.fragmentId).hasMatch());
        joined += operation->readDateOfFragment(fragment).value_or(QByteArray());
    }
    QCOMPARE(joined, pattern(fileSize, 9));
    const auto decoded = KXFileStreamOperation::decode(QCborValue::fromCbor(QCborValue(operation->encode()).toCbor()).toMap());
    QCOMPARE(decoded->fileName, QStringLiteral("f"));
    QCOMPARE(decoded->fileSize, quint64(fileSize));
    QCOMPARE(decoded->filePath, dir.filePath("f"));
    QCOMPARE(decoded->fileFragments, operation->fileFragments);
    QVERIFY(!decoded->readDateOffSet(0, 4)); // no file is open after decoding
}

void TestStorage::attributes()
{
    KXFileManager files;
    QTemporaryDir dir;
    LogCapture log;
    const QDateTime before = QDateTime::currentDateTimeUtc().addSecs(-1);
    QVERIFY(files.fileSizeAtPath(QString()) == 0 && files.creationDateAtPath(QString()) >= before && log.lines().isEmpty());
    const QString missing = dir.filePath("missing");
    QVERIFY(files.fileSizeAtPath(missing) == 0 && files.modificationDateAtPath(missing) >= before);
    QCOMPARE(log.count("Cannot read the attributes of " + missing), 2);
    QVERIFY(writeFile(dir.filePath("f"), "12345"));
    const QDateTime stamp(QDate(2020, 1, 1), QTime(0, 0, 0, 750), QTimeZone::utc());
    QFile file(dir.filePath("f"));
    QVERIFY(file.open(QIODevice::ReadWrite) && file.setFileTime(stamp, QFileDevice::FileModificationTime));
    file.close();
    log.clear();
    QVERIFY(files.fileSizeAtPath(file.fileName()) == 5 && files.modificationDateAtPath(file.fileName()) == stamp);
    QVERIFY(files.creationDateAtPath(file.fileName()).isValid());
    QCOMPARE(log.lines().mid(0, 2), (QStringList{"File size: 5 bytes", "modificationDate date: 2020-01-01 00:00:00 +0000"}));
    QVERIFY(log.lines().filter("Cannot read").isEmpty());
}

// The file as a stream: each read or write goes on where the last one ended.
void TestStorage::sequentialAccess()
{
    QTemporaryDir dir;
    const QString path = dir.filePath("s");
    auto out = KXFileStreamOperation::initFileOperationAtPath(path, 0, false); // made if missing, kept if not
    QVERIFY(out && out->writeData("hello ") && out->writeData("world") && out->offsetInFile() == 11);
    std::signal(SIGXFSZ, SIG_IGN);
    const rlimit unlimited = [] { rlimit r{}; getrlimit(RLIMIT_FSIZE, &r); return r; }(), full{11, unlimited.rlim_max};
    setrlimit(RLIMIT_FSIZE, &full); // a full disk: the write fails
    QVERIFY(!out->writeData("!!") && out->offsetInFile() == 11);
    setrlimit(RLIMIT_FSIZE, &unlimited);
    QCOMPARE(out->seekToEndOfFile(), 11u);
    out->closeFile();
    QVERIFY(!out->writeData("closed") && out->offsetInFile() == 0 && out->seekToEndOfFile() == 0);
    QCOMPARE(KXFileStreamOperation::initFileOperationAtPath(path, 0, false)->fileSize, 11u);
    auto in = KXFileStreamOperation::initFileOperationAtPath(path, 0, true);
    QVERIFY(in && in->readDataOfLength(5) == "hello" && in->offsetInFile() == 5);
    QCOMPARE(in->readDataToEndOfFile(), std::optional<QByteArray>(" world"));
    in->seekToFileOffset(6);
    QCOMPARE(in->readDataOfLength(100), std::optional<QByteArray>("world"));
    std::string held; // what the file has left, not what was asked: a 1 GiB query of a small file costs little
    QVERIFY(in->readDateOffSet(6, 1 << 30, held) && held == "world" && held.capacity() < 16);
    in->closeFile();
    QVERIFY(!in->readDataToEndOfFile());

    // Missing, a folder or a FIFO: nothing is opened, and opening never waits.
    LogCapture log;
    QVERIFY(::mkfifo(QFile::encodeName(dir.filePath("fifo")).constData(), 0600) == 0);
    for (const char *name : {"missing", "", "fifo"}) {
        QVERIFY(!KXFileStreamOperation::initFileOperationAtPath(dir.filePath(name), false, QString()));
        QVERIFY(!KXFileStreamOperation::initFileOperationAtPath(dir.filePath(name), 4, true));
    }
    QVERIFY(log.contains("文件不存在：" + dir.filePath("missing")) && !KXFileStreamOperation().getFileInfoAtPath(dir.filePath("missing")));
    QVERIFY(!KXFileStreamOperation::createFolder("made\\x", "/proc").valid() && log.contains("创建文件夹失败:No such file or directory: /proc/made"));
}

QTEST_GUILESS_MAIN(TestStorage)
#include "tst_storage.moc"
