// The HTTP(S) front end of tezad: accepts connections on a TCP port or a Unix socket, reads
// TEZA calls (POST /teza), hands them to a ServiceCore and sends its replies, scripted faults
// included. cpp-httplib parses and writes the HTTP; this class owns the connections, with
// keep-alive, TCP_NODELAY and optional TLS.
//
// A pool of worker threads serves the connections. A worker stays with its connection while
// no other connection waits for a worker, so that a busy client pays no hand-over between
// calls; an idle connection is otherwise parked with a watcher thread, which hands it back to
// the pool when its next request arrives. Open connections are therefore not limited by the
// number of workers.
//
// Start, Stop and the accessors are called from one controlling thread.
#ifndef TEZAD_HTTP_HTTP_FRONT_END_H_
#define TEZAD_HTTP_HTTP_FRONT_END_H_

#include <stddef.h>
#include <stdint.h>

#include <atomic>
#include <memory>
#include <string>
#include <thread>

#include "service_core.h"

namespace tezad {

struct HttpOptions {
    std::string address = "127.0.0.1";  // loopback unless told otherwise
    int port = 0;                       // 0: a free port, chosen at Start
    std::string unixPath;               // when set, listen on this Unix socket instead
    std::string certFile;               // TLS when set, with `keyFile`
    std::string keyFile;
    std::string clientCaFile;     // when set, clients must show a certificate signed by it
    int threads = 8;              // connections served at once
    int keepAliveSeconds = 30;    // an idle connection is closed after this long
    int readTimeoutSeconds = 10;  // for the rest of a request once it has begun
    size_t maxRequestBytes = 64u << 20;
    // XML answers longer than this are sent gzip-compressed to clients that accept gzip;
    // 0 sends every answer as it is.
    size_t gzipAboveBytes = 4096;
    bool verbose = false;  // one log line per connection on stderr
};

class HttpFrontEnd {
  public:
    // `core` must outlive this object.
    HttpFrontEnd(ServiceCore* core, HttpOptions options);
    // Stops, if still running.
    ~HttpFrontEnd();
    HttpFrontEnd(const HttpFrontEnd&) = delete;
    HttpFrontEnd& operator=(const HttpFrontEnd&) = delete;

    // Binds and starts serving on a thread of its own. False, with a reason, when the TLS
    // files cannot be used or the address cannot be bound.
    bool Start(std::string* error);
    // The port listened on (0 for a Unix socket).
    int port() const { return _port; }
    // "http://127.0.0.1:PORT", "https://..." or "unix:PATH".
    std::string url() const;
    // Calls read and answered without cpp-httplib since the start (call_request.h).
    uint64_t callsReadDirectly() const;
    // Stops accepting, ends scripted delays, closes every connection once its call in
    // progress is answered, and waits for the serving threads.
    void Stop();

    class Server;          // the cpp-httplib server
    class ConnectionPool;  // the workers and the watcher

  private:
    ServiceCore* const _core;
    const HttpOptions _options;
    int _port = 0;
    std::unique_ptr<Server> _server;
    std::unique_ptr<ConnectionPool> _pool;
    std::thread _listener;
    std::atomic<bool> _listenerEnded{false};
};

}  // namespace tezad

#endif  // TEZAD_HTTP_HTTP_FRONT_END_H_
