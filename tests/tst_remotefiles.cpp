// Remote copies read as files: the ranges asked for as reads come, and a real mount read
// by other processes, as a file manager would read it.
#include "EngineHarness.h"
#include "linux/FuseMount.h"
#include "LogCapture.h"
#include "ProcessMemory.h"
#include "RangeReads.h"

#include <QProcess>
#include <QSignalSpy>

#include <cerrno>
#include <fcntl.h>
#include <sys/mount.h>
#include <unistd.h>

namespace {

using Ranges = QList<std::pair<std::uint64_t, std::uint32_t>>; // offset and length of each query

struct Sent
{
    std::uint32_t stream, index;
    std::uint64_t offset;
    std::uint32_t length;
    bool operator==(const Sent &) const = default;
};

// Reads and the queries they send, with the replies the test gives.
struct Reads
{
    QList<Sent> sent;
    QList<std::pair<int, QByteArray>> answers;
    RangeReads reads;
    explicit Reads(int window)
        : reads(window, [this](std::uint32_t s, std::uint32_t i, std::uint64_t o, std::uint32_t l) { sent.append({s, i, o, l}); })
    {
    }
    std::uint64_t read(const RangeReads::FileRef &file, std::uint64_t offset, std::size_t size)
    {
        return reads.read(file, offset, size, [this](int error, const RangeReads::Pieces &data) {
            QByteArray joined;
            for (const QByteArrayView piece : data)
                joined += piece;
            answers.append({error, joined});
        });
    }
    bool reply(const Sent &query, const QByteArray &data)
    {
        return reads.handleReply(kx::makeContentsAnswer(query.stream, data.toStdString()));
    }
};

// Bytes that differ from offset to offset, for files too big to hold.
QByteArray bytesAt(std::uint64_t offset, std::uint64_t length)
{
    QByteArray out(qsizetype(length), Qt::Uninitialized);
    for (std::uint64_t i = 0; i < length; ++i)
        out[qsizetype(i)] = char(((offset + i) * 2654435761u) >> 13);
    return out;
}

Ranges ranges(const QList<Sent> &sent)
{
    Ranges out;
    for (const Sent &s : sent)
        out.append({s.offset, s.length});
    return out;
}

constexpr std::uint64_t chunk = RangeReads::chunkSize;

} // namespace

class TestRemoteFiles : public QObject
{
    Q_OBJECT
private slots:
    void initTestCase();
    void readAhead_data();
    void readAhead();
    void repliesHeldToTheirQuery();
    void peekThenCopy();
    void memoryBounded();
    void staleRemainder();
    void stalledRead_data();
    void stalledRead();
    void hostileList();
    void lingeringCopies();
    void listNeverSent();
    void mountedCopy();
    void dropAndNewerCopy();
    void ownFilesReachedOtherwise();
    void companionsApart();

private:
    bool canMount();
    QTemporaryDir runtime;
};

void TestRemoteFiles::initTestCase()
{
    qputenv("XDG_RUNTIME_DIR", QFile::encodeName(runtime.path())); // not the mount of a companion that runs here
}

// The queries a first read sends: the chunks it needs first, then read-ahead beyond it,
// never more outstanding than the window; a read past the end is answered at once.
void TestRemoteFiles::readAhead_data()
{
    QTest::addColumn<int>("window");
    QTest::addColumn<Ranges>("first"); // before any reply
    QTest::addColumn<Ranges>("after"); // once the first is answered
    const std::uint32_t c = chunk;
    // A file of 3 chunks and 100 bytes; the read takes 128 KiB from the middle of chunk 1.
    QTest::newRow("one at a time") << 1 << Ranges{{chunk, c}}
                                   << Ranges{{2 * chunk, c}};
    QTest::newRow("window 2") << 2 << Ranges{{chunk, c}, {2 * chunk, c}}
                              << Ranges{{3 * chunk, 100}};
    QTest::newRow("window 8, the file's end") << 8
        << Ranges{{chunk, c}, {2 * chunk, c}, {3 * chunk, 100}}
        << Ranges{};
}

void TestRemoteFiles::readAhead()
{
    QFETCH(int, window);
    QFETCH(Ranges, first);
    QFETCH(Ranges, after);
    Reads r(window);
    const RangeReads::FileRef file{7, 4, 3 * chunk + 100, "f"};
    const QByteArray bytes = bytesAt(0, file.size);
    QVERIFY(r.read(file, chunk + 1000, 128 << 10) != 0);
    QCOMPARE(ranges(r.sent), first);
    QVERIFY(std::all_of(r.sent.begin(), r.sent.end(), [](const Sent &s) { return s.index == 4 && (s.stream & RangeReads::streamBit); }));
    const Sent asked = r.sent.takeFirst();
    QVERIFY(r.reply(asked, bytes.mid(qsizetype(asked.offset), asked.length)));
    QCOMPARE(r.answers, (QList<std::pair<int, QByteArray>>{{0, bytes.mid(chunk + 1000, 128 << 10)}}));
    QCOMPARE(ranges(r.sent).mid(first.size() - 1), after);
    // Past the end: nothing, at once; the last bytes: only what there is.
    QCOMPARE(r.read(file, file.size, 4096), 0u);
    QCOMPARE(r.answers.last(), (std::pair<int, QByteArray>{0, {}}));
}

// A reply longer than its query fails the file's reads for good; a short one is completed
// by asking for the rest; an empty one is asked again after a wait; a paste's stream is
// none of the reads' business.
void TestRemoteFiles::repliesHeldToTheirQuery()
{
    Reads r(1);
    const RangeReads::FileRef file{1, 0, 10, "ten"};
    r.read(file, 0, 4096);
    QVERIFY(r.reply(r.sent.takeFirst(), QByteArray(48, 'x')));
    QCOMPARE(r.answers.value(0).first, EIO);
    QCOMPARE(r.read(file, 0, 10), 0u);
    QCOMPARE(r.answers.value(1).first, EIO);

    const RangeReads::FileRef other{2, 1, 3 * chunk, "other"};
    r.read(other, 0, 4096);
    const Sent asked = r.sent.takeFirst();
    QVERIFY(r.reply(asked, bytesAt(0, 1000)));
    QCOMPARE(r.sent.value(0).offset, 1000u); // the rest of the chunk, asked for
    QCOMPARE(r.sent.value(0).length, chunk - 1000);
    QCOMPARE(r.answers.size(), 2); // the read waits for its 4096 bytes
    const Sent rest = r.sent.takeFirst();
    // Nothing, then "nothing" whatever came with it: each time asked again, the same.
    for (const auto &empty : {kx::makeContentsAnswer(rest.stream, ""), kx::makeContentsAnswer(rest.stream, "xyz", 1, 0)}) {
        QVERIFY(r.reads.handleReply(empty));
        QVERIFY(r.sent.isEmpty());
        QTRY_COMPARE_WITH_TIMEOUT(r.sent.size(), 1, 2000);
        QCOMPARE(r.sent.takeFirst(), rest);
    }
    QVERIFY(r.reply(rest, bytesAt(1000, chunk - 1000)));
    QCOMPARE(r.answers.value(2), (std::pair<int, QByteArray>{0, bytesAt(0, 4096)}));
    QVERIFY(!r.reads.handleReply(kx::makeContentsAnswer(3, "paste")));
}

// A file manager's peek at a file's start asks for no more than its chunk; the copy that
// opens the file again soon after is served from what the peek fetched, then reads ahead.
void TestRemoteFiles::peekThenCopy()
{
    Reads r(8);
    const RangeReads::FileRef file{5, 2, 10 * chunk, "peeked"};
    r.read(file, 0, 4096);
    QCOMPARE(ranges(r.sent), (Ranges{{0, chunk}}));
    QVERIFY(r.reply(r.sent.takeFirst(), bytesAt(0, chunk)));
    r.reads.forget(file.key);
    QCOMPARE(r.read(file, 0, 128 << 10), 0u);
    QCOMPARE(r.answers.last(), (std::pair<int, QByteArray>{0, bytesAt(0, 128 << 10)}));
    QCOMPARE(r.sent.size(), 8); // and now ahead: chunks 1 to 8
}

// Forty files read from their start with the widest window, every query answered: the
// read-ahead stops at 64 MiB in all; one file read to its end keeps a few MiB.
void TestRemoteFiles::memoryBounded()
{
    Reads r(64);
    r.reads.setKeepClosed(0);
    const auto answerAll = [&] {
        while (!r.sent.isEmpty()) {
            const Sent s = r.sent.takeFirst();
            r.reply(s, bytesAt(s.offset, s.length));
        }
    };
    for (std::uint64_t f = 1; f <= 40; ++f)
        r.read({f, std::uint32_t(f), 100 * chunk, "f"}, 0, 128 << 10);
    answerAll();
    QCOMPARE(r.answers.size(), 40);
    QVERIFY2(r.reads.cachedChunks() <= RangeReads::maxChunks, qPrintable(QString::number(r.reads.cachedChunks())));
    r.reads.failAll(EIO); // as a lost connection
    QCOMPARE(r.reads.cachedChunks(), 0u);
    const RangeReads::FileRef big{99, 0, 400 * chunk, "big"};
    for (std::uint64_t at = 0; at < big.size; at += 128 << 10) {
        r.read(big, at, 128 << 10);
        answerAll();
        if (r.answers.last() != std::pair<int, QByteArray>{0, bytesAt(at, 128 << 10)})
            QFAIL(qPrintable(QString("wrong bytes at %1").arg(at)));
    }
    QVERIFY2(r.reads.cachedChunks() <= r.reads.perFileLimit(), qPrintable(QString::number(r.reads.cachedChunks())));
    QVERIFY(r.reads.perFileLimit() * chunk <= 6u << 20);
}

// A short reply, the rest asked for, the reader gone; the chunk let go to make room, then
// asked for afresh: the late rest fills nothing, and the fresh reply gives the right bytes.
void TestRemoteFiles::staleRemainder()
{
    Reads r(4);
    const RangeReads::FileRef f{1, 0, 300 * chunk, "f"};
    const std::uint64_t first = r.read(f, 0, 4096);
    QVERIFY(r.reply(r.sent.takeFirst(), bytesAt(0, 100000)));
    const Sent rest = r.sent.takeFirst();
    r.reads.cancel(first, EINTR);
    for (std::uint64_t k = 1; k <= RangeReads::maxChunks; ++k) {
        r.read(f, k * chunk, 4096);
        while (!r.sent.isEmpty()) {
            const Sent s = r.sent.takeFirst();
            r.reply(s, bytesAt(s.offset, s.length));
        }
    }
    r.answers.clear();
    r.read(f, 200000, 4096);
    const Sent fresh = r.sent.takeFirst();
    QCOMPARE(fresh.offset, 0u);
    QVERIFY(r.reply(rest, bytesAt(rest.offset, rest.length)));
    QVERIFY(r.answers.isEmpty());
    QVERIFY(r.reply(fresh, bytesAt(0, chunk)));
    QCOMPARE(r.answers, (QList<std::pair<int, QByteArray>>{{0, bytesAt(200000, 4096)}}));
}

// No answer at all, or one byte every 50 ms: the read fails with EIO once the stall time
// has passed since it was asked for, and its query is abandoned, so that the window is
// free for the next read.
void TestRemoteFiles::stalledRead_data()
{
    QTest::addColumn<bool>("dribbling");
    QTest::newRow("no answer") << false;
    QTest::newRow("a byte at a time") << true;
}

void TestRemoteFiles::stalledRead()
{
    QFETCH(bool, dribbling);
    Reads r(1);
    r.reads.setStallTimeout(300);
    QElapsedTimer clock;
    clock.start();
    r.read({1, 0, chunk, "slow"}, 0, 4096);
    for (int replies = 0; dribbling && r.answers.isEmpty(); ++replies) {
        QVERIFY2(replies < 100, "the read still waits after 100 replies");
        QVERIFY(r.reply(r.sent.last(), "x")); // the rest is asked for at once
        (void)QTest::qWaitFor([&] { return !r.answers.isEmpty(); }, 50);
    }
    QTRY_COMPARE_WITH_TIMEOUT(r.answers.size(), 1, 3000);
    QVERIFY(r.answers.first().first == EIO && clock.elapsed() >= 300);
    QCOMPARE(r.reads.outstanding(), 0u);
    const qsizetype before = r.sent.size();
    r.read({2, 1, chunk, "next"}, 0, 10);
    QCOMPARE(r.sent.size(), before + 1);
    QVERIFY(r.reply(r.sent.at(before - 1), "late")); // the abandoned one's late reply: dropped
    QCOMPARE(r.answers.size(), 1);
}

// A list of a million entries, the most one may hold: laid out in slices, the loop never
// held for long, its memory a few hundred bytes an entry; names a paste refuses left out.
void TestRemoteFiles::hostileList()
{
    EngineHarness h(1);
    RemoteFiles &files = h.engine->remoteFiles();
    files.setMountPath("/nowhere");
    QSignalSpy ready(&files, &RemoteFiles::copyReady);
    Descriptors list{descriptor("..\\evil", 4), descriptor("C:\\evil", 4), descriptor("ok\\a", 1), descriptor("ok\\a\\b", 1),
                     descriptor(QString("deep\\").repeated(2000) + "x", 1)}; // 12,001 bytes, past what a path may hold
    QByteArray frame;
    {
        FileSDK::MacCliprdrFormatDataResponse response;
        for (const auto &d : list)
            *response.add_filedes() = d;
        for (int i = 0; i < 999995; ++i)
            *response.add_filedes() = descriptor(QStringLiteral("many\\f%1").arg(i), 1);
        frame = kx::encodeFrame(response, FrameType::formatDataResponse);
    }
    h.remoteCopy();
    QVERIFY(h.next<FileSDK::CliprdrFormatDataRequest>(FrameType::formatDataRequest));
    const qint64 before = kx::residentKiB();
    kx::resetPeakResident();
    QElapsedTimer clock;
    clock.start();
    TurnWatch turns;
    h.send(std::exchange(frame, {}));
    QTRY_COMPARE_WITH_TIMEOUT(ready.size(), 1, 240000); // minutes under the sanitizers on a busy machine
    const qint64 added = (kx::peakResidentKiB() - before) / 1024;
    qInfo("a million entries: %lld ms, %lld MiB, longest turn %lld ms", clock.elapsed(), added, turns.longestNow());
    QCOMPARE(h.pasteboard.offered, (QList<QUrl>{QUrl::fromLocalFile("/nowhere/1/ok"), QUrl::fromLocalFile("/nowhere/1/many")}));
    std::vector<RemoteFiles::Entry> top;
    QCOMPARE(files.list(RemoteFiles::rootInode, top), 0);
    QCOMPARE(top.size(), 1u);
    std::vector<RemoteFiles::Entry> ok, many;
    QCOMPARE(files.list(files.lookup(top[0].attributes.inode, "ok")->inode, ok), 0);
    QVERIFY(ok.size() == 1 && ok[0].name == "a" && !ok[0].attributes.folder); // "ok\a\b" cannot be beneath a file
    QCOMPARE(files.list(files.lookup(top[0].attributes.inode, "many")->inode, many), 0);
    QCOMPARE(many.size(), 999995u);
#if !defined(__SANITIZE_ADDRESS__) // the sanitizer's quarantine keeps freed memory resident, and it is slower
    QVERIFY2(turns.longest < TurnWatch::limitMs, qPrintable(QString::number(turns.longest)));
    QVERIFY2(added < 500, qPrintable(QString("%1 MiB").arg(added)));
#endif
}

// Copies that come one after another: a few older ones are kept at the most, one never
// looked at goes within moments, one with an open file stays until a while after it closes.
void TestRemoteFiles::lingeringCopies()
{
    EngineHarness h(1);
    RemoteFiles &files = h.engine->remoteFiles();
    files.setMountPath("/nowhere");
    files.setLinger(1200); // a tenth of that for copies never looked at
    QSignalSpy ready(&files, &RemoteFiles::copyReady);
    std::uint64_t handle = 0;
    for (int i = 1; i <= 8; ++i) {
        FileSDK::MacCliprdrFormatDataResponse response;
        *response.add_filedes() = descriptor("f.txt", 3);
        DescriptorList list;
        QVERIFY(DescriptorList::scan(QByteArray::fromStdString(response.SerializeAsString()), list) == DescriptorList::Scan::ok);
        files.addCopy(std::move(list));
        QTRY_COMPARE(ready.size(), i);
        QVERIFY(files.copies() <= 1 + RemoteFiles::maxLingering);
        if (i == 2)
            QCOMPARE(files.open(files.lookup(files.lookup(RemoteFiles::rootInode, "2")->inode, "f.txt")->inode, handle), 0);
    }
    QTRY_COMPARE_WITH_TIMEOUT(files.copies(), 2u, 3000); // the open one and the current one
    QVERIFY(files.lookup(RemoteFiles::rootInode, "2") && files.lookup(RemoteFiles::rootInode, "8"));
    files.release(handle);
    QVERIFY(!QTest::qWaitFor([&] { return files.copies() < 2; }, 500));
    QTRY_COMPARE_WITH_TIMEOUT(files.copies(), 1u, 4000);
}

// The remote side never sends the list the file system asked for: once the time-out has
// passed, a paste's list is the paste's, not taken for the one that never came.
void TestRemoteFiles::listNeverSent()
{
    EngineHarness h(1);
    h.engine->remoteFiles().setMountPath("/nowhere");
    h.engine->setReplyTimeout(100);
    LogCapture log;
    h.remoteCopy();
    QVERIFY(h.next<FileSDK::CliprdrFormatDataRequest>(FrameType::formatDataRequest));
    QTRY_VERIFY(log.contains("the remote side has not sent the file list asked for in 0.1 seconds; it is not waited for"));
    h.paste(); // the paste to a folder, of the same copy
    QVERIFY(h.next<FileSDK::CliprdrFormatDataRequest>(FrameType::formatDataRequest));
    h.offer({descriptor("a.txt", 2)});
    QVERIFY(h.serve({{0, "ok"}}));
    QVERIFY(h.lastEnd(true, PastedError::noError) && h.chooser->runs == 1 && h.pasteboard.offered.isEmpty());
    QCOMPARE(readFile(h.dest + "/a.txt"), QByteArray("ok"));
}

bool TestRemoteFiles::canMount()
{
    const int fd = ::open("/dev/fuse", O_RDWR | O_CLOEXEC);
    if (fd < 0)
        return false;
    ::close(fd);
    return true;
}

namespace {

// The engine over a real socket, its copies mounted, the remote side played by the test.
struct Mounted
{
    EngineHarness h{8, EngineHarness::Link::ws};
    FuseMount mount;
    QHash<int, std::function<QByteArray(std::uint64_t, std::uint32_t)>> files; // by list index
    QList<Query> held; // queries that came while something else was awaited
    bool longReplies = false;

    bool start()
    {
        QString why;
        return h.nextFrame(15000) == QByteArray(1, 0) && mount.serve(h.engine->remoteFiles(), why);
    }
    // A remote copy of these; true once the clipboard offers it. With answerFirst, the
    // queries that came meanwhile are answered before the list, as a remote side answers
    // from its newer copy before the engine has the list of it.
    bool copy(const Descriptors &list, bool answerFirst = false)
    {
        const QList<QUrl> before = h.pasteboard.offered;
        h.remoteCopy();
        for (;;) {
            const auto frame = h.nextFrame();
            if (!frame || frame->isEmpty())
                return false;
            if (std::uint8_t(frame->back()) == std::uint8_t(FrameType::formatDataRequest))
                break;
            if (const auto q = kx::parseMessage<Query>(frame->first(frame->size() - 1)))
                held.append(*q);
        }
        for (const Query &q : answerFirst ? std::exchange(held, {}) : QList<Query>())
            answer(q);
        h.offer(list);
        return QTest::qWaitFor([&] { return h.pasteboard.offered != before; }, 10000);
    }
    void answer(const Query &q)
    {
        const auto file = files.value(int(q.listindex()));
        const std::uint32_t asked = q.cbrequested() * (longReplies ? 2 : 1);
        h.reply(q.streamid(), file ? file(kx::queryOffset(q), asked) : QByteArray());
    }
    // Answers queries until the process ends; false if it does not within the time.
    bool serveUntilDone(QProcess &process, int timeoutMs = 30000)
    {
        for (const Query &q : std::exchange(held, {}))
            answer(q);
        return QTest::qWaitFor([&] {
            while (auto q = h.nextQuery(0))
                answer(*q);
            return process.state() == QProcess::NotRunning;
        }, timeoutMs);
    }
};

QByteArray run(Mounted &m, const QString &command, int *exitCode = nullptr, int timeoutMs = 30000)
{
    QProcess shell;
    shell.start("sh", {"-c", command});
    if (!shell.waitForStarted() || !m.serveUntilDone(shell, timeoutMs)) {
        shell.kill();
        shell.waitForFinished();
        qWarning("did not end: %s", qPrintable(command));
        if (exitCode)
            *exitCode = -1;
        return {};
    }
    if (exitCode)
        *exitCode = shell.exitCode();
    return shell.readAllStandardOutput();
}

} // namespace

// A tree with nested and empty folders, an empty file, names beyond ASCII and a file over
// 4 GiB, copied out by other processes as a file manager copies: the same bytes, the
// times of the descriptors, and only the big file's ends read.
void TestRemoteFiles::mountedCopy()
{
    if (!canMount())
        QSKIP("/dev/fuse cannot be opened here: the mounted file system is not tested");
    Mounted m;
    QVERIFY(m.start());
    const QByteArray deep = bytesAt(5, 3000001), unicode = "grüße\n";
    const std::uint64_t when = 133000000000000000ull; // 2022-06-17 11:46:40 UTC
    const std::uint64_t huge = (5ull << 30) + 7;
    m.files = {{2, [&](std::uint64_t o, std::uint32_t l) { return deep.mid(qsizetype(o), l); }},
               {5, [&](std::uint64_t o, std::uint32_t l) { return unicode.mid(qsizetype(o), l); }},
               {6, [&](std::uint64_t o, std::uint32_t l) { return bytesAt(o, std::min<std::uint64_t>(l, huge - o)); }}};
    QVERIFY(m.copy({descriptor("top", 0, 0x10, when), descriptor("top\\sub", 0, 0x10), descriptor("top\\sub\\deep.bin", deep.size(), 0x80, when),
                    descriptor("top\\empty", 0, 0x10), descriptor("top\\zero", 0), descriptor("名前 ünï.txt", unicode.size()),
                    descriptor("big.iso", huge)}));
    const QString copy = m.mount.path() + "/1";
    QCOMPARE(m.h.pasteboard.offered, (QList<QUrl>{QUrl::fromLocalFile(copy + "/top"), QUrl::fromLocalFile(copy + "/名前 ünï.txt"),
                                                  QUrl::fromLocalFile(copy + "/big.iso")}));
    QTemporaryDir dest;
    int status = 0;
    run(m, QString("cp -r --preserve=timestamps '%1/top' '%1/名前 ünï.txt' '%2/'").arg(copy, dest.path()), &status);
    QCOMPARE(status, 0);
    QCOMPARE(readFile(dest.filePath("top/sub/deep.bin")), deep);
    QCOMPARE(readFile(dest.filePath("名前 ünï.txt")), unicode);
    QVERIFY(QFileInfo(dest.filePath("top/empty")).isDir() && QFileInfo(dest.filePath("top/zero")).size() == 0);
    const qint64 unixWhen = qint64((when - 116444736000000000ull) / 10000000);
    QCOMPARE(QFileInfo(dest.filePath("top/sub/deep.bin")).lastModified().toSecsSinceEpoch(), unixWhen);
    QCOMPARE(QFileInfo(dest.filePath("top")).lastModified().toSecsSinceEpoch(), unixWhen);
    const QByteArray ends = run(m, QString("stat -c '%s %a' '%1/big.iso' && head -c 1048576 '%1/big.iso' | sha256sum && "
                                           "tail -c 1048576 '%1/big.iso' | sha256sum").arg(copy), &status);
    QCOMPARE(status, 0);
    const auto sum = [](const QByteArray &b) { return QCryptographicHash::hash(b, QCryptographicHash::Sha256).toHex(); };
    QCOMPARE(ends, QByteArray::number(huge) + " 644\n" + sum(bytesAt(0, 1 << 20)) + "  -\n" + sum(bytesAt(huge - (1 << 20), 1 << 20)) + "  -\n");
    QVERIFY(run(m, QString("touch '%1/top/new' 2>&1; ls '%1/top'").arg(copy)).contains("Read-only file system"));

    // The companion ends during a read: the reader gets an error first, then the mount goes.
    QProcess reader;
    reader.start("cat", {copy + "/big.iso"});
    QVERIFY(reader.waitForStarted() && QTest::qWaitFor([&] { return !m.h.agent->frames.isEmpty(); }, 5000));
    const QByteArray mounted = " " + QFile::encodeName(m.mount.path()) + " ";
    m.h.engine.reset();
    QVERIFY(QTest::qWaitFor([&] { return reader.state() == QProcess::NotRunning; }, 5000));
    QVERIFY(reader.exitCode() != 0 && reader.readAllStandardError().contains("Input/output error"));
    QFile table("/proc/self/mountinfo");
    QVERIFY(table.open(QIODevice::ReadOnly) && !table.readAll().contains(mounted) && m.mount.path().isEmpty());
}

// The connection lost during a read: the reader gets an error within seconds, not a hang.
// A newer copy during reads, its queries answered from it before its list came: the file
// it holds the same is read whole, the one it changed (same name and size, another time
// and other bytes) fails with no byte of the newer one in it, and both copies are there.
void TestRemoteFiles::dropAndNewerCopy()
{
    if (!canMount())
        QSKIP("/dev/fuse cannot be opened here: the mounted file system is not tested");
    Mounted m;
    QVERIFY(m.start());
    const QByteArray data = bytesAt(0, 6 << 20), old = bytesAt(7, 6 << 20), newer = bytesAt(9, 6 << 20);
    const QByteArray *changing = &old;
    m.files = {{0, [&](std::uint64_t o, std::uint32_t l) { return data.mid(qsizetype(o), l); }},
               {1, [&](std::uint64_t o, std::uint32_t l) { return changing->mid(qsizetype(o), l); }}};
    QVERIFY(m.copy({descriptor("a.bin", data.size(), 0x80, 1), descriptor("c.bin", old.size(), 0x80, 1)}));
    const QString first = m.mount.path() + "/1/a.bin";
    QTemporaryDir out;
    QProcess reader;
    reader.start("sh", {"-c", QString("cat '%1' | sha256sum; cat '%2/1/c.bin' > '%3/c'").arg(first, m.mount.path(), out.path())});
    QVERIFY(reader.waitForStarted());
    QVERIFY(QTest::qWaitFor([&] { return !m.h.agent->frames.isEmpty(); }, 5000)); // its first queries, not answered yet
    changing = &newer;
    QVERIFY(m.copy({descriptor("a.bin", data.size(), 0x80, 1), descriptor("c.bin", newer.size(), 0x80, 2)}, true));
    QVERIFY(m.serveUntilDone(reader));
    const auto sum = [](const QByteArray &b) { return QCryptographicHash::hash(b, QCryptographicHash::Sha256).toHex() + "  -\n"; };
    QCOMPARE(reader.readAllStandardOutput(), sum(data));
    QVERIFY(reader.exitCode() != 0 && reader.readAllStandardError().contains("Input/output error"));
    QVERIFY(old.startsWith(readFile(out.filePath("c"))));
    QCOMPARE(run(m, QString("cat '%1/2/c.bin' | sha256sum").arg(m.mount.path())), sum(newer));
    QCOMPARE(run(m, QString("ls '%1'").arg(m.mount.path())), QByteArray("1\n2\n"));

    m.longReplies = true; // held to its query: the read fails
    int status = 0;
    run(m, QString("cat '%1/2/b.bin' > /dev/null").arg(m.mount.path()), &status);
    QVERIFY(status != 0);
    m.longReplies = false;

    QProcess dropped;
    dropped.start("sh", {"-c", QString("cat '%1' > /dev/null").arg(first)});
    QVERIFY(dropped.waitForStarted() && QTest::qWaitFor([&] { return !m.h.agent->frames.isEmpty(); }, 5000));
    m.h.agent->closeClient();
    QElapsedTimer clock;
    clock.start();
    QVERIFY(QTest::qWaitFor([&] { return dropped.state() == QProcess::NotRunning; }, 5000));
    QVERIFY(dropped.exitCode() != 0);
    qInfo("the reader ended %lld ms after the connection was lost", clock.elapsed());
    QTRY_COMPARE(m.h.pasteboard.withdrawals, 1);
    QCOMPARE(run(m, QString("ls '%1'").arg(m.mount.path())), QByteArray());
}

// Our own files reached by other paths: a link, "/./", a bind mount inside a copied folder.
// They are left out of a local copy, the event loop never waits on them (another process's
// stat of the mount is answered meanwhile), and a paste into them is refused.
void TestRemoteFiles::ownFilesReachedOtherwise()
{
    if (!canMount())
        QSKIP("/dev/fuse cannot be opened here: the mounted file system is not tested");
    Mounted m;
    QVERIFY(m.start());
    QVERIFY(m.copy({descriptor("a.txt", 3)}));
    const QString mount = m.mount.path(), dotted = QFileInfo(mount).path() + "/./" + QFileInfo(mount).fileName() + "/1";
    QTemporaryDir local;
    QVERIFY(QFile::link(mount + "/1/a.txt", local.filePath("link")) && writeFile(local.filePath("mine.txt"), "mine"));
    QVERIFY(QDir().mkdir(local.filePath("bound")));
    const QByteArray bound = QFile::encodeName(local.filePath("bound"));
    if (::mount(QFile::encodeName(mount).constData(), bound.constData(), nullptr, MS_BIND, nullptr) != 0)
        qInfo("no bind mount without root: that path is not tried");
    const auto unbind = qScopeGuard([&] { ::umount2(bound.constData(), MNT_DETACH); });
    m.h.engine->copiedFiles({QUrl::fromLocalFile(local.filePath("link")), QUrl::fromLocalFile(dotted + "/a.txt"),
                             QUrl::fromLocalFile(local.path())});
    QVERIFY(m.h.next<FileSDK::CliprdrFormatList>(FrameType::formatList));
    QProcess looker;
    looker.start("stat", {mount + "/1/a.txt"});
    m.h.send(hex("0a 00 10 c2 81 03 03")); // the remote side asks for the list: the copy is walked
    const auto list = m.h.next<FileSDK::MacCliprdrFormatDataResponse>(FrameType::formatDataResponse, 15000);
    QTRY_VERIFY(looker.state() == QProcess::NotRunning);
    QVERIFY(list && looker.exitCode() == 0);
    QStringList names;
    for (const auto &d : list->filedes())
        names.append(QString::fromStdString(d.cfilename()).section("//", 1));
    QCOMPARE(names, (QStringList{"", "mine.txt"}));

    m.h.chooser->answer = FolderChoice{true, QUrl::fromLocalFile(dotted)};
    m.h.paste();
    QVERIFY(m.h.next<FileSDK::CliprdrFormatDataRequest>(FrameType::formatDataRequest));
    m.h.offer({descriptor("b.txt", 3)});
    QTRY_VERIFY(m.h.lastEnd(false, PastedError::saveError));
    QVERIFY(m.h.engine->lastPasteReport().why == PasteReport::Why::insideRemoteFiles && !m.h.nextQuery(0));
}

// Companions of one user, one per remote desktop: each mounts a folder of its own and
// serves its own copies there; one that ends leaves the others' mounts as they are. At a
// start, a mount whose lock nobody holds (its companion crashed) is cleared; a held one never.
void TestRemoteFiles::companionsApart()
{
    if (!canMount())
        QSKIP("/dev/fuse cannot be opened here: the mounted file system is not tested");
    const QString slot = runtime.filePath("kx-clipboard/files-");
    const auto mounted = [](const QString &path) {
        QFile table("/proc/self/mountinfo");
        return table.open(QIODevice::ReadOnly) && table.readAll().contains(" " + QFile::encodeName(path) + " ");
    };
    std::vector<std::unique_ptr<Mounted>> m;
    const QStringList names{"one", "two", "three"};
    const auto lists = [&](int i) { return run(*m[i], QString("ls '%1'/*").arg(m[i]->mount.path())) == names[i] + ".txt\n"; };
    for (const QString &name : names) {
        m.push_back(std::make_unique<Mounted>());
        QVERIFY(m.back()->start() && m.back()->copy({descriptor(name + ".txt", 1)}));
    }
    for (int i = 0; i < 3; ++i)
        QVERIFY(m[i]->mount.path() == slot + QString::number(i + 1) && lists(i));
    m[1].reset();
    QVERIFY(lists(0) && lists(2) && !mounted(slot + "2"));
    // The third crashes as far as the others can tell: its lock goes, its mount stays.
    const int devNull = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
    for (const QFileInfo &fd : QDir("/proc/self/fd").entryInfoList(QDir::Files | QDir::System))
        if (fd.symLinkTarget() == slot + "3.lock")
            ::dup2(devNull, fd.fileName().toInt());
    ::close(devNull);
    m.push_back(std::make_unique<Mounted>());
    QVERIFY(m.back()->start());
    QCOMPARE(m.back()->mount.path(), slot + "2");
    QTRY_VERIFY(!mounted(slot + "3"));
    QVERIFY(lists(0));
}

QTEST_GUILESS_MAIN(TestRemoteFiles)
#include "tst_remotefiles.moc"
