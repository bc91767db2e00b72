#pragma once

class QLocale;

namespace kx {

// The texts a user reads in the language of the locale: ours (Chinese under a Chinese
// locale, English otherwise) and Qt's own (the dialogs' standard buttons). The described
// message texts and the log lines stay as they are.
void installTranslations(const QLocale &locale);

} // namespace kx
