// A long run of pastes and copies against the agent simulator, one engine for all of them,
// with faults mixed in at random: the connection dropped mid-transfer, the destination
// folder removed mid-paste, a served file deleted mid-copy. Every transfer without a fault
// must arrive byte for byte, every faulted one must end the way its fault says, and the
// resident memory after the last transfer must stay within 10% of that after the first 50.
// Usage: kx-soak [TRANSFERS, default 1000] [SEED]
#include "AgentProcess.h"
#include "ClipBoardManager.h"
#include "FrameAllocator.h"
#include "KXFileManager.h"
#include "PasteboardAccess.h"
#include "ProcessMemory.h"
#include "LogOutput.h"

#include <QCoreApplication>
#include <QCryptographicHash>
#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QRandomGenerator>
#include <QTemporaryDir>

#include <cstdio>
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

void writeRandom(QRandomGenerator &random, const QString &path, qint64 size)
{
    QDir().mkpath(QFileInfo(path).path());
    QByteArray data(size, Qt::Uninitialized);
    random.fillRange(reinterpret_cast<quint32 *>(data.data()), data.size() / 4);
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly) || file.write(data) != size)
        qFatal("cannot write %s", qPrintable(path));
}

// A big file first, so a fault injected at the first progress lands mid-transfer, then a
// few small ones, an empty one and a nested folder.
void makeTree(QRandomGenerator &random, const QString &root)
{
    writeRandom(random, root + "/a-big.bin", 3 * 262144 + 4321);
    for (int i = 0; i < 6; ++i)
        writeRandom(random, QStringLiteral("%1/sub/f%2.dat").arg(root).arg(i), random.bounded(70000));
    writeRandom(random, root + "/sub/deeper/empty.txt", 0);
}

// Relative path to content hash, so two trees compare in one step.
QMap<QString, QByteArray> digest(const QString &root)
{
    QMap<QString, QByteArray> tree;
    QDirIterator it(root, QDir::Files | QDir::NoDotAndDotDot, QDirIterator::Subdirectories);
    while (it.hasNext()) {
        const QString path = it.next();
        QFile file(path);
        file.open(QIODevice::ReadOnly);
        tree.insert(QDir(root).relativeFilePath(path), QCryptographicHash::hash(file.readAll(), QCryptographicHash::Sha256));
    }
    return tree;
}

enum class Fault { none, drop, removeFolder, removeSource };

struct Tally
{
    int clean = 0;
    int faulted = 0;
    int faultTooLate = 0; // the transfer was done before the fault could bite
    int wrong = 0;
};

} // namespace

int main(int argc, char *argv[])
{
    kx::keepFrameBuffersMapped();
    QCoreApplication app(argc, argv);
    // The engine's lines are written as in the companion, but into /dev/null, so that the
    // summary stays readable; standard output keeps only the soak's own lines.
    FILE *out = fdopen(dup(STDOUT_FILENO), "w");
    if (!out || !std::freopen("/dev/null", "w", stdout))
        qFatal("cannot set the log output aside");
    std::setvbuf(out, nullptr, _IOLBF, 0);
    kx::installStdoutLogHandler();
    const int transfers = argc > 1 ? QString::fromLocal8Bit(argv[1]).toInt() : 1000;
    const quint32 seed = argc > 2 ? QString::fromLocal8Bit(argv[2]).toUInt() : QRandomGenerator::system()->generate();
    QRandomGenerator random(seed);
    std::fprintf(out, "soak: %d transfers, seed %u\n", transfers, seed);

    QTemporaryDir dir(QDir::currentPath() + QStringLiteral("/soak-XXXXXX"));
    const QString offer = dir.filePath("offer"), local = dir.filePath("local"), dest = dir.filePath("dest"),
                  inbox = dir.filePath("inbox");
    makeTree(random, offer);
    makeTree(random, local);
    const QMap<QString, QByteArray> offered = digest(offer), copied = digest(local);
    auto *chooser = new FixedChooser;
    chooser->folder = dest;
    KXFileManager::shared()->setFolderChooser(std::unique_ptr<FolderChooser>(chooser));

    AgentProcess agent({"--offer", offer, "--inbox", inbox});
    ClipBoardManager engine(QStringLiteral("ws://127.0.0.1"), agent.port(), QStringLiteral("soak"), QStringLiteral("1"), EngineContext::shared(noPasteboard));
    Tally paste, copy;
    qint64 residentAfter50 = 0;
    const QString connected = QStringLiteral("client type frame received");
    const QString received = QStringLiteral("received ");

    for (int n = 1; n <= transfers; ++n) {
        const int roll = int(random.bounded(100));
        if (n % 2 == 1) { // a paste
            const Fault fault = roll < 6 ? Fault::drop : roll < 12 ? Fault::removeFolder : Fault::none;
            // Each announcement puts the engine back to start; a failed save is not followed
            // by the agent's own re-announcement, so it is asked for one.
            const auto announced = [&] { return engine.hasFormList() && engine.pasteStatus() == ClipBoardManager::PasteStatus::start; };
            if (!runUntil(announced, 3000)) {
                agent.command("offer");
                if (!runUntil(announced, 20000))
                    qFatal("paste %d: no remote copy was announced", n);
            }
            QDir(dest).removeRecursively();
            QDir().mkpath(dest);
            const int connections = agent.count(connected);
            bool injected = false;
            std::optional<PastedError> result;
            engine.startPaste(
                [&](double progress) {
                    if (fault == Fault::none || injected || progress >= 1.0)
                        return;
                    injected = true;
                    if (fault == Fault::drop)
                        agent.command("drop");
                    else
                        QDir(dest).removeRecursively();
                },
                [&](bool, PastedError error) { result = error; });
            if (!runUntil([&] { return result.has_value(); }, 60000))
                qFatal("paste %d hung", n);
            const PastedError expected = fault == Fault::drop ? PastedError::websoketDisconnect : PastedError::saveError;
            if (fault == Fault::none) {
                ++(*result == PastedError::noError && digest(dest) == offered ? paste.clean : paste.wrong);
            } else if (*result == PastedError::noError) {
                ++(digest(dest) == offered ? paste.faultTooLate : paste.wrong);
            } else {
                ++(*result == expected ? paste.faulted : paste.wrong);
            }
            if (fault == Fault::drop && !agent.waitFor(connected, connections + 1, 20000))
                qFatal("paste %d: the companion did not reconnect", n);
            if (result != PastedError::noError && fault == Fault::removeFolder)
                agent.command("offer");
        } else { // a copy
            const Fault fault = roll < 6 ? Fault::drop : roll < 12 ? Fault::removeSource : Fault::none;
            QDir(inbox).removeRecursively();
            const int done = agent.count(received), connections = agent.count(connected);
            const int listed = agent.count(QStringLiteral("descriptor list:"));
            engine.copiedFiles({QUrl::fromLocalFile(local + "/a-big.bin"), QUrl::fromLocalFile(local + "/sub")});
            if (fault != Fault::none) {
                if (!agent.waitFor(QStringLiteral("descriptor list:"), listed + 1, 20000))
                    qFatal("copy %d: the agent never asked for the list", n);
                if (fault == Fault::drop)
                    agent.command("drop");
                else
                    QFile::rename(local + "/a-big.bin", dir.filePath("a-big.aside"));
            }
            if (fault == Fault::drop) {
                if (!agent.waitFor(connected, connections + 1, 20000))
                    qFatal("copy %d: the companion did not reconnect", n);
                ++copy.faulted; // what the agent had fetched stays partial; nothing to compare
            } else if (!agent.waitFor(received, done + 1, 60000)) {
                qFatal("copy %d hung", n);
            } else {
                QMap<QString, QByteArray> arrived = digest(inbox), expected = copied;
                if (fault == Fault::removeSource) {
                    QFile::rename(dir.filePath("a-big.aside"), local + "/a-big.bin");
                    arrived.remove(QStringLiteral("a-big.bin"));
                    expected.remove(QStringLiteral("a-big.bin"));
                }
                ++(arrived == expected ? (fault == Fault::none ? copy.clean : copy.faulted) : copy.wrong);
            }
        }
        if (n == 50)
            residentAfter50 = kx::residentKiB();
        if (n % 100 == 0)
            std::fprintf(out, "soak: %d transfers, resident %lld KiB\n", n, qint64(kx::residentKiB()));
    }

    const qint64 residentLast = kx::residentKiB();
    const double growth = residentAfter50 > 0 ? double(residentLast - residentAfter50) / double(residentAfter50) : 0;
    std::fprintf(out, "pastes: %d byte-identical, %d ended by their fault as expected, %d done before the fault, %d wrong\n",
                paste.clean, paste.faulted, paste.faultTooLate, paste.wrong);
    std::fprintf(out, "copies: %d byte-identical, %d with a fault handled as expected, %d wrong\n", copy.clean, copy.faulted,
                copy.wrong);
    std::fprintf(out, "resident memory: %lld KiB after 50 transfers, %lld KiB after %d (%+.1f%%)\n", residentAfter50,
                residentLast, transfers, growth * 100);
    const bool ok = paste.wrong == 0 && copy.wrong == 0 && growth <= 0.10;
    std::fprintf(out, "soak %s\n", ok ? "passed" : "FAILED");
    return ok ? 0 : 1;
}
