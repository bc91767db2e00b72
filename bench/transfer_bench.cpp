// Times whole transfers of the real engine and socket manager against the agent
// simulator over loopback: a paste of one big file, and serving one big file and a
// tree of many small files. Prints one line per figure.
#include "ClipBoardManager.h"
#include "KXFileManager.h"

#include <QCoreApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QProcess>
#include <QRandomGenerator>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QEventLoop>
#include <QTimer>

#include <functional>

#include <cstdio>

namespace {

class FixedChooser : public FolderChooser
{
public:
    explicit FixedChooser(QString folder) : folder(std::move(folder)) {}
    FolderChoice runModal() override { return {true, QUrl::fromLocalFile(folder)}; }
    QString folder;
};

void writeRandom(const QString &path, qint64 size)
{
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly))
        qFatal("cannot write %s", qPrintable(path));
    QByteArray block(1 << 20, Qt::Uninitialized);
    QRandomGenerator::global()->fillRange(reinterpret_cast<quint32 *>(block.data()), block.size() / 4);
    for (qint64 done = 0; done < size; done += block.size())
        file.write(block.constData(), std::min<qint64>(block.size(), size - done));
}

bool runUntil(const std::function<bool()> &predicate, int timeoutMs);

struct Agent
{
    QProcess process;
    QString port;

    bool start(const QStringList &arguments)
    {
        process.setProcessChannelMode(QProcess::MergedChannels);
        process.start(QStringLiteral(KX_AGENT_SIM), arguments);
        return waitFor(QStringLiteral("listening on"), 10000);
    }
    bool waitFor(const QString &text, int ms)
    {
        return runUntil([&] {
            log += QString::fromUtf8(process.readAll());
            static const QRegularExpression portText(QStringLiteral(":(\\d+)\\n"));
            if (port.isEmpty()) {
                const auto match = portText.match(log);
                if (match.hasMatch())
                    port = match.captured(1);
            }
            return log.contains(text);
        }, ms);
    }
    QString log;
};

double mbPerSecond(qint64 bytes, qint64 ms)
{
    return double(bytes) / 1e6 / (double(std::max<qint64>(ms, 1)) / 1000.0);
}

void silence(QtMsgType, const QMessageLogContext &, const QString &) {}

// Runs the event loop until the predicate holds. QTest::qWaitFor naps between its
// turns, which would be measured as transfer time.
bool runUntil(const std::function<bool()> &predicate, int timeoutMs)
{
    QEventLoop loop;
    QTimer check;
    QObject::connect(&check, &QTimer::timeout, &loop, [&] {
        if (predicate())
            loop.quit();
    });
    check.start(1);
    QTimer::singleShot(timeoutMs, &loop, &QEventLoop::quit);
    if (!predicate())
        loop.exec();
    return predicate();
}

} // namespace

int main(int argc, char *argv[])
{
    QCoreApplication app(argc, argv);
    qInstallMessageHandler(silence); // the engine's per-step lines would time the terminal
    const qint64 bigSize = 100LL * 1000 * 1000;
    const int smallFiles = 2000;
    QTemporaryDir dir;
    QDir().mkpath(dir.filePath("offer"));
    QDir().mkpath(dir.filePath("dest"));
    QDir().mkpath(dir.filePath("inbox"));
    QDir().mkpath(dir.filePath("local/many"));
    writeRandom(dir.filePath("offer/big.bin"), bigSize);
    writeRandom(dir.filePath("local/big.bin"), bigSize);
    for (int i = 0; i < smallFiles; ++i)
        writeRandom(dir.filePath(QStringLiteral("local/many/f%1.txt").arg(i)), 4096);

    Agent agent;
    if (!agent.start({"--offer", dir.filePath("offer"), "--inbox", dir.filePath("inbox")}))
        qFatal("the agent simulator did not start");
    KXFileManager::shared()->setFolderChooser(std::make_unique<FixedChooser>(dir.filePath("dest")));
    ClipBoardManager engine(QStringLiteral("ws://127.0.0.1"), agent.port, QStringLiteral("bench"), QStringLiteral("1"), nullptr);
    if (!runUntil([&] { return engine.hasFormList(); }, 10000))
        qFatal("no offer arrived");

    bool done = false;
    QElapsedTimer timer;
    timer.start();
    engine.startPaste([](double) {}, [&](bool ok, PastedError) { done = ok; });
    if (!runUntil([&] { return done; }, 600000))
        qFatal("the paste did not finish");
    const qint64 pasteMs = timer.elapsed();
    std::printf("paste of one %lld-byte file: %lld ms, %.1f MB/s\n", bigSize, pasteMs, mbPerSecond(bigSize, pasteMs));

    auto serve = [&](const QList<QUrl> &urls, const char *what, qint64 bytes) {
        const int before = int(agent.log.count(QStringLiteral("received ")));
        timer.restart();
        engine.copiedFiles(urls);
        if (!runUntil([&] { agent.waitFor(QString(), 0); return agent.log.count(QStringLiteral("received ")) > before; }, 600000))
            qFatal("the agent did not fetch %s", what);
        const qint64 ms = timer.elapsed();
        std::printf("serving %s: %lld ms, %.1f MB/s\n", what, ms, mbPerSecond(bytes, ms));
    };
    serve({QUrl::fromLocalFile(dir.filePath("local/big.bin"))}, "one 100 MB file", bigSize);
    serve({QUrl::fromLocalFile(dir.filePath("local/many"))}, "2,000 files of 4 KiB", qint64(smallFiles) * 4096);
    std::fflush(stdout);
    agent.process.kill();
    agent.process.waitForFinished();
    return 0;
}
