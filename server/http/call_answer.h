// Sends the XML answer of a call read by tezad itself (call_request.h) on a connection kept
// open.
//
// An answer whose text is at most kStreamAboveBytes long (or the gzip threshold, when that is
// higher and the answer may be compressed) leaves whole in one write with its Content-Length,
// compressed as GzipCompress compresses it. A longer one leaves while it is being written:
// as an HTTP/1.1 chunked body, a chunk for each piece of about kAnswerPieceBytes of text, or,
// for a client that accepts gzip, for what one deflate stream has made of the pieces so far.
// The client then receives the start of a large answer while the rest is written, and its
// whole text is never held at once.
#ifndef TEZAD_HTTP_CALL_ANSWER_H_
#define TEZAD_HTTP_CALL_ANSWER_H_

#include <stddef.h>
#include <sys/uio.h>

#include <functional>

#include "rk.h"

namespace tezad {

// Answers longer than this are sent in chunks. Up to it, the answer keeps the form every
// answer had before (one write with its length), and the gzip level for its size.
const size_t kStreamAboveBytes = 1u << 20;
// The text written between two chunks.
const size_t kAnswerPieceBytes = 128u << 10;

struct AnswerForm {
    int status = 200;
    // Whether the answer is compressed when longer than `gzipAboveBytes` (the client accepts
    // gzip and the threshold is not 0).
    bool gzip = false;
    size_t gzipAboveBytes = 0;
    int keepAliveSeconds = 0;
    size_t maxCallsPerConnection = 0;
};

// Sends `count` parts in order, whole; false when the connection failed.
using SendParts = std::function<bool(const struct iovec* parts, size_t count)>;

// Writes `result` (a declaration, then rk_elem_sprintf's text) as the answer in `form` through
// `send`. False when sending failed: a chunked answer may then have been sent in part, and
// the connection is to be closed. Throws std::bad_alloc when the text cannot be written and
// nothing was sent.
bool SendCallAnswer(rk_elem_t* result, const AnswerForm& form, const SendParts& send);

}  // namespace tezad

#endif  // TEZAD_HTTP_CALL_ANSWER_H_
