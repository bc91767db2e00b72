#pragma once

#include <QString>

#include <optional>

// The end of a paste as reported to the completion callback. The case names reach the
// user in the end-of-paste alert.
enum class PastedError : int {
    noError = 0,
    pastAlreadyRunning = 1,
    formListResposeError = 2,
    saveError = 3,
    unKonwnError = 4,
    cancelDownload = 5,
    websoketDisconnect = 6,
};

QString pastedErrorName(PastedError error);
