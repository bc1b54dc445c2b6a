#include "call_answer.h"

#include <stdio.h>

#include <algorithm>
#include <memory>
#include <new>
#include <string>

#include "call_request.h"
#include "gzip_body.h"

namespace tezad {

namespace {

const char kDeclaration[] = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n";

// Sends the chunks of a chunked body; the head goes out with the first of them.
class ChunkSender {
  public:
    ChunkSender(std::string head, const SendParts& send) : _head(std::move(head)), _send(send) {}

    // One chunk of `size` bytes; an empty one is not sent, as it would end the body.
    bool Chunk(const char* data, size_t size) {
        if (size == 0) {
            return true;
        }
        char line[24];
        const int lineLength = snprintf(line, sizeof line, "%zx\r\n", size);
        struct iovec parts[] = {{&_head[0], _head.size()},
                                {line, static_cast<size_t>(lineLength)},
                                {const_cast<char*>(data), size},
                                {const_cast<char*>("\r\n"), 2}};
        return SendAfterHead(parts, 4);
    }
    // The last chunk, which ends the body.
    bool End() {
        struct iovec parts[] = {{&_head[0], _head.size()}, {const_cast<char*>("0\r\n\r\n"), 5}};
        return SendAfterHead(parts, 2);
    }

  private:
    bool SendAfterHead(struct iovec* parts, size_t count) {
        const bool withHead = !_head.empty();
        const bool sent = withHead ? _send(parts, count) : _send(parts + 1, count - 1);
        _head.clear();
        return sent;
    }

    std::string _head;  // until it is sent
    const SendParts& _send;
};

// Receives the pieces of the text from rk_elem_write: gathers them while the answer may still
// leave whole, and sends them as chunks once it is too long for that.
class AnswerWriter {
  public:
    AnswerWriter(const AnswerForm& form, const SendParts& send)
        : _form(form),
          _send(send),
          _streamAbove(form.gzip ? std::max(kStreamAboveBytes, form.gzipAboveBytes)
                                 : kStreamAboveBytes) {
        _text = kDeclaration;
    }

    bool Send(rk_elem_t* result) {
        const int written = rk_elem_write(result, kAnswerPieceBytes, &AnswerWriter::Take, this);
        if (_chunks == nullptr) {
            if (written == 0) {
                throw std::bad_alloc();  // nothing was sent
            }
            return SendWhole();
        }
        return written != 0 && !_failed && Finish();
    }

  private:
    static int Take(void* context, const char* data, size_t size) {
        auto* self = static_cast<AnswerWriter*>(context);
        try {
            return self->Piece(data, size) ? 1 : 0;
        } catch (...) {
            self->_failed = true;
            return 0;
        }
    }

    bool Piece(const char* data, size_t size) {
        if (_chunks != nullptr) {
            return Stream(data, size);
        }
        _text.append(data, size);
        if (_text.size() <= _streamAbove) {
            return true;
        }
        // Too long to leave whole: what is gathered becomes the first chunks.
        if (_form.gzip) {
            _gzip = std::make_unique<GzipStream>(GzipLevel(_text.size()));
            if (!_gzip->ok()) {
                _gzip.reset();  // sent as it is, as a whole answer that zlib cannot compress
            }
        }
        _chunks = std::make_unique<ChunkSender>(
            CallResponseChunkedHead(_form.status, _gzip != nullptr, _form.keepAliveSeconds,
                                    _form.maxCallsPerConnection),
            _send);
        std::string gathered;
        gathered.swap(_text);
        return Stream(gathered.data(), gathered.size());
    }

    bool Stream(const char* data, size_t size) {
        const bool sent =
            _gzip != nullptr ? _gzip->Add(data, size, ChunkOutput()) : _chunks->Chunk(data, size);
        _failed = _failed || !sent;
        return sent;
    }

    GzipStream::Output ChunkOutput() {
        return [this](const char* data, size_t size) { return _chunks->Chunk(data, size); };
    }

    bool Finish() { return (_gzip == nullptr || _gzip->Finish(ChunkOutput())) && _chunks->End(); }

    // The form every answer had before: one write, with the length.
    bool SendWhole() {
        std::string compressed;
        const bool gzip =
            _form.gzip && _text.size() > _form.gzipAboveBytes && GzipCompress(_text, &compressed);
        const std::string& body = gzip ? compressed : _text;
        std::string head = CallResponseHead(_form.status, gzip, body.size(), _form.keepAliveSeconds,
                                            _form.maxCallsPerConnection);
        struct iovec parts[] = {{&head[0], head.size()},
                                {const_cast<char*>(body.data()), body.size()}};
        return _send(parts, 2);
    }

    const AnswerForm& _form;
    const SendParts& _send;
    const size_t _streamAbove;
    std::string _text;                     // gathered while the answer may leave whole
    std::unique_ptr<ChunkSender> _chunks;  // once it is sent in chunks
    std::unique_ptr<GzipStream> _gzip;
    bool _failed = false;
};

}  // namespace

bool SendCallAnswer(rk_elem_t* result, const AnswerForm& form, const SendParts& send) {
    return AnswerWriter(form, send).Send(result);
}

}  // namespace tezad
