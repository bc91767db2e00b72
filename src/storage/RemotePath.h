#pragma once

#include <QString>
#include <QStringList>

namespace kx {

// Whether a remote relative name, once mapped under a base folder, stays inside it.
// Names with a ".." component (whichever slash separates it), a drive letter, a UNC
// prefix or a leading forward slash are refused: a remote agent must never be able to
// make us write outside the folder the user chose. A text check only: links on disk are
// the business of the walk that creates the path.
bool isContainedRemotePath(const QString &windowsPath);

// The components of a remote name as the local file system sees them: either slash
// separates, and empty components (doubled, leading or trailing slashes) vanish.
QStringList remoteComponents(const QString &windowsPath);

// Whether base + components is a path this file system can hold: no component longer
// than NAME_MAX bytes, the whole no longer than PATH_MAX. Checked before anything is made.
bool fitsFileSystem(const QString &base, const QStringList &components);

// A local folder's path as the rules above take it: trailing slashes dropped, "/" kept.
QString withoutTrailingSlashes(QString path);

} // namespace kx
