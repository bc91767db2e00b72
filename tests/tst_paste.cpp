// The remote-to-local paste, the real engine over the loopback connection: the exact
// frames of the one-at-a-time exchange, the pipelined window, every way a paste ends,
// and what lands on disk.
#include "EngineHarness.h"
#include "LogCapture.h"

#include <QElapsedTimer>

#include <csignal>
#include <sys/resource.h>
#include <sys/stat.h>

using PasteStatus = ClipBoardManager::PasteStatus;
using Step = std::function<void(EngineHarness &, const Query &next)>;
Q_DECLARE_METATYPE(Step)

namespace {

constexpr std::uint32_t chunk = 262144;

// A query as this side must send it, with stream s; a stream of 0 is not written at all.
QByteArray queryHex(std::uint32_t s, const char *rest)
{
    return (s ? hex("10") + char(s) : QByteArray()) + hex(rest);
}

std::uint64_t fileTimeOf(const QString &path)
{
    struct stat st {};
    ::stat(QFile::encodeName(path).constData(), &st);
    return (std::uint64_t(st.st_mtim.tv_sec) + 11644473600ull) * 10000000ull;
}

// The file of the endings table, and a reply with its bytes for a query.
const QByteArray &fileData()
{
    static const QByteArray data = pattern(2 * chunk + 1000, 3);
    return data;
}
void replyRight(EngineHarness &h, const Query &q)
{
    h.reply(q.streamid(), fileData().mid(qsizetype(kx::queryOffset(q)), qsizetype(q.cbrequested())));
}

} // namespace

class TestPaste : public QObject
{
    Q_OBJECT
private slots:
    void oneAtATimeIsByteExact();
    void chunking_data();
    void chunking();
    void endings_data();
    void endings();
    void chooserGuards();
    void windowServesOutOfOrder_data();
    void windowServesOutOfOrder();
    void windowShortAndEmptyReplies();
    void modificationTimes_data();
    void modificationTimes();
};

// Two files and a folder, one query at a time: a short reply, an empty one repeated after
// the wait, an empty file; every frame as the remote side receives it, byte for byte.
void TestPaste::oneAtATimeIsByteExact()
{
    EngineHarness h;
    LogCapture log;
    QCOMPARE(h.nextFrame(), hex("00"));
    h.remoteCopy();
    QCOMPARE(h.pasteboard.clears, 1);
    h.paste();
    QCOMPARE(h.nextFrame(), hex("0a 06 08 03 10 02 20 07 10 c2 81 03 03"));
    const QByteArray a = pattern(300000, 1), b = pattern(70000, 2);
    h.offer({descriptor("d", 0, 0x10), descriptor("d\\a.bin", 300000), descriptor("d\\e.txt", 0),
             descriptor("b.bin", 70000)});

    const auto sizeA = h.query();
    QVERIFY(sizeA.streamid() <= 9);
    const std::uint32_t s = sizeA.streamid();
    const QList<std::pair<QByteArray, QByteArray>> exchange{
        {queryHex(s, "18 01 20 02 38 80 80 10 05"), a.first(chunk)},
        {queryHex(s, "18 01 20 02 28 80 80 10 38 80 80 10 05"), a.mid(chunk, 10000)},
        {queryHex(s, "18 01 20 02 28 90 ce 10 38 80 80 10 05"), QByteArray()},
        {queryHex(s, "18 01 20 02 28 90 ce 10 38 80 80 10 05"), a.mid(chunk + 10000)},
    };
    QCOMPARE(kx::encodeFrame(sizeA, FrameType::fileContentsRequest), queryHex(s, "18 01 20 01 38 08 05"));
    h.reply(s, QByteArray(8, '\0'));
    QElapsedTimer clock;
    for (const auto &[expected, answer] : exchange) {
        QCOMPARE(h.nextFrame(2000), expected);
        QVERIFY2(!answer.isEmpty() || clock.elapsed() < 100, "the repeat came before the wait"); // after an empty one
        h.reply(s, answer);
        clock.start();
    }
    const auto sizeB = h.query();
    const std::uint32_t t = sizeB.streamid();
    QCOMPARE(kx::encodeFrame(sizeB, FrameType::fileContentsRequest), queryHex(t, "18 03 20 01 38 08 05"));
    h.reply(t, QByteArray(8, '\0'));
    QCOMPARE(h.nextFrame(), queryHex(t, "18 03 20 02 38 80 80 10 05"));
    h.reply(t, b);

    QCOMPARE(h.ends, (QList<std::pair<bool, PastedError>>{{true, PastedError::noError}}));
    QVERIFY(!h.nextFrame(0));
    QCOMPARE(treeOf(h.dest), (QStringList{"b.bin 70000", "d/", "d/a.bin 300000", "d/e.txt 0"}));
    QCOMPARE(readFile(h.dest + "/d/a.bin"), a);
    QCOMPARE(readFile(h.dest + "/b.bin"), b);
    QCOMPARE(h.progress.last(), 1.0);
    QCOMPARE(h.progress.size(), 5); // after each saved range, then once more at the end
    QCOMPARE(log.count("send requestContentRequestType3 success"), 1);
    QCOMPARE(log.count("这个文件大小正确下载完成了"), 2);
    QVERIFY(log.contains("所有文件下载完成"));
    QCOMPARE(h.engine->pasteStatus(), PasteStatus::complete);
    QVERIFY(!h.engine->hasFormList());
}

void TestPaste::chunking_data()
{
    QTest::addColumn<QList<qint64>>("sizes");
    QTest::addColumn<QList<quint64>>("offsets"); // of the range queries, all files
    QTest::addColumn<int>("progressReports");

    QTest::newRow("exactly one chunk") << QList<qint64>{chunk} << QList<quint64>{0} << 2;
    QTest::newRow("one byte over") << QList<qint64>{chunk + 1} << QList<quint64>{0, chunk} << 3;
    QTest::newRow("only empty files") << QList<qint64>{0, 0, 0} << QList<quint64>{} << 1;
    QTest::newRow("empty between") << QList<qint64>{5, 0, 6} << QList<quint64>{0, 0} << 3;
    QTest::newRow("an empty file where a folder is") << QList<qint64>{3, -1} << QList<quint64>{0} << 1;
}

void TestPaste::chunking()
{
    QFETCH(QList<qint64>, sizes);
    QFETCH(QList<quint64>, offsets);
    QFETCH(int, progressReports);
    EngineHarness h;
    Descriptors list;
    Contents contents;
    for (int i = 0; i < sizes.size(); ++i) {
        list.append(descriptor(QStringLiteral("f%1").arg(i), std::uint64_t(std::max<qint64>(sizes[i], 0))));
        contents.insert(i, pattern(std::max<qint64>(sizes[i], 0), i));
        if (sizes[i] < 0) // a folder of the user's is in the way: the file cannot be made
            QVERIFY(QDir().mkpath(h.dest + QStringLiteral("/f%1/mine").arg(i)));
    }
    h.nextFrame();
    h.remoteCopy();
    h.paste();
    QVERIFY(h.nextFrame());
    h.offer(list);
    QList<quint64> seen;
    while (h.ends.isEmpty()) {
        const auto q = h.query();
        QCOMPARE(q.cbrequested(), q.dwflags() == 1 ? 8u : chunk);
        if (q.dwflags() == 2)
            seen.append(kx::queryOffset(q));
        h.reply(q.streamid(), q.dwflags() == 1 ? QByteArray(8, 0) : contents[int(q.listindex())].mid(qsizetype(kx::queryOffset(q)), chunk));
    }
    QCOMPARE(seen, offsets);
    QCOMPARE(h.progress.size(), progressReports);
    const bool blocked = sizes.contains(-1);
    QVERIFY(h.lastEnd(!blocked, blocked ? PastedError::saveError : PastedError::noError));
    for (int i = 0; i < sizes.size(); ++i)
        QCOMPARE(readFile(h.dest + QStringLiteral("/f%1").arg(i)), sizes[i] < 0 ? "<missing>" : contents[i]);
}

// Every way a paste ends but success, in both exchanges. Each row plays the remote side
// up to the fault; the check is the end reported, the file on disk, and that nothing
// more is asked for afterwards.
void TestPaste::endings_data()
{
    QTest::addColumn<Step>("fault");
    QTest::addColumn<int>("ranges");         // ranges answered before the fault
    QTest::addColumn<int>("expected");       // PastedError, or -1: no end reported
    QTest::addColumn<qint64>("fileBytes");   // what the file holds afterwards; -1: no file
    auto rows = [](const char *name, int ranges, int expected, qint64 bytes, Step fault) {
        for (int window : {1, 4})
            QTest::addRow("%s, window %d", name, window) << fault << ranges << expected << bytes;
    };
    const int unknown = int(PastedError::unKonwnError);
    rows("undecodable reply", 1, unknown, chunk, [](EngineHarness &h, const Query &) { h.send(hex("0a 05 06")); });
    rows("reply beyond the query", 1, unknown, chunk, [](EngineHarness &h, const Query &next) {
        h.reply(next.streamid(), QByteArray(int(next.cbrequested()) + 1, 'x'));
    });
    rows("reply past the announced size", 2, unknown, 2 * chunk, [](EngineHarness &h, const Query &next) {
        h.reply(next.streamid(), QByteArray(1001, 'x')); // 1000 bytes are left of the file
    });
    rows("stop", 1, int(PastedError::cancelDownload), chunk, [](EngineHarness &h, const Query &next) {
        h.engine->setPasteStatus(PasteStatus::cancel);
        replyRight(h, next); // the reply that ends it writes nothing
    });
    rows("stop during the wait after an empty reply", 0, int(PastedError::cancelDownload), 0,
         [](EngineHarness &h, const Query &next) {
        h.reply(next.streamid(), {});
        h.engine->setPasteStatus(PasteStatus::cancel);
        (void)QTest::qWaitFor([&] { return !h.ends.isEmpty(); }, 2000);
    });
    rows("connection lost", 1, int(PastedError::websoketDisconnect), chunk,
         [](EngineHarness &h, const Query &) { h.sink.lose(); });
    rows("disk full", 1, int(PastedError::saveError), chunk + 1000, [](EngineHarness &h, const Query &next) {
        std::signal(SIGXFSZ, SIG_IGN);
        rlimit saved{}, limit{};
        getrlimit(RLIMIT_FSIZE, &saved);
        limit = saved;
        limit.rlim_cur = chunk + 1000;
        setrlimit(RLIMIT_FSIZE, &limit);
        replyRight(h, next);
        setrlimit(RLIMIT_FSIZE, &saved);
    });
    rows("file removed", 1, int(PastedError::saveError), -1, [](EngineHarness &h, const Query &next) {
        QFile::remove(h.dest + "/f.bin");
        replyRight(h, next);
    });
}

void TestPaste::endings()
{
    QFETCH(Step, fault);
    QFETCH(int, ranges);
    QFETCH(int, expected);
    QFETCH(qint64, fileBytes);
    const int window = QString(QTest::currentDataTag()).endsWith("4") ? 4 : 1;
    EngineHarness h(window);
    const QByteArray &data = fileData();
    h.nextFrame();
    h.remoteCopy();
    h.paste();
    h.nextFrame();
    h.offer({descriptor("f.bin", quint64(data.size()))});
    // The size query, then the ranges in order; the window keeps the later ones waiting.
    QList<Query> waiting{h.query()};
    h.reply(waiting.takeFirst().streamid(), QByteArray(8, 0));
    for (int i = 0; i <= ranges; ++i) {
        while (auto more = h.nextQuery(0))
            waiting.append(*more);
        if (i < ranges)
            replyRight(h, waiting.takeFirst());
    }
    fault(h, waiting.first());
    QCOMPARE(h.ends, (QList<std::pair<bool, PastedError>>{{false, PastedError(expected)}}));
    for (const Query &w : waiting) // replies that come after the end write nothing
        h.reply(w.streamid(), QByteArray(int(w.cbrequested()), 'z'));
    while (auto frame = h.nextFrame(0))
        QVERIFY2(std::uint8_t(frame->back()) != 5, "a query after the end");
    if (fileBytes < 0)
        QVERIFY(!QFile::exists(h.dest + "/f.bin"));
    else
        QCOMPARE(readFile(h.dest + "/f.bin"), data.first(fileBytes));
    QCOMPARE(h.ends.size(), 1);

    // A status left as the end made it: after a failed save Ctrl+V waits for a new copy;
    // after the others the same copy is gone, and a new one pastes from the first byte.
    h.paste();
    QVERIFY(!h.nextFrame(0));
    if (expected == int(PastedError::websoketDisconnect))
        h.sink.open();
    h.nextFrame(0);
    QVERIFY(h.pasteAll({descriptor("f.bin", quint64(data.size()))}, {{0, data}}));
    QVERIFY(h.lastEnd(true, PastedError::noError));
    QCOMPARE(readFile(h.dest + "/f.bin"), data);
}

// The steps that run inside the folder chooser's nested event loop, and the ends that
// need no reply at all.
void TestPaste::chooserGuards()
{
    EngineHarness h;
    h.nextFrame();
    // A second list while the chooser is open neither opens a second chooser nor
    // replaces the list being chosen for.
    h.chooser->whileOpen = [&] { h.offer({descriptor("other", 5)}); };
    QVERIFY(h.pasteAll({descriptor("mine", 3)}, {{0, "abc"}}));
    QCOMPARE(h.chooser->runs, 1);
    QCOMPARE(h.chooser->maxDepth, 1);
    QCOMPARE(treeOf(h.dest), QStringList{"mine 3"});

    // The connection lost while the chooser is open: the folder chosen after it starts nothing.
    h.chooser->whileOpen = [&] { h.sink.lose(); };
    h.remoteCopy();
    h.paste();
    h.nextFrame();
    h.offer({descriptor("late", 5)});
    QVERIFY(h.lastEnd(false, PastedError::websoketDisconnect));
    QVERIFY(!h.nextFrame(0));
    QCOMPARE(treeOf(h.dest), QStringList{"mine 3"});

    // A loss while no paste runs (status start, the callbacks stored) reports nothing;
    // nor does a chooser cancelled, and a paste without a remote copy sends nothing.
    h.sink.open();
    h.nextFrame();
    h.paste();
    QVERIFY(!h.nextFrame(0));
    h.remoteCopy();
    h.sink.lose();
    h.sink.open();
    h.nextFrame();
    h.chooser->answer = FolderChoice{};
    h.remoteCopy();
    h.paste();
    h.nextFrame();
    h.offer({descriptor("x", 5)});
    QCOMPARE(h.chooser->runs, 3);
    QCOMPARE(h.engine->pasteStatus(), PasteStatus::complete);
    QVERIFY(!h.engine->hasFormList() && !h.nextFrame(0));
    QCOMPARE(h.ends.size(), 2);

    // A stray reply after a loss cannot end the next paste, nor lose its copy.
    h.chooser->answer = FolderChoice{true, QUrl::fromLocalFile(h.dest)};
    h.remoteCopy();
    h.paste();
    h.nextFrame();
    h.offer({descriptor("big", 3 * chunk)});
    h.query();
    h.sink.lose();
    h.sink.open();
    h.nextFrame();
    h.remoteCopy();
    h.send(hex("0a 05 06"));
    QCOMPARE(h.ends.size(), 3);
    QVERIFY(h.engine->hasFormList());
    // An empty reply's repeat is sent whatever the status: a new remote copy during the
    // wait does not stall the download. A late reply during the wait cancels the repeat.
    h.paste();
    h.nextFrame();
    h.offer({descriptor("big", 3 * chunk)});
    auto q = h.query();
    h.reply(q.streamid(), QByteArray(8, 0));
    q = h.query();
    h.reply(q.streamid(), {});
    h.remoteCopy();
    QCOMPARE(h.query(2000).npositionlow(), 0u);
    h.reply(q.streamid(), {});
    h.reply(q.streamid(), pattern(chunk, 1));
    QCOMPARE(h.query().npositionlow(), chunk);
    QVERIFY(!h.nextFrame(800)); // the cancelled repeat never comes
}

void TestPaste::windowServesOutOfOrder_data()
{
    QTest::addColumn<int>("window");
    QTest::addColumn<bool>("reverse");
    QTest::addColumn<int>("firstSizeQueries"); // empty files need none, but take a place
    QTest::newRow("window 1") << 1 << false << 1;
    QTest::newRow("window 8, in order") << 8 << false << 6;
    QTest::newRow("window 8, last first") << 8 << true << 6;
    QTest::newRow("window 64, last first") << 64 << true << 20;
}

void TestPaste::windowServesOutOfOrder()
{
    QFETCH(int, window);
    QFETCH(bool, reverse);
    QFETCH(int, firstSizeQueries);
    EngineHarness h(window);
    Descriptors list{descriptor("top", 0, 0x10)};
    Contents contents;
    for (int i = 1; i <= 30; ++i) {
        const qint64 size = (i % 3) ? i * 40000 : 0;
        list.append(descriptor(QStringLiteral("top\\f%1").arg(i, 2, 10, QLatin1Char('0')), quint64(size)));
        contents.insert(i, pattern(size, i));
    }
    h.nextFrame();
    h.remoteCopy();
    h.paste();
    h.nextFrame();
    h.offer(list);
    // The next files' sizes are asked for while the first is still to come.
    int sizeQueries = 0;
    for (const QByteArray &frame : std::as_const(h.sink.sent))
        sizeQueries += kx::parseMessage<Query>(frame.chopped(1))->dwflags() == 1;
    QCOMPARE(sizeQueries, firstSizeQueries);
    QVERIFY(h.serve(contents, reverse));
    QVERIFY(h.lastEnd(true, PastedError::noError));
    for (int i = 1; i <= 30; ++i)
        QCOMPARE(readFile(h.dest + QStringLiteral("/top/f%1").arg(i, 2, 10, QLatin1Char('0'))), contents[i]);
    // Files are finished, and shown, in list order, whatever order their bytes came in.
    QVERIFY(std::is_sorted(h.shownNames.begin(), h.shownNames.end() - 1));
    QCOMPARE(h.shownNames.first(), QStringLiteral("top\\f01"));
    QCOMPARE(h.shownNames.last(), QString()); // the last report comes after the last file
    QCOMPARE(h.progress.last(), 1.0);
    QVERIFY(std::is_sorted(h.progress.begin(), h.progress.end()));
}

// Inside the window a short reply is followed by a query for exactly what it left out,
// an empty one by the same query after the wait, while the other queries go on.
void TestPaste::windowShortAndEmptyReplies()
{
    EngineHarness h(4);
    const QByteArray data = pattern(3 * chunk + 5, 4);
    h.nextFrame();
    h.remoteCopy();
    h.paste();
    h.nextFrame();
    h.offer({descriptor("f", quint64(data.size()))});
    auto q = h.query();
    QCOMPARE(q.dwflags(), 1u);
    h.reply(q.streamid(), QByteArray(8, 0));
    QList<Query> ranges;
    while (auto r = h.nextQuery(0))
        ranges.append(*r);
    QCOMPARE(ranges.size(), 4);
    QSet<std::uint32_t> streams;
    for (const Query &r : ranges)
        streams.insert(r.streamid());
    QCOMPARE(streams.size(), 4); // a stream id of its own for each
    QCOMPARE(ranges.last().cbrequested(), 5u); // the last asks for exactly what is left
    h.reply(ranges[2].streamid(), data.mid(2 * chunk, 1000)); // short
    const auto followUp = h.query();
    QCOMPARE(kx::queryOffset(followUp), quint64(2 * chunk + 1000));
    QCOMPARE(followUp.cbrequested(), chunk - 1000);
    h.reply(ranges[0].streamid(), {}); // empty: asked again after the wait
    h.reply(ranges[1].streamid(), data.mid(chunk, chunk));
    h.reply(followUp.streamid(), data.mid(2 * chunk + 1000, chunk - 1000));
    h.reply(ranges[3].streamid(), data.mid(3 * chunk));
    QVERIFY(!h.nextFrame(300));
    const auto again = h.query(2000);
    QCOMPARE(kx::queryOffset(again), 0u);
    QCOMPARE(again.cbrequested(), chunk);
    h.reply(again.streamid(), data.first(chunk));
    QVERIFY(h.lastEnd(true, PastedError::noError));
    QCOMPARE(readFile(h.dest + "/f"), data);
}

// A file complete gets the descriptor's last-write time, to the second; a folder gets its
// own after its last file; without the write-time flag the file keeps the time of the paste.
void TestPaste::modificationTimes_data()
{
    QTest::addColumn<int>("window");
    QTest::newRow("window 1") << 1;
    QTest::newRow("window 8") << 8;
}

void TestPaste::modificationTimes()
{
    QFETCH(int, window);
    EngineHarness h(window);
    const std::uint64_t y2020 = 132223104000000000ull, y2021 = y2020 + 366ull * 86400 * 10000000;
    const std::uint64_t y2022 = y2021 + 365ull * 86400 * 10000000;
    h.nextFrame();
    QVERIFY(h.pasteAll({descriptor("d", 0, 0x10, y2020), descriptor("d\\sub", 0, 0x2010, y2021),
                        descriptor("d\\sub\\a", 3, 0x80, y2022), descriptor("d\\e", 0, 0x80, y2021),
                        descriptor("now", 2)},
                       {{2, "abc"}, {4, "xy"}}));
    QCOMPARE(fileTimeOf(h.dest + "/d"), y2020);
    QCOMPARE(fileTimeOf(h.dest + "/d/sub"), y2021);
    QCOMPARE(fileTimeOf(h.dest + "/d/sub/a"), y2022);
    QCOMPARE(fileTimeOf(h.dest + "/d/e"), y2021);
    QVERIFY(fileTimeOf(h.dest + "/now") > y2022);
}

QTEST_GUILESS_MAIN(TestPaste)
#include "tst_paste.moc"
