// The common shape of a TEZA call, read and answered by tezad without cpp-httplib: a request
// of "POST /teza HTTP/1.1" with only the header fields that TEZA clients send, complete in the
// bytes already read from the connection. Reading such a request costs a few hundred
// instructions instead of cpp-httplib's tens of thousands (a byte at a time, a map of the
// fields, lower-cased comparisons), and its answer leaves in one write.
//
// Anything else (another method or path, other fields, a body still on its way, anything
// cpp-httplib would read in a way of its own) is not taken here and goes to cpp-httplib, as
// every request did before, so that both read a request alike. The answer's bytes are the
// ones cpp-httplib writes for the same reply.
#ifndef TEZAD_HTTP_CALL_REQUEST_H_
#define TEZAD_HTTP_CALL_REQUEST_H_

#include <stddef.h>

#include <string>

namespace tezad {

// The head of a request is read here only up to this size; longer ones go to cpp-httplib.
const size_t kCallRequestMaxHead = 8192;

// A header field's value as it appears in the request; `present` tells an empty one apart.
struct FieldValue {
    bool present = false;
    std::string value;
};

struct CallRequest {
    size_t size = 0;  // bytes of the request, head and body
    const char* body = nullptr;
    size_t bodyLength = 0;
    FieldValue authorization;
    FieldValue apiVersion;
    FieldValue serverType;
    FieldValue acceptEncoding;
};

// Reads a call of the common shape from the start of `data`; false when the bytes hold
// anything else, or not all of it yet (nothing is then taken from them).
bool ReadCallRequest(const char* data, size_t size, CallRequest* request);

// The status line and header fields of an XML answer of `bodyLength` bytes on a connection
// kept open, ending with the empty line, as cpp-httplib writes them (fields sorted by name).
// `status` is one of 200, 400, 401, 500 (401 asks for basic authentication).
std::string CallResponseHead(int status, bool gzip, size_t bodyLength, int keepAliveSeconds,
                             size_t maxCallsPerConnection);

// The same head for an answer sent in chunks (Transfer-Encoding: chunked) instead of with its
// length.
std::string CallResponseChunkedHead(int status, bool gzip, int keepAliveSeconds,
                                    size_t maxCallsPerConnection);

// Whether CallResponseHead writes this status.
bool CallResponseStatus(int status);

}  // namespace tezad

#endif  // TEZAD_HTTP_CALL_REQUEST_H_
