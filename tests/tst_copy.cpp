// The local-to-remote copy, the real engine over the loopback connection: the
// announcement, the descriptor list, every answer to a size or range query, and a
// remote side that stops reading its answers.
#include "EngineHarness.h"
#include "KXFileStreamOperation.h"
#include "LogCapture.h"

#include <QTimeZone>

#include <sys/stat.h>
#include <unistd.h>

namespace {

using Answer = FileSDK::CliprdrFileContentsResponse;

// "name attributes high low" for each descriptor: what the remote side sees of a list.
QStringList summary(const FileSDK::MacCliprdrFormatDataResponse &response)
{
    QStringList lines;
    for (const auto &d : response.filedes())
        lines.append(QStringLiteral("%1 %2 %3 %4").arg(QString::fromStdString(d.cfilename())).arg(d.dwfileattributes(), 0, 16)
                         .arg(d.nfilesizehigh()).arg(d.nfilesizelow()));
    return lines;
}

Query query(std::uint32_t listIndex, std::uint32_t flags, quint64 offset = 0, std::uint32_t length = 0)
{
    return kx::makeContentsQuery(9, listIndex, flags, offset, length);
}

} // namespace

Q_DECLARE_METATYPE(Query)

class TestCopy : public QObject
{
    Q_OBJECT
private slots:
    void init();
    void announceAndDescribe();
    void descriptorLists_data();
    void descriptorLists();
    void answers_data();
    void answers();
    void aPeerThatStopsReading();

private:
    QString item(const QString &relative) const { return h->root.filePath("src/" + relative); }
    void copy(const QStringList &items);
    std::optional<FileSDK::MacCliprdrFormatDataResponse> requestList();
    std::optional<Answer> ask(const Query &q);
    std::unique_ptr<EngineHarness> h;
};

void TestCopy::init()
{
    h = std::make_unique<EngineHarness>();
    QDir().mkpath(item(""));
}

void TestCopy::copy(const QStringList &items)
{
    QList<QUrl> urls;
    for (const QString &name : items)
        urls.append(QUrl::fromLocalFile(item(name)));
    h->engine->copiedFiles(urls);
    if (!items.isEmpty())
        QVERIFY(h->next<FileSDK::CliprdrFormatList>(FrameType::formatList));
}

std::optional<FileSDK::MacCliprdrFormatDataResponse> TestCopy::requestList()
{
    h->send(hex("0a 00 10 c2 81 03 03"));
    return h->next<FileSDK::MacCliprdrFormatDataResponse>(FrameType::formatDataResponse, 0);
}

std::optional<Answer> TestCopy::ask(const Query &q)
{
    h->send(q, FrameType::fileContentsRequest);
    return h->next<Answer>(FrameType::fileContentsResponse, 0);
}

void TestCopy::announceAndDescribe()
{
    QVERIFY(writeFile(item("a.txt"), "0123456789"));
    QFile file(item("a.txt")); // the fraction of a second is dropped
    QVERIFY(file.open(QIODevice::ReadWrite) && file.setFileTime(QDateTime(QDate(2020, 1, 1), QTime(0, 0, 0, 750), QTimeZone::utc()),
                                                                 QFileDevice::FileModificationTime));
    file.close();
    LogCapture log;
    h->engine->copiedFiles({QUrl::fromLocalFile(item("a.txt"))});
    QCOMPARE(h->nextFrame(0), hex("0a 08 08 01 10 01 18 01 20 01 10 02 1a 1a 08 c2 81 03 12 14 46 69 6c 65 47 72 6f 75 70 "
                                  "44 65 73 63 72 69 70 74 6f 72 57 1a 12 08 af 81 03 12 0c 46 69 6c 65 43 6f 6e 74 65 "
                                  "6e 74 73 01"));
    h->send(QByteArray(1, 3)); // a data request is not read: any payload gets the list
    const auto frame = h->nextFrame(0);
    QVERIFY(frame && frame->startsWith(hex("0a 06 08 01 18 01 20 01 12")) && frame->endsWith(hex("07")));
    const auto list = kx::parseMessage<FileSDK::MacCliprdrFormatDataResponse>(frame->chopped(1));
    QCOMPARE(summary(*list), QStringList{"a.txt/ 80 0 10"});
    const auto &d = list->filedes(0);
    QVERIFY(d.dwflags() == 0x4024 && d.citems() == 1 && d.clsid() == "{00000000-0000-0000-0000-000000000000}");
    QVERIFY(d.ftlastwritetimelow() == 1761935360 && d.ftlastwritetimehigh() == 30785590);
    QVERIFY(d.ftlastaccesstimelow() == 1761935360 && d.ftlastaccesstimehigh() == 30785590);
    QVERIFY(d.ftcreationtimehigh() >= 30785590u); // no earlier than the modification
    QVERIFY(log.contains("所有文件个数:1") && log.contains("send DataResponse success"));
    QCOMPARE(log.lines().filter(QRegularExpression("^fileCreateTime:")), // the creation date, then the modification date
             QStringList({"fileCreateTime:" + KXFileManager::dateText(h->files.creationDateAtPath(item("a.txt"))),
                          "fileCreateTime:2020-01-01 00:00:00 +0000"}));
    // Fetched in two ranges: told once when the first bytes go, once when the last has gone.
    QList<std::pair<bool, std::uint64_t>> told;
    QObject::connect(h->engine.get(), &ClipBoardManager::copySending, h->engine.get(),
                     [&](const CopySending &s) { told.append({s.done, s.files * 1000 + s.bytes}); });
    for (const auto &[offset, length] : QList<std::pair<std::uint32_t, std::uint32_t>>{{0, 4}, {0, 4}, {4, 6}}) {
        QVERIFY(ask(query(0, 2, offset, length)));
        QCOMPARE(told.size(), offset ? 2 : 1); // a repeated range counts again, never past the size
    }
    QVERIFY(told == (QList<std::pair<bool, std::uint64_t>>{{false, 1010}, {true, 1010}}));

    // An empty copy announces nothing, and a list asked for then gets no answer.
    h->engine->copiedFiles({});
    QVERIFY(!h->nextFrame(0));
    QVERIFY(!requestList());
}

void TestCopy::descriptorLists_data()
{
    QTest::addColumn<QStringList>("setup");  // "dir/" a folder, "name=N" a file of N bytes,
    QTest::addColumn<QStringList>("copied"); // "name|" a FIFO, "name>target" a link
    QTest::addColumn<QStringList>("expected");

    QTest::newRow("empty folder") << QStringList{"docs/"} << QStringList{"docs"} << QStringList{"docs/ 10 16 16"};
    QTest::newRow("file then folder, pasteboard order")
        << QStringList{"z.bin=3", "box/in.txt=16"} << QStringList{"z.bin", "box"}
        << QStringList{"z.bin/ 80 0 3", "box/ 10 16 16", "box//in.txt 80 0 16"};
    QTest::newRow("nested, pre-order") << QStringList{"docs/sub/y.txt=2"} << QStringList{"docs"}
                                      << QStringList{"docs/ 10 16 16", "docs//sub 10 16 0", "docs//sub//y.txt 80 0 2"};
    QTest::newRow("vanished item") << QStringList{"a=1"} << QStringList{"gone", "a"} << QStringList{"a/ 80 0 1"};
    QTest::newRow("FIFO left out") << QStringList{"d/p|", "q|"} << QStringList{"q", "d"} << QStringList{"d/ 10 16 16"};
    QTest::newRow("link back to its folder left out") << QStringList{"loop/back>loop"} << QStringList{"loop"}
                                                      << QStringList{"loop/ 10 16 16"};
    QTest::newRow("link to a folder outside left out")
        << QStringList{"proj/a=1", "secret/id_rsa=5", "proj/docs>secret", "proj/key>secret/id_rsa"} << QStringList{"proj"}
        << QStringList{"proj/ 10 16 16", "proj//a 80 0 1"};
    QTest::newRow("copied links followed once") << QStringList{"real/in=2", "alias>real", "flink>real/in"}
                                                << QStringList{"alias", "flink"}
                                                << QStringList{"alias/ 10 16 16", "alias//in 80 0 2", "flink/ 80 0 2"};
    QStringList lattice{"l16/end=1"}; // each folder links twice to the next: 196,607 entries if followed
    for (int i = 0; i < 16; ++i)
        lattice << QString("l%1/a>l%2").arg(i).arg(i + 1) << QString("l%1/b>l%2").arg(i).arg(i + 1);
    QTest::newRow("lattice of linked folders") << lattice << QStringList{"l0"} << QStringList{"l0/ 10 16 16"};
}

void TestCopy::descriptorLists()
{
    QFETCH(QStringList, setup);
    QFETCH(QStringList, copied);
    QFETCH(QStringList, expected);
    for (const QString &entry : setup) {
        if (entry.endsWith('/'))
            QVERIFY(QDir().mkpath(item(entry)));
        else if (entry.endsWith('|'))
            QVERIFY(QDir().mkpath(QFileInfo(item(entry)).path()) && ::mkfifo(QFile::encodeName(item(entry.chopped(1))), 0600) == 0);
        else if (entry.contains('>'))
            QVERIFY(QDir().mkpath(QFileInfo(item(entry.section('>', 0, 0))).path())
                    && QFile::link(item(entry.section('>', 1)), item(entry.section('>', 0, 0))));
        else
            QVERIFY(writeFile(item(entry.section('=', 0, 0)), QByteArray(entry.section('=', 1).toInt(), 'x')));
    }
    LogCapture log;
    copy(copied);
    const auto list = requestList();
    QVERIFY(list);
    QCOMPARE(summary(*list), expected);
    const QString entries = log.lines().filter("上传des数组:[").value(0); // one entry apart from the next
    QVERIFY(entries.count(", ") == expected.size() - 1 && !entries.contains(" ,") && !entries.contains(" ]"));
    QVERIFY(!log.containsPrefix("Path is not a directory")); // a file is never walked as a folder
    for (const auto &d : list->filedes())
        QCOMPARE(d.citems(), std::uint32_t(expected.size()));
    for (const QString &entry : setup.filter(">")) { // a link in a copied folder: one line; one copied: followed
        const QString link = entry.section('>', 0, 0);
        QCOMPARE(log.count("Skipping " + item(link) + ": a symbolic link, not followed"),
                 int(copied.contains(link.section('/', 0, -2))));
    }
    int folders = 0; // one file more in each copied folder: the same copy keeps the list it was given
    for (const QString &name : copied)
        folders += QFileInfo(item(name)).isDir() && writeFile(item(name + "/late"), "late");
    const auto again = requestList();
    QCOMPARE(again ? summary(*again) : QStringList(), expected);
    QCOMPARE(log.lines().filter("上传des数组:").size(), 1);
    QCOMPARE(log.lines().filter("所有文件路径:").size(), 1);
    copy(copied); // copied again, it is walked again
    const auto renewed = requestList();
    QCOMPARE(renewed ? renewed->filedes_size() : -1, expected.size() + folders);
}

void TestCopy::answers_data()
{
    QTest::addColumn<Query>("query");
    QTest::addColumn<int>("msgFlags");   // of the answer; 0: no answer at all
    QTest::addColumn<QByteArray>("data");
    QTest::addColumn<int>("cbRequested");
    QTest::addColumn<QString>("logged"); // a line the answer leaves in the log
    // The offer: 0 big (5 GiB, "far away" past 4 GiB), 1 tree/, 2 tree//inner, 3 f (100
    // bytes), 4 gone (deleted before it is asked for), 5 huge (100 MiB). A FIFO since the offer
    // is the hostile-agent table's.
    const quint64 far = (quint64(1) << 32) + 12345;
    QTest::newRow("size of 5 GiB: the low half") << query(0, 1, 0, 8) << 1 << hex("00 00 00 40") << 8 << QString();
    QTest::newRow("size of a top folder") << query(1, 1, 0, 8) << 1 << hex("10 00 00 00") << 8 << QString();
    QTest::newRow("size of a nested folder") << query(2, 1, 0, 8) << 1 << hex("00 00 00 00") << 8 << QString();
    QTest::newRow("range beyond the end") << query(3, 2, 0, 262144) << 1 << pattern(100, 1) << 100 << QString();
    QTest::newRow("range inside") << query(3, 2, 40, 10) << 1 << pattern(100, 1).mid(40, 10) << 10 << QString();
    QTest::newRow("range at the end") << query(3, 2, 100, 262144) << 1 << QByteArray() << 0 << QString();
    QTest::newRow("range past the end") << query(3, 2, 5000, 100) << 1 << QByteArray() << 0 << QString();
    QTest::newRow("range past 4 GiB") << query(0, 2, far, 8) << 1 << QByteArray("far away") << 8 << QString();
    QTest::newRow("2 GiB asked, 64 MiB given") << query(5, 2, 0, 0x80000000u) << 1 << QByteArray(64 << 20, 0) << (64 << 20)
                                               << QString();
    QTest::newRow("range of a file deleted since the offer") << query(4, 2, 0, 4) << 2 << QByteArray() << 0
                                                             << QString("gone");
    QTest::newRow("size of a file deleted since the offer: the offered size") << query(4, 1, 0, 8) << 1
                                                                              << hex("04 00 00 00") << 8 << QString("gone");
    QTest::newRow("index past the list") << query(6, 2, 0, 4) << 0 << QByteArray() << 0 << QString();
    QTest::newRow("unknown flags") << query(3, 4, 0, 4) << 0 << QByteArray() << 0 << QString();
}

void TestCopy::answers()
{
    QFETCH(Query, query);
    QFETCH(int, msgFlags);
    QFETCH(QByteArray, data);
    QFETCH(int, cbRequested);
    QFETCH(QString, logged);
    const auto big = KXFileStreamOperation::initFileOperationAtPath("big", true, item("")); // sparse, written past 4 GiB
    QVERIFY(big && big->writeDateOffSet((1ULL << 32) + 12345, "far away") && big->writeDateOffSet((5ULL << 30) - 1, ".")
            && big->commit(false));
    QVERIFY(QDir().mkpath(item("tree/inner")) && writeFile(item("f"), pattern(100, 1)) && writeFile(item("gone"), "gone")
            && writeFile(item("huge"), {}) && QFile(item("huge")).resize(100 << 20));
    copy({"big", "tree", "f", "gone", "huge"});
    QCOMPARE(requestList().value_or(FileSDK::MacCliprdrFormatDataResponse()).filedes_size(), 6);
    QVERIFY(QFile::remove(item("gone")));
    LogCapture log;
    const auto answer = ask(query);
    QCOMPARE(log.count("文件不存在：" + item(logged)), int(!logged.isEmpty()));
    QCOMPARE(answer.has_value(), msgFlags != 0);
    if (!answer)
        return;
    QVERIFY(answer->streamid() == 9 && answer->cbrequested() == std::uint32_t(cbRequested));
    QCOMPARE(kx::serialize(answer->header()), hex("08 01 18") + char(msgFlags) + hex("20 01"));
    QCOMPARE(QByteArray::fromStdString(answer->requesteddata()), data);
    h->sink.drain(h->sink.queuedBytes); // the remote side reads what was sent
    QVERIFY(ask(::query(3, 2, 0, 3)));  // and the next query is answered as ever
}

// While answers already queued exceed a few MiB, requests wait in order and are answered
// as the connection drains; a peer that piles up more than 10,000 of them is dropped.
void TestCopy::aPeerThatStopsReading()
{
    QVERIFY(writeFile(item("f"), pattern(1000, 2)));
    copy({"f"});
    QVERIFY(requestList());
    h->sink.queuedBytes = 4 << 20; // up to 4 MiB queued, a request is answered at once
    QVERIFY(ask(query(0, 2, 0, 1)));
    h->sink.queuedBytes = (8 << 20) + 1;
    for (std::uint32_t i = 0; i < 3; ++i)
        h->send(kx::makeContentsQuery(i, 0, 2, i * 100, 100), FrameType::fileContentsRequest);
    h->send(QByteArray(1, 3)); // a list request waits behind them
    QVERIFY(!h->nextFrame(0));
    h->sink.drain(4 << 20);
    QVERIFY(!h->nextFrame(0)); // still more than 4 MiB
    h->sink.drain(1); // back to 4 MiB: one is answered, which fills the queue again
    for (std::uint32_t i = 0; i < 3; ++i) {
        const auto answer = h->next<Answer>(FrameType::fileContentsResponse, 0);
        QVERIFY(answer);
        QCOMPARE(answer->streamid(), i);
        QCOMPARE(QByteArray::fromStdString(answer->requesteddata()), pattern(1000, 2).mid(i * 100, 100));
        h->sink.drain(1 << 20);
    }
    QVERIFY(h->next<FileSDK::MacCliprdrFormatDataResponse>(FrameType::formatDataResponse, 0));

    h->sink.queuedBytes = 5 << 20; // a request waiting when the connection is lost goes with it
    h->send(query(0, 2, 0, 100), FrameType::fileContentsRequest);
    h->sink.lose();
    h->reopen();
    h->sink.drain(0);
    QVERIFY(!h->nextFrame(0));
    h->sink.queuedBytes = 5 << 20;
    for (int i = 0; i < 10000; ++i)
        h->send(query(0, 2, 0, 100), FrameType::fileContentsRequest);
    QCOMPARE(h->sink.drops, 0);
    h->send(query(0, 2, 0, 100), FrameType::fileContentsRequest);
    QCOMPARE(h->sink.drops, 1);
    QVERIFY(!h->sink.connected);
    h->reopen();
    h->sink.drain(0); // nothing of the old requests is left to answer
    QVERIFY(!h->nextFrame(0));
}

QTEST_GUILESS_MAIN(TestCopy)
#include "tst_copy.moc"
