#include "ContentsText.h"

#include <QLocale>

#include <algorithm>
#include <limits>

// Two sentences rather than "%n item(s)": without a translation loaded, Qt leaves the
// "(s)" in place.
QString ContentsText::items(std::size_t count)
{
    return count == 1 ? tr("1 item") : tr("%L1 items").arg(qulonglong(count));
}

QString ContentsText::size(std::uint64_t bytes)
{
    return QLocale().formattedDataSize(qint64(std::min<std::uint64_t>(bytes, std::numeric_limits<qint64>::max())));
}

QString ContentsText::itemsOfSize(std::size_t count, std::uint64_t bytes)
{
    return tr("%1 (%2)").arg(items(count), size(bytes));
}
