#include "EngineSession.h"
#include "FileTime.h"
#include "LogCapture.h"

#include <QDir>
#include <QDirIterator>
#include <QTest>

using Request = FileSDK::CliprdrFileContentsRequest;
using Response = FileSDK::CliprdrFileContentsResponse;

namespace {

QByteArray hex(const char *text)
{
    return QByteArray::fromHex(QByteArray(text).replace(' ', ""));
}


// "name attributes high low" for each descriptor: what the remote side sees of a list.
QStringList summary(const FileSDK::MacCliprdrFormatDataResponse &response)
{
    QStringList lines;
    for (const auto &d : response.filedes())
        lines.append(QStringLiteral("%1 %2 %3 %4").arg(QString::fromStdString(d.cfilename())).arg(d.dwfileattributes(), 0, 16)
                         .arg(d.nfilesizehigh()).arg(d.nfilesizelow()));
    return lines;
}

} // namespace

class TestCopy : public QObject
{
    Q_OBJECT
private slots:
    void init();
    void cleanup();
    void announcesTheTwoFormats();
    void oneFileDescriptor();
    void descriptorLists_data();
    void descriptorLists();
    void nestedFolderIsListedInPreOrder();
    void fileTimes_data();
    void fileTimes();
    void sizeAnswers_data();
    void sizeAnswers();
    void rangeAnswers_data();
    void rangeAnswers();
    void readsAboveFourGiB();
    void requestsThatGetNoAnswer();
    void emptyCopyAnswersNothing();
    void unreadableFileGetsFailureAndServiceGoesOn();
    void symlinkCycleTerminates();
    void servedTreeIsByteIdenticalWhilePasting();

private:
    std::optional<FileSDK::MacCliprdrFormatDataResponse> requestList();
    std::optional<Response> ask(const Request &request);
    QString item(const QString &relative) const { return src.filePath(relative); }
    std::unique_ptr<EngineSession> s;
    QTemporaryDir src;
};

void TestCopy::init()
{
    s = std::make_unique<EngineSession>();
    QVERIFY(s->start());
    QDir(src.path()).removeRecursively();
    QDir().mkpath(src.path());
}

void TestCopy::cleanup()
{
    s.reset();
}

std::optional<FileSDK::MacCliprdrFormatDataResponse> TestCopy::requestList()
{
    FileSDK::CliprdrFormatDataRequest request;
    request.set_requestedformatid(49346);
    s->agent.sendMessage(request, FrameType::formatDataRequest);
    return s->agent.next<FileSDK::MacCliprdrFormatDataResponse>(FrameType::formatDataResponse);
}

std::optional<Response> TestCopy::ask(const Request &request)
{
    s->agent.sendMessage(request, FrameType::fileContentsRequest);
    return s->agent.next<Response>(FrameType::fileContentsResponse);
}

void TestCopy::announcesTheTwoFormats()
{
    QVERIFY(writeFile(item("a.txt"), "0123456789"));
    LogCapture log;
    const QUrl url = QUrl::fromLocalFile(item("a.txt"));
    s->engine->copiedFiles({url});
    const auto frame = s->agent.nextFrame();
    QVERIFY(frame);
    QCOMPARE(frame->toHex(' '), hex("0a 08 08 01 10 01 18 01 20 01 10 02 1a 1a 08 c2 81 03 12 14 46 69 6c 65 47 72 6f 75 70 "
                                    "44 65 73 63 72 69 70 74 6f 72 57 1a 12 08 af 81 03 12 0c 46 69 6c 65 43 6f 6e 74 65 "
                                    "6e 74 73 01").toHex(' '));
    QVERIFY(log.contains(QStringLiteral("list:[") + url.toString() + ']'));
    QTRY_VERIFY(log.contains(QStringLiteral("send success")));
}

void TestCopy::oneFileDescriptor()
{
    QVERIFY(writeFile(item("a.txt"), "0123456789"));
    s->engine->copiedFiles({QUrl::fromLocalFile(item("a.txt"))});
    QVERIFY(s->agent.nextFrame());
    LogCapture log;
    const auto list = requestList();
    QVERIFY(list);
    QVERIFY(list->has_header());
    QCOMPARE(kx::serialize(list->header()).toHex(), QByteArray("08011801 2001").replace(' ', ""));
    QCOMPARE(list->filedes_size(), 1);
    const auto &d = list->filedes(0);
    QCOMPARE(d.dwflags(), 0x4024u);
    QCOMPARE(d.clsid(), std::string("{00000000-0000-0000-0000-000000000000}"));
    QCOMPARE(d.dwfileattributes(), 0x80u);
    QCOMPARE(d.nfilesizehigh(), 0u);
    QCOMPARE(d.nfilesizelow(), 10u);
    QCOMPARE(d.cfilename(), std::string("a.txt/"));
    QCOMPARE(d.citems(), 1u);
    QCOMPARE(d.ftlastaccesstimelow(), d.ftlastwritetimelow());
    QCOMPARE(d.ftlastaccesstimehigh(), d.ftlastwritetimehigh());
    QVERIFY(d.ftlastwritetimehigh() > 30000000u); // a date of this century
    QVERIFY(log.contains(QStringLiteral("所有文件个数:1")));
    QVERIFY(log.contains(QStringLiteral("finalName:a.txt/")));
    QTRY_VERIFY(log.contains(QStringLiteral("send DataResponse success")));
}

void TestCopy::descriptorLists_data()
{
    QTest::addColumn<QStringList>("files");   // relative path = size in bytes
    QTest::addColumn<QStringList>("folders");
    QTest::addColumn<QStringList>("copied");  // pasteboard order
    QTest::addColumn<QStringList>("expected");

    QTest::newRow("empty folder") << QStringList{} << QStringList{"docs"} << QStringList{"docs"}
                                  << QStringList{"docs/ 10 16 16"};
    QTest::newRow("file then folder, pasteboard order")
        << QStringList{"z.bin=3", "box/in.txt=16"} << QStringList{"box"} << QStringList{"z.bin", "box"}
        << QStringList{"z.bin/ 80 0 3", "box/ 10 16 16", "box//in.txt 80 0 16"};
    QTest::newRow("folder then file") << QStringList{"z.bin=3", "box/in.txt=16"} << QStringList{"box"}
                                      << QStringList{"box", "z.bin"}
                                      << QStringList{"box/ 10 16 16", "box//in.txt 80 0 16", "z.bin/ 80 0 3"};
    QTest::newRow("vanished item is skipped") << QStringList{"a=1"} << QStringList{} << QStringList{"gone", "a"}
                                              << QStringList{"a/ 80 0 1"};
}

void TestCopy::descriptorLists()
{
    QFETCH(QStringList, files);
    QFETCH(QStringList, folders);
    QFETCH(QStringList, copied);
    QFETCH(QStringList, expected);
    for (const QString &folder : folders)
        QVERIFY(QDir().mkpath(item(folder)));
    for (const QString &file : files)
        QVERIFY(writeFile(item(file.section('=', 0, 0)), QByteArray(file.section('=', 1).toInt(), 'x')));
    QList<QUrl> urls;
    for (const QString &name : copied)
        urls.append(QUrl::fromLocalFile(item(name)));
    s->engine->copiedFiles(urls);
    QVERIFY(s->agent.nextFrame());
    const auto list = requestList();
    QVERIFY(list);
    QCOMPARE(summary(*list), expected);
    for (const auto &d : list->filedes())
        QCOMPARE(d.citems(), std::uint32_t(expected.size()));
}

void TestCopy::nestedFolderIsListedInPreOrder()
{
    QVERIFY(QDir().mkpath(item("docs/sub")));
    QVERIFY(writeFile(item("docs/x.txt"), "x"));
    QVERIFY(writeFile(item("docs/sub/y.txt"), "yy"));
    s->engine->copiedFiles({QUrl::fromLocalFile(item("docs"))});
    QVERIFY(s->agent.nextFrame());
    const auto list = requestList();
    QVERIFY(list);
    const QStringList lines = summary(*list);
    // The listing order inside a folder is the file system's; the folder's own entry
    // comes first and a subfolder's contents follow it directly.
    const QStringList subFirst{"docs/ 10 16 16", "docs//sub 10 16 0", "docs//sub//y.txt 80 0 2", "docs//x.txt 80 0 1"};
    const QStringList fileFirst{"docs/ 10 16 16", "docs//x.txt 80 0 1", "docs//sub 10 16 0", "docs//sub//y.txt 80 0 2"};
    QVERIFY2(lines == subFirst || lines == fileFirst, qPrintable(lines.join(" | ")));
    for (const auto &d : list->filedes())
        QCOMPARE(d.citems(), 4u);

    // A second request rebuilds the same list.
    const auto again = requestList();
    QVERIFY(again);
    QCOMPARE(summary(*again), lines);
}

void TestCopy::fileTimes_data()
{
    QTest::addColumn<QDateTime>("modified");
    QTest::addColumn<quint64>("expected");
    QTest::newRow("2020, fraction dropped") << QDateTime(QDate(2020, 1, 1), QTime(0, 0, 0, 750), Qt::UTC)
                                            << Q_UINT64_C(132223104000000000);
    QTest::newRow("before 1970") << QDateTime(QDate(1969, 7, 20), QTime(20, 17, 40), Qt::UTC)
                                 << Q_UINT64_C(116302906600000000);
    QTest::newRow("just after the epoch") << QDateTime(QDate(1970, 1, 1), QTime(0, 0, 1), Qt::UTC)
                                          << Q_UINT64_C(116444736010000000);
}

void TestCopy::fileTimes()
{
    QFETCH(QDateTime, modified);
    QFETCH(quint64, expected);
    QCOMPARE(kx::fileTime(modified), expected);

    QVERIFY(writeFile(item("t.txt"), "t"));
    QFile file(item("t.txt"));
    QVERIFY(file.open(QIODevice::ReadWrite));
    if (!file.setFileTime(modified, QFileDevice::FileModificationTime))
        QSKIP("this file system cannot hold that date");
    file.close();
    s->engine->copiedFiles({QUrl::fromLocalFile(item("t.txt"))});
    QVERIFY(s->agent.nextFrame());
    const auto list = requestList();
    QVERIFY(list);
    const auto &d = list->filedes(0);
    QCOMPARE(d.ftlastwritetimelow(), std::uint32_t(expected & 0xffffffffu));
    QCOMPARE(d.ftlastwritetimehigh(), std::uint32_t(expected >> 32));
    QCOMPARE(d.ftlastaccesstimelow(), std::uint32_t(expected & 0xffffffffu));
    QCOMPARE(d.ftlastaccesstimehigh(), std::uint32_t(expected >> 32));
    QCOMPARE(kx::fileTime(QDateTime(QDate(1500, 1, 1), QTime(0, 0), Qt::UTC)), 0u);
    QCOMPARE(kx::fileTime(QDateTime()), 0u);
    QCOMPARE(kx::fileTime(QDateTime::fromMSecsSinceEpoch(0, Qt::UTC)), Q_UINT64_C(116444736000000000));
    QCOMPARE(kx::fileTime(QDateTime::fromMSecsSinceEpoch(-500, Qt::UTC)), Q_UINT64_C(116444735990000000));
}

void TestCopy::sizeAnswers_data()
{
    QTest::addColumn<QString>("copied");
    QTest::addColumn<std::uint32_t>("listIndex");
    QTest::addColumn<QByteArray>("data");

    QTest::newRow("5 GiB file: the low half") << "big" << 0u << hex("00 00 00 40");
    QTest::newRow("top-level folder") << "tree" << 0u << hex("10 00 00 00");
    QTest::newRow("nested folder") << "tree" << 1u << hex("00 00 00 00");
}

void TestCopy::sizeAnswers()
{
    QFETCH(QString, copied);
    QFETCH(std::uint32_t, listIndex);
    QFETCH(QByteArray, data);
    QFile big(item("big"));
    QVERIFY(big.open(QIODevice::WriteOnly));
    if (!big.resize(5LL * 1024 * 1024 * 1024))
        QSKIP("no sparse 5 GiB file here");
    big.close();
    QVERIFY(QDir().mkpath(item("tree/inner")));
    s->engine->copiedFiles({QUrl::fromLocalFile(item(copied))});
    QVERIFY(s->agent.nextFrame());
    QVERIFY(requestList());
    const auto answer = ask(query(listIndex, 1, 0, 8, 9));
    QVERIFY(answer);
    QCOMPARE(answer->streamid(), 9u);
    QCOMPARE(answer->cbrequested(), 8u);
    QCOMPARE(QByteArray::fromStdString(answer->requesteddata()).toHex(' '), data.toHex(' '));
    QCOMPARE(kx::serialize(answer->header()).toHex(), QByteArray("0801180120 01").replace(' ', ""));
}

void TestCopy::rangeAnswers_data()
{
    QTest::addColumn<quint64>("offset");
    QTest::addColumn<std::uint32_t>("length");
    QTest::addColumn<int>("expected");
    QTest::newRow("from 0, more than the file") << quint64(0) << 262144u << 100;
    QTest::newRow("inside") << quint64(40) << 10u << 10;
    QTest::newRow("at the end") << quint64(100) << 262144u << 0;
}

void TestCopy::rangeAnswers()
{
    QFETCH(quint64, offset);
    QFETCH(std::uint32_t, length);
    QFETCH(int, expected);
    const QByteArray content = pattern(100, 1);
    QVERIFY(writeFile(item("f"), content));
    s->engine->copiedFiles({QUrl::fromLocalFile(item("f"))});
    QVERIFY(s->agent.nextFrame());
    QVERIFY(requestList());
    const auto answer = ask(query(0, 2, offset, length));
    QVERIFY(answer);
    QCOMPARE(answer->cbrequested(), std::uint32_t(expected));
    QCOMPARE(QByteArray::fromStdString(answer->requesteddata()), content.mid(qsizetype(offset), expected));
    QCOMPARE(answer->header().msgflags(), 1u);
}

void TestCopy::readsAboveFourGiB()
{
    QFile big(item("big"));
    QVERIFY(big.open(QIODevice::WriteOnly));
    if (!big.resize(5LL * 1024 * 1024 * 1024))
        QSKIP("no sparse 5 GiB file here");
    const qint64 offset = (qint64(1) << 32) + 12345;
    QVERIFY(big.seek(offset));
    big.write("far away");
    big.close();
    s->engine->copiedFiles({QUrl::fromLocalFile(item("big"))});
    QVERIFY(s->agent.nextFrame());
    const auto list = requestList();
    QCOMPARE(list->filedes(0).nfilesizehigh(), 1u);
    QCOMPARE(list->filedes(0).nfilesizelow(), 1u << 30);
    const auto answer = ask(query(0, 2, quint64(offset), 8));
    QVERIFY(answer);
    QCOMPARE(QByteArray::fromStdString(answer->requesteddata()), QByteArray("far away"));
}

void TestCopy::requestsThatGetNoAnswer()
{
    QVERIFY(writeFile(item("f"), "abc"));
    s->engine->copiedFiles({QUrl::fromLocalFile(item("f"))});
    QVERIFY(s->agent.nextFrame());
    QVERIFY(requestList());
    LogCapture log;
    s->agent.sendMessage(query(1, 1, 0, 8), FrameType::fileContentsRequest);   // listIndex = length
    s->agent.sendMessage(query(0, 4, 0, 8), FrameType::fileContentsRequest);   // unknown flags
    s->agent.send(hex("10 05"));                                              // does not parse
    QTRY_VERIFY(log.contains(QStringLiteral("list超过了uploadCopyQueuecount")));
    QTRY_VERIFY(log.contains(QStringLiteral("a file contents request could not be decoded; no answer")));
    const auto answer = ask(query(0, 2, 0, 3)); // and the service goes on
    QVERIFY(answer);
    QCOMPARE(answer->requesteddata(), std::string("abc"));
    QVERIFY(s->agent.pending().isEmpty());
}

void TestCopy::emptyCopyAnswersNothing()
{
    QVERIFY(writeFile(item("f"), "abc"));
    s->engine->copiedFiles({QUrl::fromLocalFile(item("f"))});
    QVERIFY(s->agent.nextFrame());
    s->engine->copiedFiles({});
    QVERIFY(!s->agent.nextFrame(200)); // no format list for an empty copy
    FileSDK::CliprdrFormatDataRequest request;
    s->agent.sendMessage(request, FrameType::formatDataRequest);
    QVERIFY(!s->agent.nextFrame(500));
}

void TestCopy::unreadableFileGetsFailureAndServiceGoesOn()
{
    QVERIFY(writeFile(item("a"), "aaaa"));
    QVERIFY(writeFile(item("b"), "bbbb"));
    s->engine->copiedFiles({QUrl::fromLocalFile(item("a")), QUrl::fromLocalFile(item("b"))});
    QVERIFY(s->agent.nextFrame());
    QVERIFY(requestList());
    QVERIFY(QFile::remove(item("a")));
    const auto failed = ask(query(0, 2, 0, 4, 5));
    QVERIFY(failed);
    QCOMPARE(failed->streamid(), 5u);
    QCOMPARE(failed->cbrequested(), 0u);
    QVERIFY(failed->requesteddata().empty());
    QCOMPARE(kx::serialize(failed->header()).toHex(), QByteArray("0801180220 01").replace(' ', ""));
    const auto next = ask(query(1, 2, 0, 4));
    QVERIFY(next);
    QCOMPARE(next->requesteddata(), std::string("bbbb"));
}

void TestCopy::symlinkCycleTerminates()
{
    QVERIFY(QDir().mkpath(item("loop/inner")));
    QVERIFY(writeFile(item("loop/inner/f"), "f"));
    QVERIFY(QFile::link(item("loop"), item("loop/inner/back")));
    LogCapture log;
    s->engine->copiedFiles({QUrl::fromLocalFile(item("loop"))});
    QVERIFY(s->agent.nextFrame());
    const auto list = requestList();
    QVERIFY(list);
    QStringList names;
    for (const auto &d : list->filedes())
        names.append(QString::fromStdString(d.cfilename()));
    names.sort();
    QCOMPARE(names, (QStringList{"loop/", "loop//inner", "loop//inner//back", "loop//inner//f"}));
    QVERIFY(log.containsPrefix(QStringLiteral("Skipping a folder already on the walk path")));
}

void TestCopy::servedTreeIsByteIdenticalWhilePasting()
{
    // Local tree to copy.
    QHash<QString, QByteArray> local{{"tree/a.bin", pattern(600000, 1)},
                                     {"tree/empty.txt", {}},
                                     {"tree/sub/ü n i.txt", pattern(5000, 2)},
                                     {"tree/sub/deep/x", pattern(262144, 3)},
                                     {"solo.dat", pattern(77, 4)}};
    for (auto it = local.cbegin(); it != local.cend(); ++it) {
        QDir().mkpath(QFileInfo(item(it.key())).path());
        QVERIFY(writeFile(item(it.key()), it.value()));
    }
    QVERIFY(QDir().mkpath(item("tree/empty folder")));
    s->engine->copiedFiles({QUrl::fromLocalFile(item("tree")), QUrl::fromLocalFile(item("solo.dat"))});
    QVERIFY(s->agent.nextFrame());

    // Meanwhile a paste runs the other way, served by the agent.
    const QByteArray remote = pattern(1500000, 9);
    s->agent.serveContents({{0, remote}});
    QVERIFY(s->remoteCopy());
    s->paste();
    QVERIFY(s->offer({TestAgent::fileDescriptor("incoming.bin", std::uint64_t(remote.size()))}));

    const auto list = requestList();
    QVERIFY(list);
    QHash<QString, QByteArray> fetched;
    for (int index = 0; index < list->filedes_size(); ++index) {
        const auto &d = list->filedes(index);
        if (d.dwfileattributes() == 0x10)
            continue;
        QString name = QString::fromStdString(d.cfilename()).replace(QStringLiteral("//"), QStringLiteral("/"));
        if (name.endsWith('/'))
            name.chop(1);
        QVERIFY(ask(query(std::uint32_t(index), 1, 0, 8)));
        QByteArray bytes;
        const std::uint64_t size = kx::descriptorSize(d);
        while (std::uint64_t(bytes.size()) < size) {
            const auto part = ask(query(std::uint32_t(index), 2, std::uint64_t(bytes.size()), 262144));
            QVERIFY(part && part->cbrequested() > 0);
            bytes += QByteArray::fromStdString(part->requesteddata());
        }
        fetched.insert(name, bytes);
    }
    QCOMPARE(fetched, local);
    QTRY_COMPARE_WITH_TIMEOUT(s->completions.size(), 1, 20000);
    QCOMPARE(s->completions.first(), std::make_pair(true, PastedError::noError));
    QCOMPARE(readFile(s->dest + "/incoming.bin"), remote);
}

QTEST_GUILESS_MAIN(TestCopy)
#include "tst_copy.moc"
