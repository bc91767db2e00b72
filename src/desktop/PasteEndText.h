#pragma once

#include "PasteReport.h"

#include <QString>

// What the end-of-paste alert says besides its described message: what happened, in
// plain words, with the file, the folder, the reason and what is on disk now.
QString pasteEndText(bool success, const PasteReport &report);
