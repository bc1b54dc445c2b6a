#include "hostile_server.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <strings.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>

namespace teza_test {

const char kPassedResult[] =
    "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<results status=\"passed\"/>\n";

std::string Answer(const std::string& body, const std::string& extraHeaders,
                   const std::string& statusLine) {
    return statusLine + "\r\nContent-Type: application/xml; charset=utf-8\r\n" + extraHeaders +
           "Content-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body;
}

std::string PassedAnswer() {
    return Answer(kPassedResult);
}

// --- Peer -------------------------------------------------------------------------------------

bool HostileServer::Peer::WaitFor(short events, std::chrono::milliseconds timeout) {
    pollfd fds[2] = {{_fd, events, 0}, {_server->_wake[0], POLLIN, 0}};
    int ready = poll(fds, 2, static_cast<int>(timeout.count()));
    if (ready <= 0 || _server->_stopping.load()) {
        return false;
    }
    return (fds[0].revents & (events | POLLHUP | POLLERR)) != 0;
}

bool HostileServer::Peer::ReadRequest() {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    size_t end = std::string::npos;
    size_t total = 0;
    for (;;) {
        if (end == std::string::npos) {
            end = _pending.find("\r\n\r\n");
            if (end != std::string::npos) {
                total = end + 4;
                // Content-Length, in any case.
                std::string lower = _pending.substr(0, end);
                for (char& c : lower) {
                    c = static_cast<char>(tolower(static_cast<unsigned char>(c)));
                }
                size_t at = lower.find("\r\ncontent-length:");
                if (at != std::string::npos) {
                    total += strtoul(lower.c_str() + at + 17, nullptr, 10);
                }
            }
        }
        if (end != std::string::npos && _pending.size() >= total) {
            _request = _pending.substr(0, total);
            _pending.erase(0, total);
            ++_requests;
            ++_server->_requests;
            return true;
        }
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0 || !WaitFor(POLLIN, left)) {
            return false;
        }
        char buffer[16384];
        ssize_t n = recv(_fd, buffer, sizeof buffer, 0);
        if (n <= 0) {
            return false;
        }
        _pending.append(buffer, static_cast<size_t>(n));
    }
}

bool HostileServer::Peer::Write(const std::string& bytes) {
    size_t done = 0;
    while (done < bytes.size()) {
        if (!WaitFor(POLLOUT, std::chrono::seconds(30))) {
            return false;
        }
        ssize_t n = send(_fd, bytes.data() + done, bytes.size() - done, MSG_NOSIGNAL);
        if (n < 0 && (errno == EAGAIN || errno == EINTR)) {
            continue;
        }
        if (n <= 0) {
            return false;
        }
        done += static_cast<size_t>(n);
    }
    return true;
}

bool HostileServer::Peer::Trickle(const std::string& bytes, size_t piece,
                                  std::chrono::milliseconds pause) {
    for (size_t at = 0; at < bytes.size(); at += piece) {
        if (at != 0 && !Sleep(pause)) {
            return false;
        }
        if (!Write(bytes.substr(at, piece))) {
            return false;
        }
    }
    return true;
}

bool HostileServer::Peer::Sleep(std::chrono::milliseconds duration) {
    pollfd wake = {_server->_wake[0], POLLIN, 0};
    return poll(&wake, 1, static_cast<int>(duration.count())) == 0;
}

void HostileServer::Peer::WaitForClose() {
    char buffer[4096];
    while (WaitFor(POLLIN, std::chrono::seconds(30))) {
        if (recv(_fd, buffer, sizeof buffer, 0) <= 0) {
            return;
        }
    }
}

void HostileServer::Peer::Reset() {
    linger hard = {1, 0};
    setsockopt(_fd, SOL_SOCKET, SO_LINGER, &hard, sizeof hard);
    shutdown(_fd, SHUT_RDWR);
}

// --- Server -----------------------------------------------------------------------------------

HostileServer::HostileServer(Behaviour behaviour, bool accept) : _behaviour(std::move(behaviour)) {
    EXPECT_EQ(pipe2(_wake, O_CLOEXEC), 0);
    _listenFd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    bool listening = _listenFd >= 0 &&
                     bind(_listenFd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0 &&
                     listen(_listenFd, 16) == 0 &&
                     getsockname(_listenFd, reinterpret_cast<sockaddr*>(&address), &length) == 0;
    EXPECT_TRUE(listening) << "the hostile server cannot listen: " << strerror(errno);
    if (listening) {
        _port = ntohs(address.sin_port);
        if (accept) {
            _acceptor = std::thread(&HostileServer::AcceptLoop, this);
        }
    }
}

HostileServer::~HostileServer() {
    _stopping = true;
    if (_wake[1] >= 0) {
        ssize_t ignored = write(_wake[1], "x", 1);
        (void)ignored;
    }
    if (_acceptor.joinable()) {
        _acceptor.join();
    }
    std::vector<std::thread> threads;
    {
        std::lock_guard<std::mutex> lock(_mutex);
        threads.swap(_threads);
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    if (_listenFd >= 0) {
        close(_listenFd);
    }
    close(_wake[0]);
    close(_wake[1]);
}

bool HostileServer::WaitUntilClosed(int count) const {
    for (int i = 0; i < 200; ++i) {
        if (_closed.load() >= count) {
            return true;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return false;
}

void HostileServer::AcceptLoop() {
    for (;;) {
        pollfd fds[2] = {{_listenFd, POLLIN, 0}, {_wake[0], POLLIN, 0}};
        if (poll(fds, 2, -1) < 0 && errno != EINTR) {
            return;
        }
        if (_stopping.load()) {
            return;
        }
        if ((fds[0].revents & POLLIN) == 0) {
            continue;
        }
        int fd = accept4(_listenFd, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
        if (fd < 0) {
            continue;
        }
        int index = _connections++;
        std::lock_guard<std::mutex> lock(_mutex);
        _threads.emplace_back(&HostileServer::Serve, this, fd, index);
    }
}

void HostileServer::Serve(int fd, int index) {
    Peer peer(this, fd, index);
    _behaviour(peer);
    close(fd);
    ++_closed;
}

}  // namespace teza_test
