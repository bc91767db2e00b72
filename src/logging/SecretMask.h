#pragma once

#include <QString>

namespace kx {

// The access token guards the connection, so no log line shows it whole: only its first
// four characters, then "…". A token shorter than eight characters shows none of them,
// only "…": four of five, six or seven would leave almost nothing to guess, and four of
// four would be all of it. An empty token has nothing to hide and shows nothing.
QString maskedSecret(const QString &secret);

// A connection URL, scheme://host:port/token: everything after the slash that ends the
// host and port is the token. Without such a slash there is no token, and the URL shows
// as it is.
QString urlSecret(const QString &url);
QString maskedUrl(const QString &url);

// Text from elsewhere (an error, a peer's close reason) with every occurrence of the
// secret that stands as a token of its own masked.
QString maskedWithin(QString text, const QString &secret);

} // namespace kx
