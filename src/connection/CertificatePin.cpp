#include "CertificatePin.h"

#include <QCryptographicHash>
#include <QRegularExpression>
#include <QSslCertificate>

namespace {

QString colonHex(const QByteArray &bytes)
{
    return QString::fromLatin1(bytes.toHex(':').toUpper());
}

} // namespace

CertificatePin::CertificatePin(const QString &text)
    : m_set(true)
    , m_given(text)
{
    static const QRegularExpression sha256Hex(QStringLiteral("\\A[0-9A-Fa-f]{64}\\z"));
    const QString digits = QString(text).remove(QLatin1Char(':'));
    if (sha256Hex.match(digits).hasMatch())
        m_sha256 = QByteArray::fromHex(digits.toLatin1());
}

bool CertificatePin::matches(const QSslCertificate &certificate) const
{
    return isValid() && !certificate.isNull() && certificate.digest(QCryptographicHash::Sha256) == m_sha256;
}

QString CertificatePin::expected() const
{
    return isValid() ? colonHex(m_sha256) : m_given;
}

QString CertificatePin::fingerprint(const QSslCertificate &certificate)
{
    return certificate.isNull() ? QStringLiteral("none") : colonHex(certificate.digest(QCryptographicHash::Sha256));
}
