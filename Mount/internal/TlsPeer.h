#pragma once

#include "Vel/base/String.h"

#include <openssl/x509.h>

namespace Mount {

using Vel::String;

// Names the other side of a TLS connection, and describes it in texts for logs. The other side wrote its certificate,
// so texts of it are cut, and bytes that could do harm in a log or a terminal are replaced.

// Returns the common name. Returns an empty text if there is none, if there are several, or if it is longer than 200
// bytes or has control characters.
String commonName(X509 const& certificate);

// Returns a name in the form "CN = db7, O = Example".
String nameText(X509_NAME const* name);

// Says why the verification that has just ended refused the other side's certificate.
String refusalText(X509_STORE_CTX& verification, String const& host, String const& authorityPath);

}  // namespace Mount
