#pragma once

namespace kx {

// Our diagnostic lines (categories "kx.*") go to standard output, one line each, with
// no level, timestamp or prefix, exactly as written. Qt's own messages keep going to
// standard error so they never mix into our lines.
void installStdoutLogHandler();

} // namespace kx
