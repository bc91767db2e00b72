#pragma once

// Small things most tests need: test data and files on disk.
#include <QByteArray>
#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QMap>
#include <QElapsedTimer>
#include <QRegularExpression>
#include <QTimer>

#include <algorithm>
#include <ctime>

inline QByteArray hex(const char *text)
{
    return QByteArray::fromHex(QByteArray(text).replace(' ', ""));
}

inline QByteArray pattern(qsizetype size, int seed)
{
    QByteArray data(size, Qt::Uninitialized);
    for (qsizetype i = 0; i < size; ++i)
        data[i] = char((i * 131 + seed + i / 977) & 0xff);
    return data;
}

inline QByteArray readFile(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray("<missing>");
}

inline bool writeFile(const QString &path, const QByteArray &data)
{
    QDir().mkpath(path.section(QLatin1Char('/'), 0, -2));
    QFile file(path);
    return file.open(QIODevice::WriteOnly) && file.write(data) == data.size();
}

// Every entry under a folder: "name" for a file with its size, "name/" for a folder,
// "name -> target" for a link; a test sees anything written where it should not be.
inline QStringList treeOf(const QString &folder)
{
    QStringList tree;
    QDirIterator it(folder, QDir::AllEntries | QDir::NoDotAndDotDot | QDir::Hidden | QDir::System,
                    QDirIterator::Subdirectories);
    while (it.hasNext()) {
        const QFileInfo info(it.next());
        const QString name = QDir(folder).relativeFilePath(info.filePath());
        if (info.isSymLink())
            tree.append(name + QStringLiteral(" -> ") + info.symLinkTarget().section(QLatin1Char('/'), -1));
        else
            tree.append(info.isDir() ? name + QLatin1Char('/') : name + QLatin1Char(' ') + QString::number(info.size()));
    }
    tree.sort();
    return tree;
}

// CPU time the calling thread has used. Unlike the wall clock it does not grow while
// other work on a busy machine holds the core.
inline qint64 threadCpuMs()
{
    timespec now{};
    ::clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return qint64(now.tv_sec) * 1000 + now.tv_nsec / 1000000;
}

// The most CPU time the main thread spent between two runs of a timer due every 5 ms:
// what one turn of the event loop cost while the connection and the user waited.
struct TurnWatch
{
    // Far above what a turn costs here (about 350 ms at most), far below the seconds each
    // attack held the loop before it was bounded. The sanitizers' unoptimised build runs
    // some three times slower, and slower still beside other work (1 s seen).
#if defined(__SANITIZE_ADDRESS__)
    static constexpr qint64 limitMs = 3000;
#else
    static constexpr qint64 limitMs = 1000;
#endif

    QTimer tick;
    qint64 last = threadCpuMs();
    qint64 longest = 0;
    TurnWatch()
    {
        QObject::connect(&tick, &QTimer::timeout, &tick, [this] { longestNow(); });
        tick.start(5);
    }
    // Forgets what went before: the test's own work (making a frame, handing it to the
    // in-process agent) is not a turn of the companion's.
    void restart() { last = threadCpuMs(), longest = 0; }
    // Read as the awaited condition holds: the turn that made it hold has had no tick after it.
    qint64 longestNow()
    {
        const qint64 now = threadCpuMs();
        longest = std::max(longest, now - last);
        last = now;
        return longest;
    }
};
