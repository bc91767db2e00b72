#pragma once

#include "PastedError.h"

#include <QString>

#include <optional>

// The watcher's mirror of the engine's result codes; the case name is what the user reads.
enum class ClipBoardError : int {
    noError = 0,
    pastAlreadyRunning = 1,
    formListResposeError = 2,
    saveError = 3,
    unKonwnError = 4,
    cancelDownload = 5,
    websoketDisconnect = 6,
};

std::optional<ClipBoardError> clipBoardErrorFromRaw(int raw);
QString clipBoardErrorName(ClipBoardError error);
