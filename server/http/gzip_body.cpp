#include "gzip_body.h"

#include <stdint.h>
#include <stdlib.h>
#include <strings.h>
#include <zlib.h>

#include <algorithm>
#include <new>
#include <system_error>

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

struct GzipStream::Block {
    std::string input;
    std::string dictionary;  // the 32 KiB of body before input
    bool last = false;
    // Set by the compression.
    std::string output;
    uint32_t crc = 0;
    bool ok = false;
    bool done = false;  // under the stream's mutex
};

namespace {

const size_t kDictionaryBytes = 32u << 10;  // deflate's window

// Raw deflate (no wrapper): the stream's gzip header and trailer are written around the blocks.
bool InitRawDeflate(z_stream* stream, int level) {
    return deflateInit2(stream, level, Z_DEFLATED, -15, 8, Z_DEFAULT_STRATEGY) == Z_OK;
}

// Deflates one block with `stream`, ending it on a byte boundary, or ending the deflate stream
// for the last one; and takes its CRC.
bool CompressBlock(z_stream* stream, GzipStream::Block* block) {
    if (deflateReset(stream) != Z_OK) {
        return false;
    }
    const std::string& dictionary = block->dictionary;
    if (!dictionary.empty() &&
        deflateSetDictionary(stream, reinterpret_cast<const Bytef*>(dictionary.data()),
                             static_cast<uInt>(dictionary.size())) != Z_OK) {
        return false;
    }
    const std::string& input = block->input;
    std::string& output = block->output;
    // Text shrinks to a tenth or so: a quarter is room enough, grown for what does not shrink.
    output.resize(input.size() / 4 + 1024);
    stream->next_in = reinterpret_cast<Bytef*>(const_cast<char*>(input.data()));
    stream->avail_in = static_cast<uInt>(input.size());
    const int flush = block->last ? Z_FINISH : Z_SYNC_FLUSH;
    for (;;) {
        stream->next_out = reinterpret_cast<Bytef*>(&output[stream->total_out]);
        stream->avail_out = static_cast<uInt>(output.size() - stream->total_out);
        const int status = deflate(stream, flush);
        if (status == Z_STREAM_ERROR) {
            return false;
        }
        const bool finished =
            block->last ? status == Z_STREAM_END : stream->avail_in == 0 && stream->avail_out > 0;
        if (finished) {
            break;
        }
        output.resize(output.size() * 2);
    }
    output.resize(stream->total_out);
    block->crc = static_cast<uint32_t>(
        crc32_z(0, reinterpret_cast<const Bytef*>(input.data()), input.size()));
    return true;
}

void AppendLittleEndian32(std::string* out, uint32_t value) {
    for (int i = 0; i < 4; ++i) {
        out->push_back(static_cast<char>((value >> (8 * i)) & 0xff));
    }
}

}  // namespace

unsigned GzipStream::DefaultWorkers() {
    const unsigned processors = std::thread::hardware_concurrency();
    return std::max(1u, std::min(4u, processors));
}

GzipStream::GzipStream(int level, unsigned workers) : _level(level) {
    // Checks the level once, for every worker's stream alike.
    z_stream probe = {};
    if (!InitRawDeflate(&probe, level)) {
        return;
    }
    deflateEnd(&probe);
    _workers.reserve(workers);
    try {
        for (unsigned i = 0; i < workers; ++i) {
            _workers.emplace_back(&GzipStream::Work, this);
        }
    } catch (const std::system_error&) {
        // The system gives no more threads: those started do the work, or the caller alone.
    }
    if (_workers.empty()) {
        _ownStream.reset(new z_stream_s());
        _ok = InitRawDeflate(_ownStream.get(), level);
        if (!_ok) {
            _ownStream.reset();
        }
        return;
    }
    _ok = true;
    // Enough blocks in flight to keep every worker busy while the first waits to be sent.
    _maxInFlight = 2 * _workers.size();
}

GzipStream::~GzipStream() {
    {
        std::lock_guard<std::mutex> lock(_mutex);
        _stopping = true;
    }
    _work.notify_all();
    for (std::thread& worker : _workers) {
        worker.join();
    }
    if (_ownStream != nullptr) {
        deflateEnd(_ownStream.get());
    }
}

void GzipStream::Work() {
    z_stream stream = {};
    const bool ready = InitRawDeflate(&stream, _level);
    for (;;) {
        Block* block = nullptr;
        {
            std::unique_lock<std::mutex> lock(_mutex);
            _work.wait(lock, [this] { return _stopping || !_queue.empty(); });
            if (_stopping) {
                break;
            }
            block = _queue.front();
            _queue.pop_front();
        }
        try {
            block->ok = ready && CompressBlock(&stream, block);
        } catch (const std::bad_alloc&) {
            block->ok = false;  // the stream fails; the server goes on
        }
        {
            std::lock_guard<std::mutex> lock(_mutex);
            block->done = true;
        }
        _done.notify_all();
    }
    if (ready) {
        deflateEnd(&stream);
    }
}

bool GzipStream::Add(const char* data, size_t size, const Output& out) {
    if (!_ok) {
        return false;
    }
    while (size > 0) {
        if (_filling == nullptr) {
            _filling.reset(new Block());
            _filling->input.reserve(kGzipBlockBytes);
        }
        const size_t taken = std::min(size, kGzipBlockBytes - _filling->input.size());
        _filling->input.append(data, taken);
        data += taken;
        size -= taken;
        if (_filling->input.size() == kGzipBlockBytes) {
            Submit(false);
            if (!HandOn(out, false)) {
                return false;
            }
        }
    }
    return true;
}

bool GzipStream::Finish(const Output& out) {
    if (!_ok) {
        return false;
    }
    if (_filling == nullptr) {
        _filling.reset(new Block());
    }
    Submit(true);
    return HandOn(out, true);
}

// Gives the filled block its dictionary and hands it to a worker (or compresses it at once).
void GzipStream::Submit(bool last) {
    std::unique_ptr<Block> block = std::move(_filling);
    block->last = last;
    block->dictionary = _dictionary;
    const std::string& input = block->input;
    if (!last) {
        if (input.size() >= kDictionaryBytes) {
            _dictionary.assign(input, input.size() - kDictionaryBytes, kDictionaryBytes);
        } else {
            _dictionary += input;
            if (_dictionary.size() > kDictionaryBytes) {
                _dictionary.erase(0, _dictionary.size() - kDictionaryBytes);
            }
        }
    }
    Block* submitted = block.get();
    _inOrder.push_back(std::move(block));
    if (_ownStream != nullptr) {
        submitted->ok = CompressBlock(_ownStream.get(), submitted);
        submitted->done = true;
        return;
    }
    {
        std::lock_guard<std::mutex> lock(_mutex);
        _queue.push_back(submitted);
    }
    _work.notify_one();
}

// Hands on the compressed blocks at the front, in order: those done, waiting for more only
// while too many are in flight, or for every one with `all`. The gzip header goes with the
// first block and the trailer with the last.
bool GzipStream::HandOn(const Output& out, bool all) {
    while (!_inOrder.empty()) {
        Block* front = _inOrder.front().get();
        {
            std::unique_lock<std::mutex> lock(_mutex);
            if (!front->done && !all && _inOrder.size() <= _maxInFlight) {
                return true;
            }
            _done.wait(lock, [front] { return front->done; });
        }
        if (!front->ok) {
            _ok = false;
            return false;
        }
        std::string& output = front->output;
        if (!_headerSent) {
            // Magic, deflate, no flags, no time, the extra flags zlib gives a level (4: the
            // fastest, 2: the best), and Unix as the system.
            const int level = _level == Z_DEFAULT_COMPRESSION ? 6 : _level;
            const char extra = level == 9 ? 2 : level < 2 ? 4 : 0;
            const char header[10] = {'\x1f', '\x8b', 8, 0, 0, 0, 0, 0, extra, 3};
            output.insert(0, header, sizeof header);
            _headerSent = true;
        }
        _crc = static_cast<uint32_t>(crc32_combine(_crc, front->crc, front->input.size()));
        _length += front->input.size();
        if (front->last) {
            AppendLittleEndian32(&output, _crc);
            AppendLittleEndian32(&output, static_cast<uint32_t>(_length));  // modulo 2^32
        }
        if (!out(output.data(), output.size())) {
            _ok = false;
            return false;
        }
        _inOrder.pop_front();
    }
    return true;
}

}  // namespace tezad
