#pragma once

#include "PasteReport.h"

#include <QCoreApplication>
#include <QString>

// What the end-of-paste alert says besides its described message: what happened, in
// plain words, with the file, the folder, the reason and what is on disk now.
class PasteEndText
{
    Q_DECLARE_TR_FUNCTIONS(PasteEndText)

public:
    static QString text(bool success, const PasteReport &report);

private:
    static QString reason(const PasteReport &report);
};
