// gzip for tezad's answers: whether a request accepts it, and the compression itself (zlib).
#ifndef TEZAD_HTTP_GZIP_BODY_H_
#define TEZAD_HTTP_GZIP_BODY_H_

#include <string>

namespace tezad {

// True when an Accept-Encoding value lists gzip (or x-gzip, or *) without q=0.
bool AcceptsGzip(const std::string& acceptEncoding);

// `body` in the gzip format, at zlib's default level; false (and `out` unspecified) when zlib
// fails.
bool GzipCompress(const std::string& body, std::string* out);

}  // namespace tezad

#endif  // TEZAD_HTTP_GZIP_BODY_H_
