#pragma once

#include <QByteArray>

#include <cstdint>
#include <optional>

namespace kx {

// The sum of the files' sizes in an encoded descriptor list, read in one pass that decodes
// no entry, names included; folders carry no size of their own. Nothing when an entry
// does not read, or when the pass would keep the event loop longer than a chooser can wait.
std::optional<std::uint64_t> filesSize(const QByteArray &payload);

} // namespace kx
