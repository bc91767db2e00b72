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

// The longest the event loop went without running a timer due every 5 ms: how long one
// turn of it held the connection and the user waiting.
struct TurnWatch
{
    // Far above what a turn takes here (about 150 ms, under another test's load on two
    // cores), far below the seconds each attack held the loop before it was bounded.
    static constexpr qint64 limitMs = 1000;

    QTimer tick;
    QElapsedTimer since;
    qint64 longest = 0;
    TurnWatch()
    {
        QObject::connect(&tick, &QTimer::timeout, &tick, [this] { longest = std::max(longest, since.restart()); });
        since.start();
        tick.start(5);
    }
    // Read as the awaited condition holds: the turn that made it hold has had no tick after it.
    qint64 longestNow() { return longest = std::max(longest, since.restart()); }
};
