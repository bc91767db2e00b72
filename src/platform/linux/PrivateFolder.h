#pragma once

#include <QString>

namespace kx {

// Makes the folder this user's alone, or finds it so: a folder, not a link to one, owned
// by this user, with no access for anyone else. False where it is not.
bool makePrivateFolder(const QString &path);

} // namespace kx
