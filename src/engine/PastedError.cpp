#include "PastedError.h"

QString pastedErrorName(PastedError error)
{
    switch (error) {
    case PastedError::noError: return QStringLiteral("noError");
    case PastedError::pastAlreadyRunning: return QStringLiteral("pastAlreadyRunning");
    case PastedError::formListResposeError: return QStringLiteral("formListResposeError");
    case PastedError::saveError: return QStringLiteral("saveError");
    case PastedError::unKonwnError: return QStringLiteral("unKonwnError");
    case PastedError::cancelDownload: return QStringLiteral("cancelDownload");
    case PastedError::websoketDisconnect: return QStringLiteral("websoketDisconnect");
    }
    return QStringLiteral("unKonwnError");
}
