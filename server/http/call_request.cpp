#include "call_request.h"

#include <string.h>
#include <strings.h>

namespace tezad {

namespace {

const char kRequestLine[] = "POST /teza HTTP/1.1\r\n";

// The header fields a TEZA client sends. Any other field (Connection, Expect,
// Transfer-Encoding, Content-Encoding, Range...) changes how cpp-httplib reads the request or
// writes its answer, so a request that has one is left to it.
enum class Field { Host, UserAgent, Accept, ContentType, Other };

bool SameName(const char* name, size_t length, const char* known) {
    return length == strlen(known) && strncasecmp(name, known, length) == 0;
}

bool IsSpaceOrTab(char c) {
    return c == ' ' || c == '\t';
}

// One header line without its CRLF: its name up to the first colon and its value without the
// spaces and tabs around it, as cpp-httplib splits it. False for a line it would read
// otherwise: no colon, an empty value, a '%' (cpp-httplib decodes percent escapes in values),
// a control character.
bool SplitField(const char* line, size_t length, const char** name, size_t* nameLength,
                const char** value, size_t* valueLength) {
    for (size_t i = 0; i < length; ++i) {
        const unsigned char c = static_cast<unsigned char>(line[i]);
        if ((c < 0x20 && c != '\t') || c == 0x7F || c == '%') {
            return false;
        }
    }
    const char* colon = static_cast<const char*>(memchr(line, ':', length));
    if (colon == nullptr) {
        return false;
    }
    const char* begin = colon + 1;
    const char* end = line + length;
    while (begin < end && IsSpaceOrTab(*begin)) {
        ++begin;
    }
    while (end > begin && IsSpaceOrTab(end[-1])) {
        --end;
    }
    if (begin == end) {
        return false;
    }
    *name = line;
    *nameLength = static_cast<size_t>(colon - line);
    *value = begin;
    *valueLength = static_cast<size_t>(end - begin);
    return true;
}

// Sets `field` once; false when the request repeats it.
bool SetOnce(FieldValue* field, const char* value, size_t length) {
    if (field->present) {
        return false;
    }
    field->present = true;
    field->value.assign(value, length);
    return true;
}

// A Content-Length of decimal digits only, small enough to be a body held in memory.
bool ParseLength(const char* value, size_t length, size_t* out) {
    if (length == 0 || length > 9) {
        return false;
    }
    size_t n = 0;
    for (size_t i = 0; i < length; ++i) {
        if (value[i] < '0' || value[i] > '9') {
            return false;
        }
        n = n * 10 + static_cast<size_t>(value[i] - '0');
    }
    *out = n;
    return true;
}

// Takes one header field into `request`; false when the request is not of the common shape.
bool TakeField(const char* line, size_t length, CallRequest* request, bool* hasLength) {
    const char* name;
    size_t nameLength;
    const char* value;
    size_t valueLength;
    if (!SplitField(line, length, &name, &nameLength, &value, &valueLength)) {
        return false;
    }
    if (SameName(name, nameLength, "Content-Length")) {
        if (*hasLength) {
            return false;
        }
        *hasLength = true;
        return ParseLength(value, valueLength, &request->bodyLength);
    }
    if (SameName(name, nameLength, "Authorization")) {
        return SetOnce(&request->authorization, value, valueLength);
    }
    if (SameName(name, nameLength, "X-Teza-Api-Version")) {
        return SetOnce(&request->apiVersion, value, valueLength);
    }
    if (SameName(name, nameLength, "X-Teza-Server-Type")) {
        return SetOnce(&request->serverType, value, valueLength);
    }
    if (SameName(name, nameLength, "Accept-Encoding")) {
        return SetOnce(&request->acceptEncoding, value, valueLength);
    }
    // Fields that tezad does not read.
    return SameName(name, nameLength, "Host") || SameName(name, nameLength, "User-Agent") ||
           SameName(name, nameLength, "Accept") || SameName(name, nameLength, "Content-Type");
}

const char* StatusText(int status) {
    switch (status) {
        case 200:
            return "OK";
        case 400:
            return "Bad Request";
        case 401:
            return "Unauthorized";
        case 500:
            return "Internal Server Error";
        default:
            return nullptr;
    }
}

}  // namespace

bool ReadCallRequest(const char* data, size_t size, CallRequest* request) {
    *request = CallRequest();
    const size_t lineLength = sizeof kRequestLine - 1;
    if (size < lineLength || memcmp(data, kRequestLine, lineLength) != 0) {
        return false;
    }
    const size_t limit = size < kCallRequestMaxHead ? size : kCallRequestMaxHead;
    bool hasLength = false;
    size_t at = lineLength;
    for (;;) {
        const char* lf = static_cast<const char*>(memchr(data + at, '\n', limit - at));
        if (lf == nullptr) {
            return false;  // the head is longer, or not all here yet
        }
        const size_t end = static_cast<size_t>(lf - data);
        if (end == at || data[end - 1] != '\r') {
            return false;  // a line that does not end in CRLF
        }
        if (end - 1 == at) {
            at = end + 1;  // the empty line: the head ends here
            break;
        }
        if (!TakeField(data + at, end - 1 - at, request, &hasLength)) {
            return false;
        }
        at = end + 1;
    }
    if (!hasLength || size - at < request->bodyLength) {
        return false;
    }
    request->body = data + at;
    request->size = at + request->bodyLength;
    return true;
}

bool CallResponseStatus(int status) {
    return StatusText(status) != nullptr;
}

namespace {

// A head with a Content-Length of `*bodyLength`, or chunked without one.
std::string ResponseHead(int status, bool gzip, const size_t* bodyLength, int keepAliveSeconds,
                         size_t maxCallsPerConnection) {
    std::string head = "HTTP/1.1 " + std::to_string(status) + " " + StatusText(status) + "\r\n";
    if (gzip) {
        head += "Content-Encoding: gzip\r\n";
    }
    if (bodyLength != nullptr) {
        head += "Content-Length: " + std::to_string(*bodyLength) + "\r\n";
    }
    head += "Content-Type: application/xml; charset=utf-8\r\n";
    head += "Keep-Alive: timeout=" + std::to_string(keepAliveSeconds) +
            ", max=" + std::to_string(maxCallsPerConnection) + "\r\n";
    if (bodyLength == nullptr) {
        head += "Transfer-Encoding: chunked\r\n";
    }
    if (status == 401) {
        head += "WWW-Authenticate: Basic realm=\"teza\"\r\n";
    }
    head += "\r\n";
    return head;
}

}  // namespace

std::string CallResponseHead(int status, bool gzip, size_t bodyLength, int keepAliveSeconds,
                             size_t maxCallsPerConnection) {
    return ResponseHead(status, gzip, &bodyLength, keepAliveSeconds, maxCallsPerConnection);
}

std::string CallResponseChunkedHead(int status, bool gzip, int keepAliveSeconds,
                                    size_t maxCallsPerConnection) {
    return ResponseHead(status, gzip, nullptr, keepAliveSeconds, maxCallsPerConnection);
}

}  // namespace tezad
