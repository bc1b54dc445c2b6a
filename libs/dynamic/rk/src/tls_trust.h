// The certificates of a CA file, read once for the process and shared by the TLS context of
// every connection that trusts that file (internal to librk).
//
// libcurl makes a new TLS context for every connection of every easy handle and, given a CA
// file, parses it into the context's certificate store each time: with a few certificates
// that costs more than a resumed TLS handshake. Here each CA file is parsed once; each new
// context's own store receives references to the parsed certificates (through libcurl's
// CURLOPT_SSL_CTX_FUNCTION), which costs a few reference counts. The parsed certificates are
// never changed, which lets any number of threads verify against them at once, and each
// context keeps a store of its own, on which libcurl sets its verification flags as usual. A
// file that changes on disk (its identity, size or modification time) is read again for the
// connections made after that.
#ifndef RK_TLS_TRUST_H_
#define RK_TLS_TRUST_H_

#include <curl/curl.h>

#include <string>

namespace rk {

// Sets `easy` up to trust the certificates of `caFile` from the process's shared store
// instead of reading the file for each connection, and returns true; false (and `easy`
// unchanged) when the file cannot be read or parsed now, or this libcurl does not use
// OpenSSL, in which case the caller hands the file to libcurl (CURLOPT_CAINFO), which reads
// it itself and reports why it cannot. `easy` must have been reset (curl_easy_reset) since it
// was last set up by this function or with CURLOPT_CAINFO.
bool TrustSharedCaFile(CURL* easy, const std::string& caFile);

// Frees the shared stores; called with libcurl's global clean-up, when no easy handle is left.
void ReleaseSharedCaFiles();

}  // namespace rk

#endif  // RK_TLS_TRUST_H_
