#pragma once

#include <QString>

namespace kx {

// A number as a log line shows it: the shortest decimal text that reads back as the same
// double, with ".0" on whole numbers ("0.8738133333333333", "1.0", "0.25"); exponents
// only for very small or very large values ("1e-05", "1e+16").
QString decimalText(double value);

// Text made safe for one line of the log: control characters are escaped ("\n", "\t",
// "\x1b"), so a name that came from the remote side can never forge a line of its own.
QString escapedName(QStringView name);

} // namespace kx
