#include "Translations.h"

#include <QCoreApplication>
#include <QLibraryInfo>
#include <QLocale>
#include <QTranslator>

namespace kx {

void installTranslations(const QLocale &locale)
{
    static QTranslator *ours = nullptr, *qt = nullptr;
    for (QTranslator *&translator : {std::ref(ours), std::ref(qt)}) {
        if (translator)
            QCoreApplication::removeTranslator(translator);
        delete translator;
        translator = new QTranslator;
    }
    if (ours->load(locale, QStringLiteral("kx-clipboard"), QStringLiteral("_"), QStringLiteral(":/i18n")))
        QCoreApplication::installTranslator(ours);
    if (qt->load(locale, QStringLiteral("qtbase"), QStringLiteral("_"), QLibraryInfo::path(QLibraryInfo::TranslationsPath)))
        QCoreApplication::installTranslator(qt);
}

} // namespace kx
