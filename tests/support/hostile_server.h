// Test support: an HTTP server on 127.0.0.1 that misbehaves on purpose. Each accepted connection
// is handed to a behaviour on a thread of its own; the behaviour reads requests and writes
// whatever bytes it likes, as slowly as it likes, and may close or reset the connection. The
// server counts the connections it accepted and the requests it read, listens before its port
// is handed out, and stops by itself at destruction: every wait of a behaviour ends then.
#ifndef TEZA_TESTS_HOSTILE_SERVER_H_
#define TEZA_TESTS_HOSTILE_SERVER_H_

#include <atomic>
#include <chrono>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace teza_test {

// The XML of a passed TEZA result and an HTTP/1.1 answer carrying it.
extern const char kPassedResult[];
std::string PassedAnswer();
// "HTTP/1.1 200 OK" with `extraHeaders` (each ending in "\r\n"), a Content-Length and `body`.
std::string Answer(const std::string& body, const std::string& extraHeaders = "",
                   const std::string& statusLine = "HTTP/1.1 200 OK");

class HostileServer {
  public:
    // One accepted connection, as a behaviour sees it. Every call returns false once the
    // client has gone or the server is stopping; the behaviour should then return.
    class Peer {
      public:
        // Reads one request: the header lines up to the blank line and as many body bytes as
        // its Content-Length says. Counts it in the server's requests().
        bool ReadRequest();
        bool Write(const std::string& bytes);
        // Writes `bytes` `piece` bytes at a time with `pause` between the pieces.
        bool Trickle(const std::string& bytes, size_t piece, std::chrono::milliseconds pause);
        bool Sleep(std::chrono::milliseconds duration);
        // Waits until the client closes the connection or the server stops.
        void WaitForClose();
        // Closes the connection with a reset (RST) instead of an orderly close.
        void Reset();
        // The connection number, 0 for the first accepted; requests read on this connection.
        int index() const { return _index; }
        int requests() const { return _requests; }
        int fd() const { return _fd; }
        // The last request read, header lines and body.
        const std::string& request() const { return _request; }

      private:
        friend class HostileServer;
        Peer(HostileServer* server, int fd, int index) : _server(server), _fd(fd), _index(index) {}
        bool WaitFor(short events, std::chrono::milliseconds timeout);

        HostileServer* _server;
        int _fd;
        int _index;
        int _requests = 0;
        std::string _pending;  // bytes read past the last request
        std::string _request;
    };
    using Behaviour = std::function<void(Peer&)>;

    // Starts listening at construction (a failure fails the test). With `accept` false the
    // server listens but never accepts: connections wait in the kernel's queue.
    explicit HostileServer(Behaviour behaviour, bool accept = true);
    ~HostileServer();
    HostileServer(const HostileServer&) = delete;
    HostileServer& operator=(const HostileServer&) = delete;

    int port() const { return _port; }
    int connections() const { return _connections.load(); }
    int requests() const { return _requests.load(); }
    // Connections whose behaviour has returned (and which are closed).
    int closed() const { return _closed.load(); }
    // Polls until closed() reaches `count`, for at most two seconds.
    bool WaitUntilClosed(int count) const;

  private:
    void AcceptLoop();
    void Serve(int fd, int index);

    Behaviour _behaviour;
    int _listenFd = -1;
    int _port = 0;
    int _wake[2] = {-1, -1};  // written at destruction: wakes every wait
    std::atomic<bool> _stopping{false};
    std::atomic<int> _connections{0};
    std::atomic<int> _requests{0};
    std::atomic<int> _closed{0};
    std::thread _acceptor;
    std::mutex _mutex;
    std::vector<std::thread> _threads;  // guarded by _mutex
};

}  // namespace teza_test

#endif  // TEZA_TESTS_HOSTILE_SERVER_H_
