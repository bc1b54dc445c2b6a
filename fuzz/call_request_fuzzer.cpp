// Fuzzes tezad's reader of the common call shape, ReadCallRequest, which takes requests off
// the connection before cpp-httplib sees them: any bytes a client sends reach it.
//
// Besides memory errors: a request it takes lies within the bytes given, starts with the
// request line and ends its head with an empty line right before a body of exactly the
// announced length; the same bytes cut to the request read the same, and any shorter prefix
// is not taken (a request whose body is still on its way waits for the rest). The answer's
// head for each status it answers ends with an empty line and announces the body's length.

#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <string>

#include "call_request.h"

namespace {

void Check(bool condition, const char* what, size_t size) {
    if (!condition) {
        fprintf(stderr, "call_request_fuzzer: invariant broken: %s (input of %zu bytes)\n", what,
                size);
        abort();
    }
}

bool SameFields(const tezad::CallRequest& a, const tezad::CallRequest& b) {
    auto same = [](const tezad::FieldValue& x, const tezad::FieldValue& y) {
        return x.present == y.present && x.value == y.value;
    };
    return a.size == b.size && a.bodyLength == b.bodyLength &&
           same(a.authorization, b.authorization) && same(a.apiVersion, b.apiVersion) &&
           same(a.serverType, b.serverType) && same(a.acceptEncoding, b.acceptEncoding);
}

void CheckTaken(const char* data, size_t size, const tezad::CallRequest& request) {
    static const char kRequestLine[] = "POST /teza HTTP/1.1\r\n";
    Check(request.size <= size, "the request lies within the bytes", size);
    Check(request.body != nullptr && request.body >= data &&
              request.body + request.bodyLength == data + request.size,
          "the body ends the request", size);
    const size_t head = static_cast<size_t>(request.body - data);
    Check(head >= sizeof kRequestLine - 1 + 2 && head <= tezad::kCallRequestMaxHead,
          "the head holds the request line and an empty line, within its limit", size);
    Check(memcmp(data, kRequestLine, sizeof kRequestLine - 1) == 0, "the request line", size);
    Check(memcmp(request.body - 4, "\r\n\r\n", 4) == 0, "the head ends with an empty line", size);

    tezad::CallRequest again;
    Check(tezad::ReadCallRequest(data, request.size, &again) && SameFields(request, again),
          "the request alone reads the same", size);
    for (size_t shorter : {request.size - 1, head, head - 1, head / 2}) {
        if (shorter < request.size) {
            Check(!tezad::ReadCallRequest(data, shorter, &again), "a prefix is not taken", size);
        }
    }
}

void CheckHeads() {
    for (int status : {200, 400, 401, 500}) {
        Check(tezad::CallResponseStatus(status), "a status it answers", 0);
        const std::string head = tezad::CallResponseHead(status, status == 200, 123, 30, 100);
        Check(head.size() > 4 && head.compare(head.size() - 4, 4, "\r\n\r\n") == 0 &&
                  head.find("Content-Length: 123\r\n") != std::string::npos,
              "an answer's head", 0);
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t size) {
    static const bool heads_checked = (CheckHeads(), true);
    (void)heads_checked;
    // A copy of exactly `size` bytes, so that reading past them is a reported error.
    char* data = static_cast<char*>(malloc(size == 0 ? 1 : size));
    if (size > 0) {
        memcpy(data, bytes, size);
    }
    tezad::CallRequest request;
    if (tezad::ReadCallRequest(data, size, &request)) {
        CheckTaken(data, size, request);
    }
    free(data);
    return 0;
}
