#pragma once

#include <QString>

namespace kx {

// Whether a remote relative name, once mapped under a base folder, stays inside it.
// Names with a ".." component (whichever slash separates it), a drive letter, a UNC
// prefix or a leading forward slash are refused: a remote agent must never be able to
// make us write outside the folder the user chose.
bool isContainedRemotePath(const QString &windowsPath);

} // namespace kx
