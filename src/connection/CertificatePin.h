#pragma once

#include <QByteArray>
#include <QString>

class QSslCertificate;

// The one certificate a wss agent may present, named by the SHA-256 of its DER encoding:
// 64 hex digits, upper or lower case, colons allowed. Without a pin any certificate is
// accepted; with one, only that certificate is, whatever else is wrong with it.
class CertificatePin
{
public:
    CertificatePin() = default; // no pin
    // A text that is not 64 hex digits once its colons are gone still makes a pin, one no
    // certificate matches: whoever gave it meant to tie the companion to one agent, and
    // taking whatever answers instead would undo that without a word.
    explicit CertificatePin(const QString &text);

    bool isSet() const { return m_set; }
    bool isValid() const { return !m_sha256.isEmpty(); }
    bool matches(const QSslCertificate &certificate) const;
    // As the log shows it: AB:CD:… in full, or the text given when that is no fingerprint.
    QString expected() const;
    static QString fingerprint(const QSslCertificate &certificate);

private:
    bool m_set = false;
    QByteArray m_sha256; // empty unless the text was a fingerprint
    QString m_given;
};
