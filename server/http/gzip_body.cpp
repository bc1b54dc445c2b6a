#include "gzip_body.h"

#include <stdint.h>
#include <stdlib.h>
#include <strings.h>
#include <zlib.h>

namespace tezad {

namespace {

std::string Trim(const std::string& text) {
    const size_t begin = text.find_first_not_of(" \t");
    if (begin == std::string::npos) {
        return "";
    }
    const size_t end = text.find_last_not_of(" \t");
    return text.substr(begin, end - begin + 1);
}

// A deflate stream with the gzip wrapper: 15 window bits, plus 16 for gzip's instead of zlib's.
bool InitGzipDeflate(z_stream* stream, int level) {
    return deflateInit2(stream, level, Z_DEFLATED, 15 + 16, 8, Z_DEFAULT_STRATEGY) == Z_OK;
}

}  // namespace

bool AcceptsGzip(const std::string& acceptEncoding) {
    size_t at = 0;
    while (at <= acceptEncoding.size()) {
        size_t comma = acceptEncoding.find(',', at);
        if (comma == std::string::npos) {
            comma = acceptEncoding.size();
        }
        const std::string item = acceptEncoding.substr(at, comma - at);
        at = comma + 1;
        const size_t semicolon = item.find(';');
        const std::string coding = Trim(item.substr(0, semicolon));
        if (strcasecmp(coding.c_str(), "gzip") != 0 && strcasecmp(coding.c_str(), "x-gzip") != 0 &&
            coding != "*") {
            continue;
        }
        // "q=0", "q=0.0"...: refused; any other weight, or none, accepts.
        if (semicolon != std::string::npos) {
            const std::string parameter = Trim(item.substr(semicolon + 1));
            if ((parameter.rfind("q=", 0) == 0 || parameter.rfind("Q=", 0) == 0) &&
                strtod(parameter.c_str() + 2, nullptr) <= 0.0) {
                continue;
            }
        }
        return true;
    }
    return false;
}

int GzipLevel(size_t size) {
    return size > kGzipFastAboveBytes ? Z_BEST_SPEED : Z_DEFAULT_COMPRESSION;
}

bool GzipCompress(const std::string& body, std::string* out) {
    z_stream stream = {};
    if (!InitGzipDeflate(&stream, GzipLevel(body.size()))) {
        return false;
    }
    out->resize(deflateBound(&stream, static_cast<uLong>(body.size())));
    stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(body.data()));
    stream.avail_in = static_cast<uInt>(body.size());
    stream.next_out = reinterpret_cast<Bytef*>(&(*out)[0]);
    stream.avail_out = static_cast<uInt>(out->size());
    const int status = deflate(&stream, Z_FINISH);
    out->resize(stream.total_out);
    deflateEnd(&stream);
    return status == Z_STREAM_END;
}

GzipStream::GzipStream(int level) : _stream(new z_stream_s()), _buffer(64u << 10, '\0') {
    _ok = InitGzipDeflate(_stream.get(), level);
}

GzipStream::~GzipStream() {
    if (_ok) {
        deflateEnd(_stream.get());
    }
}

bool GzipStream::Add(const char* data, size_t size, const Output& out) {
    return Deflate(data, size, Z_NO_FLUSH, out);
}

bool GzipStream::Finish(const Output& out) {
    return Deflate(nullptr, 0, Z_FINISH, out);
}

bool GzipStream::Deflate(const char* data, size_t size, int flush, const Output& out) {
    if (!_ok || size > UINT32_MAX) {
        return false;
    }
    z_stream_s* stream = _stream.get();
    stream->next_in = reinterpret_cast<Bytef*>(const_cast<char*>(data));
    stream->avail_in = static_cast<uInt>(size);
    // Until deflate has taken all the input (and, finishing, written the trailer) with room
    // left in the buffer.
    for (;;) {
        stream->next_out = reinterpret_cast<Bytef*>(&_buffer[0]);
        stream->avail_out = static_cast<uInt>(_buffer.size());
        const int status = deflate(stream, flush);
        if (status == Z_STREAM_ERROR) {
            return false;
        }
        const size_t produced = _buffer.size() - stream->avail_out;
        if (produced > 0 && !out(_buffer.data(), produced)) {
            return false;
        }
        if (stream->avail_out > 0 && (flush != Z_FINISH || status == Z_STREAM_END)) {
            return true;
        }
    }
}

}  // namespace tezad
