#pragma once

#include <span>

namespace kx {

// Takes the launch values out of the process's own argument memory, which is what
// /proc/<pid>/cmdline and so ps show to every user of the machine: the program stays, and
// of every other argument only its key ("token,"), when it has one, so that ps still
// tells how the companion was started, never with which token. The strings are
// overwritten in place. QCoreApplication::arguments() reads them afresh at every call on
// Linux: copy what is needed first. Pass the pointers as main() received them, before Qt
// took its own options out of argv.
void blankArgumentValues(std::span<char *const> arguments);

} // namespace kx
