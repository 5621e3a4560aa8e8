#pragma once

#include "Vel/base/String.h"

#include <openssl/x509.h>

namespace Mount {

using Vel::String;

// Who is on the other side of a TLS connection, and texts about it for whoever reads a log. The other side wrote what
// is in its certificate: whatever could do harm in a log or a terminal is escaped, and what is long is cut.

// The one common name; empty when there is none, several, or one with control characters.
String commonName(X509 const& certificate);

// "CN = db7, O = Example"
String nameText(X509_NAME const* name);

// Why the verification that has just ended refused the other side's certificate.
String refusalText(X509_STORE_CTX& verification, String const& host, String const& authorityPath);

}  // namespace Mount
