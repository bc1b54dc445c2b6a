// gzip for tezad's answers: whether a request accepts it, and the compression itself (zlib).
#ifndef TEZAD_HTTP_GZIP_BODY_H_
#define TEZAD_HTTP_GZIP_BODY_H_

#include <stddef.h>
#include <stdint.h>

#include <condition_variable>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

struct z_stream_s;

namespace tezad {

// True when an Accept-Encoding value lists gzip (or x-gzip, or *) without q=0.
bool AcceptsGzip(const std::string& acceptEncoding);

// Bodies longer than this are compressed at zlib's fastest level instead of its default one.
const size_t kGzipFastAboveBytes = 1u << 20;

// The zlib level for a body of `size` bytes. Up to a mebibyte the default level costs a few
// milliseconds at most and saves a fifth more of the bytes; above, the fastest level takes
// less than half the time (62 ms against 145 for a 19 MB list of records) and still shrinks
// the body about nine times (0.108 of it against 0.083).
int GzipLevel(size_t size);

// `body` in the gzip format, at GzipLevel(body.size()); false (and `out` unspecified) when
// zlib fails.
bool GzipCompress(const std::string& body, std::string* out);

// One gzip stream of a body sent as it is made, compressed on worker threads while the body
// is still being written. The body is cut into blocks of kGzipBlockBytes; each is deflated
// with the 32 KiB before it as its dictionary and ends on a byte boundary (a sync flush), so
// the blocks joined in order are a single deflate stream, and the whole is one gzip member
// that any gzip reader takes. The bytes differ from GzipCompress's, with about as many of them
// (each block's flush adds a few, the dictionaries win about as many back); they decompress to
// the same body. What is compressed is handed on
// in order, from the thread that calls Add and Finish, as soon as it is ready.
class GzipStream {
  public:
    // Receives the compressed bytes in order; false stops the compression.
    using Output = std::function<bool(const char* data, size_t size)>;

    // A stream at zlib level `level`, compressed by `workers` threads (none: by the caller
    // of Add and Finish); check ok().
    explicit GzipStream(int level, unsigned workers = DefaultWorkers());
    ~GzipStream();
    GzipStream(const GzipStream&) = delete;
    GzipStream& operator=(const GzipStream&) = delete;

    // One worker a processor, from one to four: more would take processors from the
    // connections being served for little gain.
    static unsigned DefaultWorkers();

    bool ok() const { return _ok; }
    // Compresses the next `size` bytes of the body. False when zlib or `out` failed.
    bool Add(const char* data, size_t size, const Output& out);
    // Ends the stream (the rest of the compressed data and the gzip trailer). False when zlib
    // or `out` failed.
    bool Finish(const Output& out);

    // A block of the body and what it compresses to.
    struct Block;

  private:
    void Submit(bool last);
    bool HandOn(const Output& out, bool all);
    void Work();

    const int _level;
    bool _ok = false;
    std::unique_ptr<z_stream_s> _ownStream;       // the caller's, without workers
    std::unique_ptr<Block> _filling;              // the block the body goes into now
    std::string _dictionary;                      // the last 32 KiB put into blocks
    std::deque<std::unique_ptr<Block>> _inOrder;  // submitted and not yet handed on
    size_t _maxInFlight = 1;
    bool _headerSent = false;
    uint32_t _crc = 0;
    uint64_t _length = 0;

    std::mutex _mutex;
    std::condition_variable _work;  // a block to compress, or stopping
    std::condition_variable _done;  // a block compressed
    std::deque<Block*> _queue;      // waiting for a worker
    bool _stopping = false;
    std::vector<std::thread> _workers;
};

// Bytes of body compressed as one block of a GzipStream: large enough that a block's
// dictionary and sync flush cost little, small enough that the first bytes leave early.
const size_t kGzipBlockBytes = 256u << 10;

}  // namespace tezad

#endif  // TEZAD_HTTP_GZIP_BODY_H_
