#pragma once

// Small things most tests need: test data and files on disk.
#include <QByteArray>
#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QMap>
#include <QRegularExpression>

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
