#include "ClipBoardError.h"

std::optional<ClipBoardError> clipBoardErrorFromRaw(int raw)
{
    if (raw < 0 || raw > 6)
        return std::nullopt;
    return ClipBoardError(raw);
}

QString clipBoardErrorName(ClipBoardError error)
{
    // The two enumerations carry the same cases in the same order.
    return pastedErrorName(PastedError(int(error)));
}
