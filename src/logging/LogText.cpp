#include "LogText.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdlib>
#include <string>

namespace kx {

QString decimalText(double value)
{
    if (std::isnan(value))
        return QStringLiteral("nan");
    if (std::isinf(value))
        return value < 0 ? QStringLiteral("-inf") : QStringLiteral("inf");
    // The shortest digits that read back as the value, in scientific form: d.ddde±XX.
    char buffer[64];
    const auto end = std::to_chars(buffer, buffer + sizeof buffer, value, std::chars_format::scientific).ptr;
    const std::string text(buffer, end);
    const std::size_t e = text.find('e');
    const bool negative = text.front() == '-';
    std::string digits = text.substr(negative ? 1 : 0, e - (negative ? 1 : 0));
    digits.erase(std::remove(digits.begin(), digits.end(), '.'), digits.end());
    const int exponent = std::atoi(text.c_str() + e + 1);
    std::string out = negative ? "-" : "";
    if (exponent < -4 || exponent >= 16) {
        out += digits.substr(0, 1);
        if (digits.size() > 1)
            out += '.' + digits.substr(1);
        out += exponent < 0 ? "e-" : "e+";
        const int magnitude = std::abs(exponent);
        out += (magnitude < 10 ? "0" : "") + std::to_string(magnitude);
    } else if (exponent < 0) {
        out += "0." + std::string(std::size_t(-exponent - 1), '0') + digits;
    } else {
        const std::size_t whole = std::size_t(exponent) + 1;
        if (digits.size() <= whole)
            out += digits + std::string(whole - digits.size(), '0') + ".0";
        else
            out += digits.substr(0, whole) + '.' + digits.substr(whole);
    }
    return QString::fromStdString(out);
}

QString escapedName(QStringView name)
{
    QString out;
    out.reserve(name.size());
    for (const QChar c : name) {
        const char16_t u = c.unicode();
        if (u == '\n')
            out += QLatin1String("\\n");
        else if (u == '\r')
            out += QLatin1String("\\r");
        else if (u == '\t')
            out += QLatin1String("\\t");
        else if (u < 0x20 || u == 0x7f || (u >= 0x80 && u < 0xa0) || u == 0x2028 || u == 0x2029)
            out += QStringLiteral("\\x%1").arg(unsigned(u), 2, 16, QLatin1Char('0'));
        else
            out += c;
    }
    return out;
}

} // namespace kx
