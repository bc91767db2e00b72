// Times whole transfers of the real engine and socket manager against the agent
// simulator over loopback, each next to its reference measured in the same run, and
// prints one table. Sizes can be scaled down with KX_BENCH_SCALE (e.g. 0.1).
#include "AgentProcess.h"
#include "ClipBoardManager.h"
#include "FrameAllocator.h"
#include "KXFileManager.h"
#include "PasteboardAccess.h"
#include "ProcessMemory.h"
#include "linux/FuseMount.h"
#include "LogOutput.h"

#include <QCoreApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QRandomGenerator>
#include <QTemporaryDir>

#include <algorithm>
#include <cstdio>
#include <functional>
#include <optional>

#include <unistd.h>

static NoPasteboard noPasteboard;

namespace {

class FixedChooser : public FolderChooser
{
public:
    QString folder;
    FolderChoice runModal(const FolderRequest &) override { return {true, QUrl::fromLocalFile(folder)}; }
};

// The table goes here; standard output itself takes the engine's log lines.
FILE *table = stdout;

void writeRandom(const QString &path, qint64 size)
{
    QFileInfo(path).dir().mkpath(QStringLiteral("."));
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly))
        qFatal("cannot write %s", qPrintable(path));
    QByteArray block(1 << 20, Qt::Uninitialized);
    QRandomGenerator::global()->fillRange(reinterpret_cast<quint32 *>(block.data()), block.size() / 4);
    for (qint64 done = 0; done < size; done += block.size())
        file.write(block.constData(), std::min<qint64>(block.size(), size - done));
}

void makeManyFiles(const QString &folder, int count)
{
    QDir().mkpath(folder);
    for (int i = 0; i < count; ++i)
        writeRandom(QStringLiteral("%1/f%2.txt").arg(folder).arg(i), 4096);
}

// Peak resident memory of this process since the last reset, in MiB.
double peakResidentMiB()
{
    return double(kx::peakResidentKiB()) / 1024.0;
}

struct Row
{
    QString what;
    QString figure;
    QString reference;
};
QList<Row> rows;

void row(const QString &what, const QString &figure, const QString &reference = QString())
{
    rows.append({what, figure, reference});
    std::fprintf(table, "%-46s %-24s %s\n", qPrintable(what), qPrintable(figure), qPrintable(reference));
    std::fflush(table);
}

QString mbps(qint64 bytes, qint64 ms)
{
    return QString::number(double(bytes) / 1048576.0 / (double(std::max<qint64>(ms, 1)) / 1000.0), 'f', 1) + " MiB/s";
}

FixedChooser *chooser = nullptr;

// One paste of everything in the offered folder, with this many queries outstanding;
// milliseconds from Ctrl+V to the end.
qint64 paste(const QString &offer, const QString &dest, int rttMs = 0, int window = 1)
{
    AgentProcess agent({"--offer", offer, "--rtt-ms", QString::number(rttMs)});
    QDir().mkpath(dest);
    chooser->folder = dest;
    ClipBoardManager engine(QStringLiteral("ws://127.0.0.1"), agent.port(), QStringLiteral("bench"), QStringLiteral("1"),
                            EngineContext::shared(noPasteboard), window);
    if (!runUntil([&] { return engine.hasFormList(); }, 20000))
        qFatal("no offer arrived");
    std::optional<PastedError> result;
    QElapsedTimer timer;
    timer.start();
    engine.startPaste([](double) {}, [&](bool, PastedError error) { result = error; });
    if (!runUntil([&] { return result.has_value(); }, 1800000) || *result != PastedError::noError)
        qFatal("the paste did not finish: %s", qPrintable(result ? pastedErrorName(*result) : QStringLiteral("time-out")));
    return timer.elapsed();
}

// One local copy fetched by the agent; milliseconds from the copy to the last byte.
qint64 serve(const QList<QUrl> &urls, const QString &inbox)
{
    AgentProcess agent({"--inbox", inbox});
    ClipBoardManager engine(QStringLiteral("ws://127.0.0.1"), agent.port(), QStringLiteral("bench"), QStringLiteral("1"),
                            EngineContext::shared(noPasteboard));
    if (!agent.waitFor(QStringLiteral("client type frame received"), 1, 20000))
        qFatal("the companion did not connect");
    QElapsedTimer timer;
    timer.start();
    engine.copiedFiles(urls);
    if (!agent.waitFor(QStringLiteral("received "), 1, 1800000))
        qFatal("the agent did not fetch the copy");
    return timer.elapsed();
}

// Milliseconds for sync to put every dirty page on the disk.
qint64 syncDisk()
{
    QElapsedTimer timer;
    timer.start();
    QProcess::execute(QStringLiteral("sync"), {});
    return timer.elapsed();
}

qint64 copyWithCp(const QString &from, const QString &to)
{
    syncDisk();
    QElapsedTimer timer;
    timer.start();
    QProcess::execute(QStringLiteral("cp"), {from, to});
    return timer.elapsed() + syncDisk();
}

using PathOf = std::function<QString(const QString &)>;

qint64 median(QList<qint64> v)
{
    std::sort(v.begin(), v.end());
    return v.at(v.size() / 2);
}

// One big file each way, next to cp of the same file on the same disk. Each timing runs
// from a clean page cache state to the bytes being on the disk (sync included), so a
// transfer and cp are compared on the same terms; the source file is read warm by all.
// The virtual disk's write-back speed swings from one minute to the next, so each
// figure is the median of three rounds, each round cp and the transfers back to back.
void bigFile(const PathOf &path, qint64 bigSize)
{
    writeRandom(path("offer-big/big.bin"), bigSize);
    struct Way
    {
        QString name;
        std::function<qint64()> transfer;
        QList<qint64> ms;
        double peak = 0;
    };
    QList<Way> ways{{QStringLiteral("paste"), [&] { return paste(path("offer-big"), path("dest")); }, {}},
                    {QStringLiteral("paste, window 4"), [&] { return paste(path("offer-big"), path("dest"), 0, 4); }, {}},
                    {QStringLiteral("copy (served)"),
                     [&] { return serve({QUrl::fromLocalFile(path("offer-big/big.bin"))}, path("inbox")); }, {}}};
    QList<qint64> cpMs;
    for (int round = 0; round < 3; ++round) {
        cpMs.append(copyWithCp(path("offer-big/big.bin"), path("cp-copy.bin")));
        QFile::remove(path("cp-copy.bin"));
        for (Way &way : ways) {
            syncDisk();
            kx::resetPeakResident();
            way.ms.append(way.transfer() + syncDisk());
            way.peak = std::max(way.peak, peakResidentMiB());
            QDir(path("dest")).removeRecursively();
            QDir(path("inbox")).removeRecursively();
        }
    }
    const qint64 cp = median(cpMs), oneAtATime = median(ways.first().ms);
    for (const Way &way : ways) {
        const qint64 own = median(way.ms);
        QString reference = QStringLiteral("cp: %1, ratio %2").arg(mbps(bigSize, cp)).arg(double(cp) / double(own), 0, 'f', 2);
        if (way.name.contains(QLatin1String("window")))
            reference += QStringLiteral("; %1 times window 1").arg(double(oneAtATime) / double(own), 0, 'f', 2);
        row(QStringLiteral("%1 of one %2 MiB file").arg(way.name).arg(bigSize >> 20), mbps(bigSize, own), reference);
        row(QStringLiteral("  peak resident memory"), QStringLiteral("%1 MiB").arg(way.peak, 0, 'f', 1));
    }
    QDir(path("offer-big")).removeRecursively();
}

// Many small files: growth from N to 2N files should be linear; the window lets the
// next files' queries go out while earlier ones are answered.
void manyFiles(const PathOf &path, int few)
{
    const int many = 2 * few;
    makeManyFiles(path("offer-few/tree"), few);
    makeManyFiles(path("offer-many/tree"), many);
    const auto rate = [](int files, qint64 ms) { return QStringLiteral("%1 files/s").arg(files * 1000 / std::max<qint64>(ms, 1)); };
    // What this file system allows at all: cp of the same tree, timed the same way.
    syncDisk();
    QElapsedTimer clock;
    clock.start();
    QProcess::execute(QStringLiteral("cp"), {QStringLiteral("-r"), path("offer-many/tree"), path("cp-many")});
    const qint64 cpMany = clock.elapsed() + syncDisk();
    row(QStringLiteral("cp -r of %1 files of 4 KiB").arg(many), rate(many, cpMany), QStringLiteral("the file system's own rate"));
    for (int window : {1, 8}) {
        // Each timing starts with nothing left to write back, so no run pays for another's files.
        const QString suffix = window > 1 ? QStringLiteral(", window %1").arg(window) : QString();
        // Each into a folder of its own: files deleted just before slow down the making of
        // new ones on ext4, which would be measured instead of the transfer.
        const QString w = QString::number(window);
        syncDisk();
        const qint64 pasteFew = paste(path("offer-few"), path("dest-few-" + w), 0, window);
        syncDisk();
        kx::resetPeakResident();
        const qint64 pasteMany = paste(path("offer-many"), path("dest-many-" + w), 0, window);
        const double pastePeak = peakResidentMiB();
        row(QStringLiteral("paste of %1 files of 4 KiB%2").arg(few).arg(suffix), rate(few, pasteFew));
        row(QStringLiteral("paste of %1 files of 4 KiB%2").arg(many).arg(suffix), rate(many, pasteMany),
            QStringLiteral("time ratio to %1 files: %2").arg(few).arg(double(pasteMany) / double(pasteFew), 0, 'f', 2));
        row(QStringLiteral("  peak resident memory"), QStringLiteral("%1 MiB").arg(pastePeak, 0, 'f', 1));
    }
    syncDisk();
    const qint64 serveFew = serve({QUrl::fromLocalFile(path("offer-few/tree"))}, path("inbox-few"));
    syncDisk();
    kx::resetPeakResident();
    const qint64 serveMany = serve({QUrl::fromLocalFile(path("offer-many/tree"))}, path("inbox-many"));
    const double servePeak = peakResidentMiB();
    row(QStringLiteral("copy (served) of %1 files of 4 KiB").arg(few), rate(few, serveFew));
    row(QStringLiteral("copy (served) of %1 files of 4 KiB").arg(many), rate(many, serveMany),
        QStringLiteral("time ratio to %1 files: %2").arg(few).arg(double(serveMany) / double(serveFew), 0, 'f', 2));
    row(QStringLiteral("  peak resident memory"), QStringLiteral("%1 MiB").arg(servePeak, 0, 'f', 1));
}

// A far remote desktop: one range per round trip bounds the rate of the one-at-a-time
// exchange; a window of N ranges per round trip lifts the bound N times.
void farDesktop(const PathOf &path, qint64 size)
{
    writeRandom(path("offer-rtt/far.bin"), size);
    for (int window : {1, 8, 16}) {
        kx::resetPeakResident();
        const qint64 ms = paste(path("offer-rtt"), path("dest-rtt"), 20, window);
        QDir(path("dest-rtt")).removeRecursively();
        const double bound = window * 262144.0 / 1048576.0 / 0.020;
        row(QStringLiteral("paste of %1 MiB, 20 ms round trip, window %2").arg(size >> 20).arg(window), mbps(size, ms),
            QStringLiteral("bound of %1 ranges per round trip: %2 MiB/s; peak %3 MiB")
                .arg(window).arg(bound, 0, 'f', 1).arg(peakResidentMiB(), 0, 'f', 1));
    }
}

// One remote file copied by cp out of the companion's mount (the file manager's way),
// from the copy being offered to cp's end; nothing if there is no mount here.
std::optional<qint64> cpFromMount(const QString &offer, const QString &dest, int rttMs, int window)
{
    AgentProcess agent({"--offer", offer, "--rtt-ms", QString::number(rttMs)});
    ClipBoardManager engine(QStringLiteral("ws://127.0.0.1"), agent.port(), QStringLiteral("bench"), QStringLiteral("1"),
                            EngineContext::shared(noPasteboard), window);
    FuseMount mount;
    QString whyNot;
    if (!mount.serve(engine.remoteFiles(), whyNot)) {
        row(QStringLiteral("cp out of the mount"), QStringLiteral("not measured"), whyNot);
        return std::nullopt;
    }
    bool ready = false;
    QObject::connect(&engine.remoteFiles(), &RemoteFiles::copyReady, [&] { ready = true; });
    if (!runUntil([&] { return ready; }, 20000))
        qFatal("the remote copy was not laid out");
    QDir().mkpath(dest);
    QProcess cp;
    QElapsedTimer timer;
    timer.start();
    cp.start(QStringLiteral("cp"), {mount.path() + QStringLiteral("/1/") + QDir(offer).entryList(QDir::Files).value(0), dest});
    if (!runUntil([&] { return cp.state() == QProcess::NotRunning; }, 1800000) || cp.exitCode() != 0)
        qFatal("cp out of the mount failed: %s", cp.readAllStandardError().constData());
    return timer.elapsed();
}

// The file manager's way against the described paste of the same file, in the same run,
// at the same window.
void mountedFile(const PathOf &path, qint64 size)
{
    writeRandom(path("offer-mount/one.bin"), size);
    for (int rtt : {0, 20}) {
        for (int window : {1, 8}) {
            const qint64 pasted = paste(path("offer-mount"), path("dest-mount"), rtt, window);
            QDir(path("dest-mount")).removeRecursively();
            const std::optional<qint64> copied = cpFromMount(path("offer-mount"), path("dest-mount"), rtt, window);
            if (!copied)
                return;
            if (QFileInfo(path("dest-mount/one.bin")).size() != size)
                qFatal("cp out of the mount gave a file of the wrong size");
            QDir(path("dest-mount")).removeRecursively();
            row(QStringLiteral("cp of %1 MiB from the mount, %2 ms, window %3").arg(size >> 20).arg(rtt).arg(window),
                mbps(size, *copied),
                QStringLiteral("paste %1; %2 of it").arg(mbps(size, pasted)).arg(double(pasted) / double(*copied), 0, 'f', 2));
        }
    }
}

// Paste throughput against the round trip for several windows, as rows and, when
// KX_BENCH_CURVE names a file, as a table for scripts/plot-window to draw.
void curve(const PathOf &path, qint64 size)
{
    // Two offers written once: shrinking and regrowing one file would leave a hole of
    // zeros that reads faster than data.
    writeRandom(path("offer-curve/c.bin"), size);
    writeRandom(path("offer-curve-quarter/c.bin"), size / 4);
    QFile data(qEnvironmentVariable("KX_BENCH_CURVE"));
    const bool keep = !data.fileName().isEmpty() && data.open(QIODevice::WriteOnly | QIODevice::Text);
    if (keep)
        data.write("# round trip (ms), then MiB/s for windows 1 4 8 16\n");
    for (int rtt : {0, 5, 20, 50}) {
        QStringList line{QString::number(rtt)};
        for (int window : {1, 4, 8, 16}) {
            // Slow combinations move less, so that each takes a few seconds at most.
            const bool quarter = rtt && window < 4;
            const qint64 bytes = quarter ? size / 4 : size;
            const qint64 ms = paste(path(quarter ? "offer-curve-quarter" : "offer-curve"), path("dest-curve"), rtt, window);
            QDir(path("dest-curve")).removeRecursively();
            line.append(QString::number(double(bytes) / 1048576.0 / (double(std::max<qint64>(ms, 1)) / 1000.0), 'f', 1));
            row(QStringLiteral("paste, %1 ms round trip, window %2").arg(rtt).arg(window), mbps(bytes, ms));
        }
        if (keep)
            data.write(line.join(QLatin1Char(' ')).toUtf8() + '\n');
    }
}

// Every failure ends in qFatal, which aborts past all destructors: the scratch folder,
// up to a GiB, is removed here first, or each failed run would leave it behind.
QtMessageHandler logHandler = nullptr;
QString scratch;

void removeScratchOnFatal(QtMsgType type, const QMessageLogContext &context, const QString &message)
{
    if (type == QtFatalMsg && !scratch.isEmpty())
        QDir(scratch).removeRecursively();
    logHandler(type, context, message);
}

} // namespace

int main(int argc, char *argv[])
{
    kx::keepFrameBuffersMapped(); // as the companion itself does at start-up
    QCoreApplication app(argc, argv);
    // The engine's lines are formatted and written as in the companion, but into /dev/null
    // (KX_BENCH_LOG names a file instead): a terminal's speed is not ours to measure.
    table = fdopen(dup(STDOUT_FILENO), "w");
    if (!table || !std::freopen(qEnvironmentVariableIsSet("KX_BENCH_LOG") ? qgetenv("KX_BENCH_LOG").constData() : "/dev/null", "w", stdout))
        qFatal("cannot set the log output aside");
    kx::installStdoutLogHandler();
    logHandler = qInstallMessageHandler(removeScratchOnFatal);
    const double scale = qEnvironmentVariableIsSet("KX_BENCH_SCALE") ? qEnvironmentVariable("KX_BENCH_SCALE").toDouble() : 1.0;
    // KX_BENCH_ONLY=big|files|rtt|curve|mount runs one group, e.g. under a profiler.
    const QString only = qEnvironmentVariable("KX_BENCH_ONLY");
    auto runs = [&](const char *group) { return only.isEmpty() || only == QLatin1String(group); };
    // The files go to the temporary folder; KX_BENCH_DIR puts them elsewhere, e.g. on a
    // tmpfs to see past the disk.
    QTemporaryDir dir((qEnvironmentVariableIsSet("KX_BENCH_DIR") ? qEnvironmentVariable("KX_BENCH_DIR") : QDir::tempPath())
                      + QStringLiteral("/kx-bench-XXXXXX"));
    if (!dir.isValid())
        qFatal("cannot make a scratch folder: %s", qPrintable(dir.errorString()));
    scratch = dir.path();
    const PathOf path = [&](const QString &name) { return dir.filePath(name); };
    auto *owned = new FixedChooser;
    chooser = owned;
    KXFileManager::shared()->setFolderChooser(std::unique_ptr<FolderChooser>(owned));

    std::fprintf(table, "%-46s %-24s %s\n", "measure", "figure", "reference (same run)");
    if (runs("big"))
        bigFile(path, qint64(1024.0 * 1024 * 1024 * scale));
    if (runs("files"))
        manyFiles(path, int(10000 * scale));
    if (runs("rtt"))
        farDesktop(path, qint64(256.0 * 1024 * 1024 * std::min(1.0, scale * 4)));
    if (runs("mount"))
        mountedFile(path, qint64(1024.0 * 1024 * 1024 * scale));
    if (runs("curve"))
        curve(path, qint64(256.0 * 1024 * 1024 * std::min(1.0, scale * 4)));
    return 0;
}
