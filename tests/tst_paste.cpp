// The remote-to-local paste, the real engine over the loopback connection: the exact
// frames of the one-at-a-time exchange, the pipelined window, every way a paste ends,
// and what lands on disk.
#include "EngineHarness.h"
#include "FileTime.h"
#include "LogCapture.h"
#include "PartialJournal.h"
#include "ProcessMemory.h"

#include <QElapsedTimer>
#include <QScopeGuard>
#include <QSignalSpy>

#include <csignal>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/statvfs.h>

using PasteStatus = ClipBoardManager::PasteStatus;
using Step = std::function<void(EngineHarness &, const Query &next)>;
Q_DECLARE_METATYPE(Step)

namespace {

constexpr std::uint32_t chunk = 262144;

// A query as the remote side must receive it, with stream s; a stream 0 is not written.
QByteArray queryHex(std::uint32_t s, const char *rest)
{
    return (s ? hex("10") + char(s) : QByteArray()) + hex(rest);
}

std::uint64_t fileTimeOf(const QString &path)
{
    return kx::fileTime(QFileInfo(path).lastModified());
}

// The file of the endings table, and the reply with its bytes to a query.
const QByteArray &fileData()
{
    static const QByteArray data = pattern(2 * chunk + 1000, 3);
    return data;
}
void replyRight(EngineHarness &h, const Query &q)
{
    h.reply(q.streamid(), answerFor(q, fileData()));
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
    void conflicts_data();
    void conflicts();
    void longNames_data();
    void longNames();
    void formatAskedFor();
    void chooserGuardsAndStrayReplies();
    void onePasteAtATime();
    void newerCopyWhileChoosing();
    void readOnlyFolder();
    void window_data();
    void window();
    void windowShortAndEmptyReplies();
};

// Two files and a folder, one query at a time: a short reply, an empty one repeated after
// the wait, an empty file; every frame as the remote side receives it, byte for byte.
void TestPaste::oneAtATimeIsByteExact()
{
    EngineHarness h;
    LogCapture log;
    // The chooser opens in the user's downloads, or at home where there are none.
    const QByteArray home = qgetenv("HOME");
    const auto restore = qScopeGuard([&] { qputenv("HOME", home); });
    qputenv("HOME", QFile::encodeName(h.root.path()));
    h.chooser->answer = FolderChoice{};
    h.files.chooseDestinationFolder({});
    QVERIFY(QDir(h.root.path()).mkdir("Downloads"));
    h.chooser->answer = FolderChoice{true, QUrl::fromLocalFile(h.dest)};
    h.remoteCopy();
    QCOMPARE(h.pasteboard.clears, 1);
    h.paste();
    QCOMPARE(h.nextFrame(), hex("0a 06 08 03 10 02 20 07 10 c2 81 03 03"));
    const QByteArray a = pattern(300000, 1), b = pattern(70000, 2);
    // A folder's size is no size: the copying side puts 16 and 16 there.
    h.offer({descriptor("d", 0x1000000010ull, 0x10), descriptor("d\\a.bin", 300000), descriptor("d\\e.txt", 0), descriptor("b ü.bin", 70000),
             descriptor(".", 0, 0x10, 132223104000000000ull)}); // a time for the chosen folder itself, never set
    QCOMPARE(h.chooser->requests, (QList<FolderRequest>{{{}, h.root.path()}, {{5, 370000}, h.root.filePath("Downloads")}}));
    const auto streamOf = [](const std::optional<QByteArray> &frame) {
        return frame ? kx::parseMessage<Query>(frame->chopped(1)).value_or(Query()).streamid() : 99;
    };
    const auto first = h.nextFrame();
    const std::uint32_t s = streamOf(first);
    QVERIFY(s <= 9);
    QCOMPARE(*first, queryHex(s, "18 01 20 01 38 08 05"));
    h.reply(s, QByteArray(8, '\0'));
    QElapsedTimer sinceEmpty;
    for (const auto &[expected, answer] : QList<std::pair<QByteArray, QByteArray>>{
             {queryHex(s, "18 01 20 02 38 80 80 10 05"), a.first(chunk)},
             {queryHex(s, "18 01 20 02 28 80 80 10 38 80 80 10 05"), a.mid(chunk, 10000)}, // short
             {queryHex(s, "18 01 20 02 28 90 ce 10 38 80 80 10 05"), QByteArray()},        // empty
             {queryHex(s, "18 01 20 02 28 90 ce 10 38 80 80 10 05"), a.mid(chunk + 10000)}}) {
        QCOMPARE(h.nextFrame(2000), expected);
        QVERIFY2(!sinceEmpty.isValid() || sinceEmpty.elapsed() >= 550, "the repeat came before the wait");
        h.reply(s, answer);
        answer.isEmpty() ? sinceEmpty.start() : sinceEmpty.invalidate();
    }
    const auto sizeB = h.nextFrame();
    const std::uint32_t u = streamOf(sizeB);
    QCOMPARE(*sizeB, queryHex(u, "18 03 20 01 38 08 05"));
    h.reply(u, QByteArray(8, '\0'));
    QCOMPARE(h.nextFrame(), queryHex(u, "18 03 20 02 38 80 80 10 05"));
    h.reply(u, b);

    QVERIFY(h.lastEnd(true, PastedError::noError) && h.ends.size() == 1 && !h.nextFrame(0));
    QCOMPARE(treeOf(h.dest), (QStringList{"b ü.bin 70000", "d/", "d/a.bin 300000", "d/e.txt 0"}));
    QVERIFY(readFile(h.dest + "/d/a.bin") == a && readFile(h.dest + "/b ü.bin") == b);
    for (const QString &folder : {h.dest, h.dest + "/d"}) // no time sent, or not one of ours: none set
        QVERIFY(QFileInfo(folder).lastModified().secsTo(QDateTime::currentDateTime()) < 60);
    QCOMPARE(h.progress, (QList<double>{chunk / 370000.0, 272144 / 370000.0, 300000 / 370000.0, 1.0, 1.0}));
    QCOMPARE(log.count("send requestContentRequestType3 success"), 1);
    QCOMPARE(log.lines().filter(QRegularExpression("^(这个文件大小正确下载完成了|这一次写入数据大小:27856)")), // after a file's last range
             (QStringList{"这一次写入数据大小:27856 bytes", "这个文件大小正确下载完成了", "这个文件大小正确下载完成了"}));
    QCOMPARE(log.lines().filter("总chunks:"), (QStringList{"总chunks:2", "总chunks:1"}));
    QCOMPARE(log.lines().filter("windows转到mac的存储路径为:"),
             (QStringList{"windows转到mac的存储路径为:" + h.dest + "/d/a.bin", "windows转到mac的存储路径为:" + h.dest + "/b%20%C3%BC.bin"}));
    // Each range logs the chunk after it, in two lines, whatever its length.
    QCOMPARE(log.lines().filter(QRegularExpression("^(将要请求的deoffset|Low Value|High Value):")).join(','),
             "将要请求的deoffset:262144,Low Value: 262144,High Value: 0,将要请求的deoffset:524288,Low Value: 524288,High Value: 0,"
             "将要请求的deoffset:534288,Low Value: 534288,High Value: 0,将要请求的deoffset:262144,Low Value: 262144,High Value: 0");
    QCOMPARE(log.lines().filter(QRegularExpression("^cachesDirectory:")).size(), 5); // the empty file's path is never asked for
    QVERIFY(log.contains("所有文件下载完成"));
    QCOMPARE(h.engine->pasteStatus(), PasteStatus::complete);
    QVERIFY(h.engine->hasFormList()); // the same remote copy can be pasted again
}

void TestPaste::chunking_data()
{
    QTest::addColumn<QList<qint64>>("sizes");    // -1: an empty file where a folder is
    QTest::addColumn<QList<quint64>>("offsets"); // of the range queries, all files
    QTest::addColumn<int>("progressReports");
    QTest::addColumn<qint64>("freeBytes"); // -1: what the disk has
    QTest::newRow("exactly one chunk") << QList<qint64>{chunk} << QList<quint64>{0} << 2 << -1ll;
    QTest::newRow("one byte over") << QList<qint64>{chunk + 1} << QList<quint64>{0, chunk} << 3 << -1ll;
    QTest::newRow("only empty files") << QList<qint64>{0, 0, 0} << QList<quint64>{} << 1 << 0ll;
    QTest::newRow("empty between") << QList<qint64>{5, 0, 6} << QList<quint64>{0, 0} << 3 << 11ll;
    QTest::newRow("a folder where an empty file goes") << QList<qint64>{3, -1} << QList<quint64>{0} << 2 << -1ll;
    QTest::newRow("a byte more than the disk has") << QList<qint64>{5, 0, 6} << QList<quint64>{} << 0 << 10ll;
}

void TestPaste::chunking()
{
    QFETCH(QList<qint64>, sizes);
    QFETCH(QList<quint64>, offsets);
    QFETCH(int, progressReports);
    QFETCH(qint64, freeBytes);
    EngineHarness h;
    LogCapture log;
    if (freeBytes >= 0)
        h.files.freeSpaceQuery = [=](const QString &) { return std::optional<std::uint64_t>(freeBytes); };
    Descriptors list;
    for (int i = 0; i < sizes.size(); ++i) {
        list.append(descriptor(QStringLiteral("f%1").arg(i), std::uint64_t(std::max<qint64>(sizes[i], 0))));
        if (sizes[i] < 0) // a folder of the user's has the name: both are kept
            QVERIFY(QDir().mkpath(h.dest + QStringLiteral("/f%1/mine").arg(i)));
    }
    QVERIFY(h.pasteOf(list));
    QList<quint64> seen;
    while (h.ends.isEmpty()) {
        const auto q = h.query();
        QCOMPARE(q.cbrequested(), q.dwflags() == 1 ? 8u : chunk);
        if (q.dwflags() == 2)
            seen.append(kx::queryOffset(q));
        h.reply(q.streamid(), answerFor(q, pattern(sizes[int(q.listindex())], 1)));
    }
    QCOMPARE(seen, offsets);
    QCOMPARE(h.progress.size(), progressReports);
    const bool full = progressReports == 0;
    QVERIFY(h.lastEnd(!full, full ? PastedError::saveError : PastedError::noError));
    for (int i = 0; i < sizes.size(); ++i)
        QCOMPARE(readFile(h.dest + QString(sizes[i] < 0 ? "/f%1 (2)" : "/f%1").arg(i)),
                 full ? "<missing>" : pattern(std::max<qint64>(sizes[i], 0), 1));
    QCOMPARE(log.contains("not enough space in " + h.dest + ": the paste needs 11 bytes and 10 are free; nothing is written"), full);
    const PasteReport report = h.engine->lastPasteReport(); // the figures the alert gives
    QVERIFY(report.bytesFree == (full ? 10u : 0u) && (!full || report.bytesNeeded == 11));
}

// Every way a paste ends but success, in both exchanges, at the file's first range or in
// its middle. The chosen folder already has a file of the same name, kept both ways or, with
// the window, replaced; the paste has an empty file that completes first and one after it,
// which the window starts early. Each row plays the remote side up to the fault; then the
// end reported, the user's file as it was, the completed file kept, no partial file and
// nothing out of list order anywhere, nothing more asked for, and the next paste working.
void TestPaste::endings_data()
{
    QTest::addColumn<Step>("fault");
    QTest::addColumn<int>("ranges");   // ranges answered before the fault
    QTest::addColumn<int>("expected"); // the PastedError
    QTest::addColumn<int>("why");      // what the report of the end says
    using Why = PasteReport::Why;
    auto rows = [](const char *name, QList<int> ranges, PastedError expected, Why why, Step fault) {
        for (int window : {1, 4})
            for (int answered : ranges)
                QTest::addRow("%s after %d ranges, window %d", name, answered, window) << fault << answered << int(expected) << int(why);
    };
    const auto unknown = PastedError::unKonwnError, saveError = PastedError::saveError;
    rows("undecodable reply", {1}, unknown, Why::unreadable, [](EngineHarness &h, const Query &) { h.send(hex("0a 05 06")); });
    rows("reply beyond the query", {0, 1}, unknown, Why::unreadable,
         [](EngineHarness &h, const Query &q) { h.reply(q.streamid(), QByteArray(int(q.cbrequested()) + 1, 'x')); });
    rows("reply past the announced size", {2}, unknown, Why::unreadable, // 1000 bytes are left of the file
         [](EngineHarness &h, const Query &q) { h.reply(q.streamid(), QByteArray(1001, 'x')); });
    rows("stop", {0, 1}, PastedError::cancelDownload, Why::stopped, [](EngineHarness &h, const Query &q) {
        h.engine->setPasteStatus(PasteStatus::cancel); // ends it at once
        QVERIFY(h.ends.size() == 1 && h.statusAtEnd == PasteStatus::downloading);
        h.remoteCopy(); // a new remote copy cannot undo it
        replyRight(h, q);
    });
    rows("stop during the wait after an empty reply", {0}, PastedError::cancelDownload, Why::stopped, [](EngineHarness &h, const Query &q) {
        h.reply(q.streamid(), {});
        h.engine->setPasteStatus(PasteStatus::cancel);
        QVERIFY(!h.nextFrame(800)); // no repeat after the wait
    });
    rows("no reply for the time-out", {1}, PastedError::websoketDisconnect, Why::noAnswer, [](EngineHarness &h, const Query &) {
        LogCapture log;
        h.engine->setReplyTimeout(300);
        QVERIFY(QTest::qWaitFor([&] { return !h.ends.isEmpty(); }, 3000));
        QVERIFY(log.contains("the remote side has not answered for 0.3 seconds; the paste ends"));
    });
    // A reply every 50 ms, each of one byte: the range is not whole in time all the same.
    rows("a byte at a time", {1}, PastedError::websoketDisconnect, Why::noAnswer, [](EngineHarness &h, const Query &q) {
        LogCapture log;
        h.engine->setReplyTimeout(400);
        std::optional<Query> next = q;
        for (int replies = 0; next && replies < 100; ++replies) {
            h.reply(next->streamid(), "x");
            next = h.nextQuery(1000); // the rest, or the next range, asked for at once
            if (QTest::qWaitFor([&] { return !h.ends.isEmpty(); }, 50))
                break;
        }
        QVERIFY(log.contains("the remote side has not answered for 0.4 seconds; the paste ends"));
    });
    // A newer remote copy whose f.bin has another time: nothing more of it is fetched, and
    // what its replies brought before the list came is not written.
    const Descriptors newer{descriptor("done.txt", 0), descriptor("f.bin", quint64(fileData().size()), 0x80, 5), descriptor("z.txt", 0)};
    rows("a newer copy of the file", {0, 1}, PastedError::cancelDownload, Why::remoteCopyChanged, [newer](EngineHarness &h, const Query &) {
        QVERIFY(h.newerCopy(newer));
    });
    rows("a newer copy's bytes before its list", {1}, PastedError::cancelDownload, Why::remoteCopyChanged, [newer](EngineHarness &h, const Query &q) {
        h.remoteCopy();
        QVERIFY(h.next<FileSDK::CliprdrFormatDataRequest>(FrameType::formatDataRequest));
        h.reply(q.streamid(), QByteArray(int(q.cbrequested()), 'n'));
        QVERIFY(h.ends.isEmpty());
        h.offer(newer);
    });
    rows("a newer copy whose list never comes", {0}, PastedError::cancelDownload, Why::remoteCopyChanged, [](EngineHarness &h, const Query &) {
        h.remoteCopy();
        QVERIFY(h.next<FileSDK::CliprdrFormatDataRequest>(FrameType::formatDataRequest));
        h.engine->setReplyTimeout(300);
        QVERIFY(QTest::qWaitFor([&] { return !h.ends.isEmpty(); }, 3000));
        h.engine->setReplyTimeout(ClipBoardManager::defaultReplyTimeoutMs);
    });
    rows("connection lost", {0, 1}, PastedError::websoketDisconnect, Why::connectionLost, [](EngineHarness &h, const Query &) { h.sink.lose(); });
    rows("a file too large for its limit", {1}, saveError, Why::cannotWrite, [](EngineHarness &h, const Query &q) {
        std::signal(SIGXFSZ, SIG_IGN);
        rlimit saved{}, limit{};
        getrlimit(RLIMIT_FSIZE, &saved);
        limit = saved;
        limit.rlim_cur = chunk + 1000;
        setrlimit(RLIMIT_FSIZE, &limit);
        replyRight(h, q);
        setrlimit(RLIMIT_FSIZE, &saved);
    });
    rows("file being written removed", {0, 1}, saveError, Why::cannotWrite, [](EngineHarness &h, const Query &q) {
        for (const QString &partial : QDir(h.dest).entryList({".kx-clipboard-partial-*"}, QDir::Files | QDir::Hidden))
            QVERIFY(QFile::remove(h.dest + '/' + partial));
        replyRight(h, q);
    });
    rows("disk full", {1}, saveError, Why::diskFull, [](EngineHarness &h, const Query &q) { // 4 KiB left of a tmpfs: a short write
        struct statvfs disk {};
        QVERIFY(::statvfs(QFile::encodeName(h.dest).constData(), &disk) == 0);
        QVERIFY(writeFile(h.dest + "/other", QByteArray(qsizetype(disk.f_bavail * disk.f_frsize) - 4096, 'x')));
        LogCapture log;
        replyRight(h, q);
        QVERIFY(QFile::remove(h.dest + "/other") && log.contains("writing at 262144 failed: the disk is full"));
    });
}

void TestPaste::endings()
{
    QFETCH(Step, fault);
    QFETCH(int, ranges);
    QFETCH(int, expected);
    QFETCH(int, why);
    const QByteArray tag = QTest::currentDataTag();
    const int window = tag.endsWith("4") ? 4 : 1;
    EngineHarness h(window);
    const QByteArray &data = fileData(), dest = QFile::encodeName(h.dest);
    if (tag.startsWith("disk full") && ::mount("tmpfs", dest.constData(), "tmpfs", 0, "size=1m") != 0)
        QSKIP("a file system of the test's own needs root");
    const auto unmount = qScopeGuard([&] { ::umount2(dest.constData(), MNT_DETACH); });
    QVERIFY(writeFile(h.dest + "/f.bin", "mine"));
    h.conflicts->answer = window == 4 ? ConflictChoice::replace : ConflictChoice::keepBoth;
    const Descriptors list{descriptor("done.txt", 0), descriptor("f.bin", quint64(data.size())), descriptor("z.txt", 0)};
    QVERIFY(h.pasteOf(list));
    // The size query, then the ranges in order; the window keeps the later ones waiting.
    QList<Query> waiting{h.query()};
    replyRight(h, waiting.takeFirst());
    for (int i = 0; i <= ranges; ++i) {
        while (auto more = h.nextQuery(0))
            waiting.append(*more);
        if (i < ranges)
            replyRight(h, waiting.takeFirst());
    }
    fault(h, waiting.first());
    QCOMPARE(h.ends, (QList<std::pair<bool, PastedError>>{{false, PastedError(expected)}}));
    const PasteReport report = h.engine->lastPasteReport(); // what the alert will say
    QVERIFY(int(report.why) == why && report.folder == h.dest && report.filesSaved == 1 && report.filesTotal == 3);
    QCOMPARE(report.file, "f.bin");
    for (const Query &w : waiting) // replies that come after the end write nothing
        h.reply(w.streamid(), QByteArray(int(w.cbrequested()), 'z'));
    QVERIFY2(!h.nextQuery(0), "a query after the end");
    for (const QFileInfo &fd : QDir("/proc/self/fd").entryInfoList(QDir::AllEntries | QDir::System)) // closed at once
        QVERIFY(!fd.symLinkTarget().startsWith(h.dest));
    QCOMPARE(treeOf(h.dest), (QStringList{"done.txt 0", "f.bin 4"}));

    // Ctrl+V pastes the same copy again; after a lost connection it waits for a new one.
    h.paste();
    QCOMPARE(h.nextFrame(0).has_value(), h.sink.connected);
    if (!h.sink.connected)
        h.reopen(), h.remoteCopy(), h.paste(), h.nextFrame();
    h.offer(list);
    QVERIFY(h.serve({{1, data}}));
    QVERIFY(h.lastEnd(true, PastedError::noError));
    const QString pasted = QString::number(data.size());
    QCOMPARE(treeOf(h.dest), (window == 4 ? QStringList{"done.txt 0", "f.bin " + pasted, "z.txt 0"}
                                          : QStringList{"done (2).txt 0", "done.txt 0", "f (2).bin " + pasted, "f.bin 4", "z.txt 0"}));
}

// What the chosen folder holds against each answer to the one question: a name taken by
// a file, a folder, a link, or a file where the paste needs a folder. Nothing is written
// through a link, no folder is replaced, and Cancel writes nothing at all.
void TestPaste::conflicts_data()
{
    QTest::addColumn<QString>("holds");
    QTest::addColumn<int>("answer");
    QTest::addColumn<QStringList>("tree"); // the chosen folder afterwards, besides "outside" beside it
    const auto add = [](const char *holds, ConflictChoice answer, QStringList tree) {
        QTest::addRow("%s, %d", holds, int(answer)) << QString(holds) << int(answer) << tree;
    };
    using C = ConflictChoice;
    // Nothing to ask; what a companion that is gone left goes, and nothing else.
    add("nothing", C::cancel, {".kx-clipboard-partial-2147483646-2 4", ".kx-clipboard-partial-notes 4", "b.txt 5", "docs/", "docs/a.txt 5"});
    add("a file and its (2)", C::keepBoth, {"b (2).txt 4", "b (3).txt 5", "b.txt 4", "docs/", "docs/a.txt 5"});
    add("a file and its (2)", C::replace, {"b (2).txt 4", "b.txt 5", "docs/", "docs/a.txt 5"});
    add("a file and its (2)", C::skip, {"b (2).txt 4", "b.txt 4", "docs/", "docs/a.txt 5"});
    add("a file and its (2)", C::cancel, {"b (2).txt 4", "b.txt 4"});
    add("a folder, and docs merged into", C::keepBoth, {"b (2).txt 5", "b.txt/", "b.txt/x 4", "docs/", "docs/a.txt 5", "docs/x 4"});
    add("a folder, and docs merged into", C::replace, {"b (2).txt 5", "b.txt/", "b.txt/x 4", "docs/", "docs/a.txt 5", "docs/x 4"});
    add("a folder, and docs merged into", C::skip, {"b.txt/", "b.txt/x 4", "docs/", "docs/a.txt 5", "docs/x 4"});
    add("a file where a folder is needed", C::keepBoth, {"b.txt 5", "docs (2)/", "docs (2)/a.txt 5", "docs 4"});
    add("a file where a folder is needed", C::replace, {"b.txt 5", "docs (2)/", "docs (2)/a.txt 5", "docs 4"});
    add("a file where a folder is needed", C::skip, {"b.txt 5", "docs 4"});
    add("a link", C::keepBoth, {"b (2).txt 5", "b.txt -> outside", "docs/", "docs/a.txt 5"});
    add("a link", C::replace, {"b.txt 5", "docs/", "docs/a.txt 5"});
    add("a link", C::cancel, {"b.txt -> outside"});
}

// Files of the temporaries' form: one a companion that is gone journaled and left, one it
// journaled that was replaced since by a file of the same name, and the user's own.
static void journalLeftovers(const QString &folder)
{
    const auto journal = [&](const QString &name) {
        struct stat st {};
        QVERIFY(::stat(QFile::encodeName(folder + '/' + name).constData(), &st) == 0);
        QVERIFY(PartialJournal::shared().add({2147483646, std::uint64_t(st.st_dev), std::uint64_t(st.st_ino), folder, name}));
    };
    QVERIFY(writeFile(folder + "/.kx-clipboard-partial-2147483646-1", "half"));
    journal(".kx-clipboard-partial-2147483646-1");
    QVERIFY(writeFile(folder + "/.kx-clipboard-partial-2147483646-2", "half"));
    journal(".kx-clipboard-partial-2147483646-2");
    QVERIFY(writeFile(folder + "/new", "mine") && ::rename(QFile::encodeName(folder + "/new").constData(),
                                                            QFile::encodeName(folder + "/.kx-clipboard-partial-2147483646-2").constData()) == 0);
    QVERIFY(writeFile(folder + "/.kx-clipboard-partial-notes", "mine"));
}

void TestPaste::conflicts()
{
    QFETCH(QString, holds);
    QFETCH(int, answer);
    QFETCH(QStringList, tree);
    EngineHarness h(2);
    const QString outside = h.root.filePath("outside");
    QVERIFY(writeFile(outside, "mine"));
    if (holds.startsWith("a file and"))
        QVERIFY(writeFile(h.dest + "/b.txt", "mine") && writeFile(h.dest + "/b (2).txt", "mine"));
    else if (holds.startsWith("a folder"))
        QVERIFY(writeFile(h.dest + "/b.txt/x", "mine") && writeFile(h.dest + "/docs/x", "mine"));
    else if (holds == "a file where a folder is needed")
        QVERIFY(writeFile(h.dest + "/docs", "mine"));
    else if (holds == "a link")
        QVERIFY(QFile::link(outside, h.dest + "/b.txt"));
    else
        journalLeftovers(h.dest);
    h.conflicts->answer = ConflictChoice(answer);
    if (answer == int(ConflictChoice::skip)) // room for what is still to write, the skipped file left out
        h.files.freeSpaceQuery = [](const QString &) { return std::optional<std::uint64_t>(5); };
    QVERIFY(h.pasteOf({descriptor("docs", 0, 0x10), descriptor("docs\\a.txt", 5), descriptor("b.txt", 5)}));
    const bool cancelled = answer == int(ConflictChoice::cancel) && holds != "nothing";
    if (!cancelled)
        QVERIFY(h.serve({{1, "new-a"}, {2, "new-b"}}));
    QVERIFY(h.lastEnd(!cancelled, cancelled ? PastedError::cancelDownload : PastedError::noError));
    QCOMPARE(treeOf(h.dest), tree);
    const bool replaces = answer == int(ConflictChoice::replace) && (holds.startsWith("a file and") || holds == "a link");
    QCOMPARE(h.engine->lastPasteReport().filesReplaced, std::uint64_t(replaces)); // a folder in the way is never counted
    if (answer == int(ConflictChoice::skip) && holds == "a file and its (2)") { // every name taken, all skipped: said
        const qsizetype before = h.ends.size();
        QVERIFY(h.pasteOf({descriptor("b.txt", 5)}) && h.ends.size() == before + 1 && h.lastEnd(true, PastedError::noError));
        QVERIFY(h.engine->lastPasteReport().filesSkipped == 1 && !h.nextQuery(0));
    }
    if (holds != "nothing")
        return;
    // A remote name of the temporaries' form is saved under a free one, and stays.
    h.conflicts->answer = ConflictChoice::keepBoth;
    for (int i = 0; i < 2; ++i)
        QVERIFY(h.pasteAll({descriptor(".kx-clipboard-partial-2147483646-3", 4)}, {{0, "remo"}}) && h.lastEnd(true, PastedError::noError));
    QCOMPARE(treeOf(h.dest).filter("-3"), (QStringList{".kx-clipboard-partial-2147483646-3 (2) 4", ".kx-clipboard-partial-2147483646-3 (3) 4"}));
    QVERIFY(treeOf(h.dest).contains(".kx-clipboard-partial-notes 4"));
    QCOMPARE(readFile(outside), "mine");
    QCOMPARE(h.conflicts->asked.size(), holds == "nothing" ? 0 : 1);
    if (!h.conflicts->asked.isEmpty())
        QVERIFY(h.conflicts->asked.first().count == 1
                && h.conflicts->asked.first().firstNames == QStringList{holds.endsWith("needed") ? "docs" : "b.txt"});
    const PasteReport report = h.engine->lastPasteReport(); // what the alert will count
    QCOMPARE(report.filesRenamed, std::uint64_t(tree.filter(QRegularExpression(" \\(\\d\\)\\.txt 5$")).size()));
    QCOMPARE(report.filesSkipped, answer == int(ConflictChoice::skip) ? 1u : 0u);
    for (const QString &name : tree.filter(QRegularExpression(" 5$")))
        QCOMPARE(readFile(h.dest + '/' + name.chopped(2)), name.startsWith("docs") ? "new-a" : "new-b");
}

// Keep both on a taken name that already fills the file system's limit: the new file's
// stem gives way, whole characters at a time, and the files after it are pasted too.
void TestPaste::longNames_data()
{
    QTest::addColumn<QString>("name");
    QTest::addColumn<QString>("kept");
    QTest::addColumn<bool>("folder");
    const QString sun(QChar(0x65E5)), smile = QString::fromUcs4(U"\U0001F600");
    QTest::newRow("255 bytes") << QString(251, 'x') + ".txt" << QString(247, 'x') + " (2).txt" << false;
    QTest::newRow("three-byte characters") << sun.repeated(83) + ".txt" << sun.repeated(82) + " (2).txt" << false;
    QTest::newRow("four-byte characters") << smile.repeated(62) + ".txt" << smile.repeated(61) + " (2).txt" << false;
    QTest::newRow("an extension of 250 bytes") << "a." + QString(250, 'e') << "a." + QString(249, 'e') + " (2)" << false;
    QTest::newRow("a folder of 255 bytes") << QString(255, 'd') << QString(251, 'd') + " (2)" << true;
}

void TestPaste::longNames()
{
    QFETCH(QString, name);
    QFETCH(QString, kept);
    QFETCH(bool, folder);
    QVERIFY(QFile::encodeName(name).size() > 250 && QFile::encodeName(kept).size() <= 255);
    EngineHarness h(1);
    QVERIFY(writeFile(h.dest + '/' + name, "mine"));
    h.conflicts->answer = ConflictChoice::keepBoth;
    const QString inside = folder ? name + "\\in.txt" : name;
    QVERIFY(h.pasteOf(folder ? Descriptors{descriptor(name, 0, 0x10), descriptor(inside, 5), descriptor("after.txt", 5)}
                             : Descriptors{descriptor(inside, 5), descriptor("after.txt", 5)}));
    QVERIFY(h.serve({{folder ? 1 : 0, "new-1"}, {folder ? 2 : 1, "after"}}));
    QVERIFY(h.lastEnd(true, PastedError::noError));
    QCOMPARE(readFile(h.dest + '/' + name), "mine");
    QCOMPARE(readFile(h.dest + '/' + kept + (folder ? "/in.txt" : "")), "new-1");
    QCOMPARE(readFile(h.dest + "/after.txt"), "after");
}

// Ctrl+V asks for the last format named for the file list, 0 with none, under the list's
// own header, or one of zeros if it had none.
void TestPaste::formatAskedFor()
{
    for (const auto &[formats, request] : QList<std::pair<QList<std::pair<uint, std::string>>, QByteArray>>{
             {{{1, "FileGroupDescriptorW"}, {2, "FileGroupDescriptorW"}}, hex("0a 00 10 02 03")}, {{{13, "CF_UNICODETEXT"}}, hex("0a 00 03")}}) {
        EngineHarness h;
        QSignalSpy offers(h.engine.get(), &ClipBoardManager::filesOffered); // files only, not text
        FileSDK::CliprdrFormatList list;
        for (const auto &[id, name] : formats)
            *list.add_formats() = [&] { FileSDK::CliprdrFormat f; f.set_formatid(id); f.set_formatname(name); return f; }();
        h.send(list, FrameType::formatList);
        h.paste();
        QVERIFY(offers.size() == (formats.size() == 2 ? 2 : 0) && h.nextFrame() == request);
    }
}

// What runs inside the folder chooser's nested event loop, the ends that need no reply,
// and replies that come when they should not.
void TestPaste::chooserGuardsAndStrayReplies()
{
    EngineHarness h;
    LogCapture log;
    // A second list while the chooser is open neither opens a second chooser nor
    // replaces the list being chosen for.
    h.chooser->whileOpen = [&] { h.offer({descriptor("other", 5)}); };
    QVERIFY(h.pasteAll({descriptor("mine", 3)}, {{0, "abc"}}));
    QVERIFY(h.chooser->runs == 1 && h.chooser->maxDepth == 1);
    // The connection lost while the chooser is open: the folder chosen after it starts nothing.
    h.chooser->whileOpen = [&] { h.sink.lose(); };
    QVERIFY(h.pasteOf({descriptor("late", 5)}));
    QVERIFY(h.lastEnd(false, PastedError::websoketDisconnect) && !h.nextFrame(0));
    QCOMPARE(treeOf(h.dest), QStringList{"mine 3"});
    // A loss while no paste runs (status start) reports nothing, nor a cancelled chooser;
    // a paste without a remote copy sends nothing.
    h.reopen();
    h.paste();
    QVERIFY(!h.nextFrame(0));
    h.remoteCopy();
    h.sink.lose();
    h.reopen();
    // Cancelled, confirmed without a folder or with an empty one: the same as cancelled,
    // and the same copy can be pasted again, also from the tray and the notification.
    QSignalSpy offered(h.engine.get(), &ClipBoardManager::filesOffered);
    for (const FolderChoice &none : {FolderChoice{}, FolderChoice{true, std::nullopt}, FolderChoice{true, QUrl()}}) {
        h.chooser->answer = none;
        QVERIFY(h.pasteOf({descriptor("x", 5)}) && h.engine->pasteStatus() == PasteStatus::complete);
        QVERIFY(h.engine->hasFormList() && !h.nextFrame(0) && h.ends.size() == 2 && offered.last() == QVariantList{true});
    }
    QVERIFY(h.chooser->runs == 5 && log.count("用户取消选择文件") == 1 && log.contains("选择的文件路径：" + h.dest));
    // A list asked for that never comes ends its paste as a lost connection would.
    h.engine->setReplyTimeout(200);
    h.paste();
    QVERIFY(h.nextFrame() && QTest::qWaitFor([&] { return h.ends.size() == 3; }, 2000));
    QVERIFY(h.lastEnd(false, PastedError::websoketDisconnect) && log.contains("the remote side has not answered for 0.2 seconds; the paste ends"));
    h.engine->setReplyTimeout(ClipBoardManager::defaultReplyTimeoutMs);
    // A list nobody asked for opens no chooser and writes nothing.
    h.offer({descriptor("unasked", 0)});
    QVERIFY(h.chooser->runs == 5 && log.contains("a descriptor list that no paste asked for; ignored"));
    // A list that does not decode, or is too long, ends its paste; Ctrl+V works again.
    h.chooser->answer = FolderChoice{true, QUrl::fromLocalFile(h.dest)};
    for (const QByteArray &bad : {hex("12 03 62 01 ff 07"), hex("10 00 07"), QByteArray::fromHex("1200").repeated(1000001) + '\x07'}) {
        h.paste();
        QVERIFY(h.nextFrame());
        h.send(bad);
        QVERIFY(h.lastEnd(false, PastedError::unKonwnError) && !h.nextFrame(0));
    }
    QVERIFY(log.contains("the remote copy could not be read: its entry 0 is not a file description; the paste ends")
            && log.contains("the remote copy has more than 1000000 entries; it is not pasted") && h.ends.size() == 6
            && log.contains("the remote copy could not be read: its file list does not decode")); // an entry of the wrong wire type

    // Folders only: nothing to fetch, nothing to report.
    h.chooser->answer = FolderChoice{true, QUrl::fromLocalFile(h.dest)};
    QVERIFY(h.pasteOf({descriptor("only", 0, 0x10)}) && h.engine->pasteStatus() == PasteStatus::complete);
    QVERIFY(h.ends.size() == 6 && !h.nextFrame(0) && treeOf(h.dest) == QStringList{"mine 3"});
    // A stray reply after a loss cannot end the next paste, nor lose its copy.
    QVERIFY(h.pasteOf({descriptor("big", 3 * chunk)}));
    h.query();
    h.sink.lose();
    h.reopen();
    h.remoteCopy();
    h.send(hex("0a 05 06"));
    QVERIFY(h.ends.size() == 7 && h.engine->hasFormList());
    // An empty reply's repeat is sent whatever the status: a new remote copy of the same
    // file meanwhile does not stall the download. A reply during the wait cancels the repeat.
    QVERIFY(h.pasteOf({descriptor("big", 3 * chunk)}));
    h.reply(h.query().streamid(), QByteArray(8, 0));
    const Query q = h.query();
    h.reply(q.streamid(), {});
    FileSDK::CliprdrFormatList text; // a copy of text changes nothing for files
    text.add_formats()->set_formatname("CF_UNICODETEXT");
    h.send(text, FrameType::formatList);
    QVERIFY(h.newerCopy({descriptor("big", 3 * chunk), descriptor("more", 1)}));
    QCOMPARE(h.query(2000).npositionlow(), 0u);
    h.reply(q.streamid(), {});
    h.reply(q.streamid(), pattern(chunk, 1));
    QCOMPARE(h.query().npositionlow(), chunk);
    QVERIFY(!h.nextFrame(800) && log.contains("总chunks:3")); // the cancelled repeat never comes; 3 chunks, not 4
}

// A paste's end reaches its own callbacks. A download that ends while the next paste's
// chooser is open does not stop the folder then chosen from starting that paste; a
// download still running when the next paste has its folder ends as Stop would end it.
void TestPaste::onePasteAtATime()
{
    EngineHarness h;
    QList<QPair<char, bool>> ends; // which paste ended, and how
    const auto paste = [&](char which) {
        h.engine->startPaste({}, [&ends, which](bool ok, PastedError) { ends.append({which, ok}); });
        return h.next<FileSDK::CliprdrFormatDataRequest>(FrameType::formatDataRequest).has_value();
    };
    const QByteArray first = pattern(2 * chunk, 1), second = pattern(3 * chunk, 2);
    h.remoteCopy();
    QVERIFY(paste('a'));
    h.offer({descriptor("first", 2 * chunk)});
    h.reply(h.query().streamid(), QByteArray(8, 0));
    const Query running = h.query();
    h.reply(running.streamid(), first.first(chunk));
    const Query last = h.query();
    QVERIFY(h.newerCopy({descriptor("first", 2 * chunk)}));
    QVERIFY(paste('b'));
    h.chooser->whileOpen = [&] { h.reply(last.streamid(), first.mid(chunk)); }; // the first download ends meanwhile
    h.offer({descriptor("second", 3 * chunk), descriptor("second", 3 * chunk)});
    QCOMPARE(ends, (QList<QPair<char, bool>>{{'a', true}}));
    const Query size = h.query(); // the second paste has started
    QVERIFY(size.dwflags() == 1 && size.listindex() == 0);
    h.reply(size.streamid(), QByteArray(8, 0));
    h.reply(h.query().streamid(), second.first(chunk));
    const Query late = h.query();
    QCOMPARE(late.npositionlow(), chunk);
    // A third paste into another folder ends the second before it starts; the second's
    // reply that comes late is not taken for one of the third's.
    const QString other = h.root.filePath("other");
    QVERIFY(QDir().mkpath(other));
    h.chooser->answer = FolderChoice{true, QUrl::fromLocalFile(other)};
    QVERIFY(h.newerCopy({descriptor("second", 3 * chunk), descriptor("second", 3 * chunk)}));
    QVERIFY(paste('c'));
    h.offer({descriptor("third", 5)});
    QCOMPARE(ends, (QList<QPair<char, bool>>{{'a', true}, {'b', false}}));
    LogCapture log;
    const Query thirdSize = h.query();
    h.reply(late.streamid(), second.mid(chunk, chunk));
    QVERIFY(thirdSize.streamid() != late.streamid()
            && log.contains(QStringLiteral("ignored a late reply of stream %1, from a paste that has ended").arg(late.streamid())));
    h.reply(thirdSize.streamid(), QByteArray(8, 0));
    h.reply(h.query().streamid(), "third");
    QCOMPARE(ends.last(), (QPair<char, bool>{'c', true}));
    QCOMPARE(readFile(h.dest + "/first"), first);
    QCOMPARE(readFile(other + "/third"), "third");
    // An entry equal in every field to an earlier one is asked for under the earlier one's position.
    h.chooser->answer = FolderChoice{true, QUrl::fromLocalFile(h.dest)};
    QVERIFY(h.pasteOf({descriptor("second", 3), descriptor("x", 1), descriptor("second", 3)}));
    QList<std::uint32_t> indexes;
    while (auto q = h.nextQuery(0)) {
        indexes.append(q->listindex());
        h.reply(q->streamid(), answerFor(*q, q->listindex() ? "x" : "abc"));
    }
    QCOMPARE(indexes, (QList<std::uint32_t>{0, 0, 1, 1, 0, 0}));
    // The chooser opens where the paste before went.
    QVERIFY(h.chooser->requests.value(1).startFolder == h.dest && h.chooser->requests.value(3).startFolder == other);
    // A paste that has ended keeps no copy of its list: 48 MiB of it go with the paste.
    [[maybe_unused]] const qint64 before = kx::residentKiB(); // unread under the sanitizer
    Descriptors heavy{descriptor("heavy", 3)};
    heavy[0].set_clsid(std::string(48 << 20, 'c'));
    QVERIFY(h.pasteAll(std::exchange(heavy, {}), {{0, "abc"}}) && h.lastEnd(true, PastedError::noError));
#if !defined(__SANITIZE_ADDRESS__) // the sanitizer's quarantine keeps freed memory resident
    QVERIFY2(kx::residentKiB() - before < 16 << 10, qPrintable(QString("%1 KiB kept").arg(kx::residentKiB() - before)));
#endif
}

// Other files copied on the remote side while the folder is chosen: nothing is pasted. The
// same files copied again: the paste goes on.
void TestPaste::newerCopyWhileChoosing()
{
    EngineHarness h;
    h.chooser->whileOpen = [&] { QVERIFY(h.newerCopy({descriptor("a", 3, 0x80, 2)})); };
    QVERIFY(h.pasteOf({descriptor("a", 3, 0x80, 1)}));
    QVERIFY(h.lastEnd(false, PastedError::cancelDownload) && h.engine->lastPasteReport().why == PasteReport::Why::remoteCopyChanged);
    QVERIFY(!h.nextFrame(0) && treeOf(h.dest).isEmpty());
    h.chooser->whileOpen = [&] { QVERIFY(h.newerCopy({descriptor("a", 3, 0x80, 1)})); };
    QVERIFY(h.pasteAll({descriptor("a", 3, 0x80, 1)}, {{0, "abc"}}) && h.lastEnd(true, PastedError::noError));
}

// A folder that cannot be written, a folder of the paste among its files: the reason told
// is the system's, not one that a later call left behind.
void TestPaste::readOnlyFolder()
{
    EngineHarness h;
    const QByteArray dest = QFile::encodeName(h.dest);
    if (::mount("tmpfs", dest.constData(), "tmpfs", MS_RDONLY, "size=1m") != 0)
        QSKIP("a file system of the test's own needs root");
    const auto unmount = qScopeGuard([&] { ::umount2(dest.constData(), MNT_DETACH); });
    QVERIFY(h.pasteOf({descriptor("docs", 0, 0x10), descriptor("docs\\a.txt", 5)}));
    QTRY_VERIFY(h.lastEnd(false, PastedError::saveError));
    const PasteReport report = h.engine->lastPasteReport();
    QCOMPARE(report.detail, QString::fromLocal8Bit(std::strerror(EROFS)));
    QVERIFY(report.why == PasteReport::Why::noPermission && report.file == "docs/a.txt");
}

void TestPaste::window_data()
{
    QTest::addColumn<int>("window");
    QTest::addColumn<bool>("reverse");
    QTest::addColumn<int>("firstSizeQueries"); // empty files need none, but take a place
    QTest::addColumn<int>("widest");           // queries outstanding at once, at most
    QTest::newRow("window 1") << 1 << false << 1 << 1;
    QTest::newRow("window 8, last first") << 8 << true << 6 << 8;
    QTest::newRow("window 64, last first") << 64 << true << 20 << 56; // all the ranges of 20 files
}

// Replies matched by stream id in any order; the next files' sizes asked for early; files
// finished, and shown, in list order. A file gets its descriptor's last-write time to the
// second as it completes, the folder its own after the last file; a file without the
// write-time flag keeps the time of the paste.
void TestPaste::window()
{
    QFETCH(int, window);
    QFETCH(bool, reverse);
    QFETCH(int, firstSizeQueries);
    QFETCH(int, widest);
    EngineHarness h(window);
    LogCapture log;
    const std::uint64_t y2020 = 132223104000000000ull, second = 10000000;
    Descriptors list{descriptor("top", 0, 0x2010, y2020)};
    Contents contents;
    for (int i = 1; i <= 30; ++i) {
        list.append(descriptor(QStringLiteral("top\\f%1").arg(i, 2, 10, QLatin1Char('0')), (i % 3) ? i * 40000 : 0, 0x80,
                               i % 5 ? y2020 + i * second : 0));
        if (i % 10 == 0) // the write-time flag with a time of 0, or one before 1970: no time is set
            list.last().set_dwflags(0x4024), list.last().set_ftlastwritetimehigh(i % 20 ? 0 : 27111902);
        contents.insert(i, pattern((i % 3) ? i * 40000 : 0, i));
    }
    QVERIFY(h.pasteOf(list));
    const auto sizeQueries = [&] { // the list is read in slices of time: on a busy machine, in more turns
        int count = 0;
        for (const QByteArray &frame : std::as_const(h.sink.sent))
            count += kx::parseMessage<Query>(frame.chopped(1))->dwflags() == 1;
        return count;
    };
    QTRY_COMPARE(sizeQueries(), firstSizeQueries);
    QVERIFY(h.serve(contents, reverse) && h.lastEnd(true, PastedError::noError));
    QCOMPARE(h.widest, widest);
    for (int i = 1; i <= 30; ++i) {
        const QString path = h.dest + QStringLiteral("/top/f%1").arg(i, 2, 10, QLatin1Char('0'));
        QCOMPARE(readFile(path), contents[i]);
        QVERIFY(i % 5 ? fileTimeOf(path) == y2020 + i * second : fileTimeOf(path) > y2020 + 366 * 86400 * second);
    }
    QVERIFY(fileTimeOf(h.dest + "/top") == y2020 && !log.containsPrefix("could not set the modification time"));
    QVERIFY(std::is_sorted(h.shownNames.begin(), h.shownNames.end() - 1));
    QVERIFY(h.shownNames.first() == "top\\f01" && h.shownNames.last().isEmpty()); // the last report comes after the last file
    QVERIFY(h.progress.last() == 1.0 && std::is_sorted(h.progress.begin(), h.progress.end()));
}

// Inside the window a short reply is followed by a query for exactly what it left out,
// an empty one by the same query after the wait, while the other queries go on.
void TestPaste::windowShortAndEmptyReplies()
{
    EngineHarness h(4);
    const QByteArray data = pattern(3 * chunk + 5, 4);
    QVERIFY(h.pasteOf({descriptor("f", quint64(data.size()))}));
    const Query size = h.query();
    QCOMPARE(size.dwflags(), 1u);
    h.reply(size.streamid(), QByteArray(8, 0));
    QList<Query> ranges;
    QSet<std::uint32_t> streams;
    while (auto r = h.nextQuery(0)) {
        ranges.append(*r);
        streams.insert(r->streamid());
    }
    QVERIFY(ranges.size() == 4 && streams.size() == 4); // a stream id of its own for each
    QCOMPARE(ranges.last().cbrequested(), 5u);          // the last asks for exactly what is left
    h.reply(ranges[2].streamid(), data.mid(2 * chunk, 1000));
    const Query followUp = h.query();
    QVERIFY(kx::queryOffset(followUp) == 2 * chunk + 1000 && followUp.cbrequested() == chunk - 1000);
    h.reply(ranges[0].streamid(), {});
    h.reply(ranges[1].streamid(), data.mid(chunk, chunk));
    h.reply(followUp.streamid(), data.mid(2 * chunk + 1000, chunk - 1000));
    h.reply(ranges[3].streamid(), data.mid(3 * chunk));
    QVERIFY(!h.nextFrame(300));
    const Query again = h.query(2000);
    QVERIFY(kx::queryOffset(again) == 0 && again.cbrequested() == chunk);
    h.reply(again.streamid(), data.first(chunk));
    QVERIFY(h.lastEnd(true, PastedError::noError));
    QCOMPARE(readFile(h.dest + "/f"), data);
}

QTEST_GUILESS_MAIN(TestPaste)
#include "tst_paste.moc"
