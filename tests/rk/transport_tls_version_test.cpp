// librk requires TLS 1.2 or later by itself, whatever the system's OpenSSL configuration
// allows. OpenSSL reads its configuration once, when it starts, so each case runs in a process
// of its own (a death test re-executes the test binary) whose OPENSSL_CONF allows TLS 1.0 and
// every cipher; a server offering only TLS 1.0 and 1.1 runs in that process.

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <fcntl.h>
#include <memory>
#include <string>

#include "hostile_server.h"
#include "rk.h"
#include "test_server.h"

namespace teza_test {
namespace {

const char kPermissiveConfig[] =
    "openssl_conf = openssl_init\n"
    "[openssl_init]\n"
    "ssl_conf = ssl_sect\n"
    "[ssl_sect]\n"
    "system_default = system_default_sect\n"
    "[system_default_sect]\n"
    "MinProtocol = TLSv1\n"
    "CipherString = DEFAULT:@SECLEVEL=0\n";

struct CtxFree {
    void operator()(SSL_CTX* ctx) const { SSL_CTX_free(ctx); }
};
using CtxPtr = std::unique_ptr<SSL_CTX, CtxFree>;
struct SslFree {
    void operator()(SSL* ssl) const { SSL_free(ssl); }
};
using SslPtr = std::unique_ptr<SSL, SslFree>;

// Blocking, with a bound on every read and write so that a stuck handshake ends.
void MakeBlocking(int fd) {
    fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) & ~O_NONBLOCK);
    timeval bound = {5, 0};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &bound, sizeof bound);
    setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &bound, sizeof bound);
}

// A server context that offers TLS 1.0 and 1.1 only, with ciphers of the time.
CtxPtr OldTlsServerContext(const TempDir& dir) {
    CtxPtr ctx(SSL_CTX_new(TLS_server_method()));
    if (ctx == nullptr) {
        return nullptr;
    }
    SSL_CTX_set_security_level(ctx.get(), 0);
    SSL_CTX_set_cipher_list(ctx.get(), "AES128-SHA:AES256-SHA:@SECLEVEL=0");
    SSL_CTX_set_min_proto_version(ctx.get(), TLS1_VERSION);
    SSL_CTX_set_max_proto_version(ctx.get(), TLS1_1_VERSION);
    if (SSL_CTX_use_certificate_file(ctx.get(), dir.File("server.pem").c_str(), SSL_FILETYPE_PEM) !=
            1 ||
        SSL_CTX_use_PrivateKey_file(ctx.get(), dir.File("server.key").c_str(), SSL_FILETYPE_PEM) !=
            1) {
        return nullptr;
    }
    return ctx;
}

// What runs in the child: 0 when librk refused the handshake while OpenSSL itself, configured
// by the same file, completes a TLS 1.0 handshake with the server; otherwise a number saying
// what went wrong, with a line on the standard error.
int OldTlsScenario() {
    TempDir dir;
    setenv("OPENSSL_CONF", dir.Write("permissive.cnf", kPermissiveConfig).c_str(), 1);
    // An RSA key, for the RSA key exchange of the server's ciphers: OpenSSL 3 refuses the
    // SHA-1 signatures of an (EC)DHE exchange under TLS 1.0 even at security level 0.
    const std::string command =
        "openssl req -x509 -newkey rsa:2048 -nodes -days 2 -subj '/CN=old tls' "
        "-addext 'subjectAltName=IP:127.0.0.1' -keyout '" +
        dir.File("server.key") + "' -out '" + dir.File("server.pem") + "' 2>&1";
    std::string output;
    if (RunCommand(command, &output) != 0) {
        fprintf(stderr, "%s\n%s\n", command.c_str(), output.c_str());
        return 2;
    }
    CtxPtr serverCtx = OldTlsServerContext(dir);
    if (serverCtx == nullptr) {
        fprintf(stderr, "cannot make the server's TLS context\n");
        return 3;
    }
    HostileServer server([&serverCtx](HostileServer::Peer& peer) {
        MakeBlocking(peer.fd());
        SslPtr ssl(SSL_new(serverCtx.get()));
        SSL_set_fd(ssl.get(), peer.fd());
        if (SSL_accept(ssl.get()) != 1) {
            ERR_print_errors_fp(stderr);
            return;
        }
        // Answers one call, so that a client allowed to use TLS 1.0 passes.
        char buffer[16384];
        if (SSL_read(ssl.get(), buffer, sizeof buffer) > 0) {
            std::string answer = PassedAnswer();
            SSL_write(ssl.get(), answer.data(), static_cast<int>(answer.size()));
        }
        SSL_shutdown(ssl.get());
    });

    // The environment does allow TLS 1.0: a client of OpenSSL's defaults gets through.
    CtxPtr clientCtx(SSL_CTX_new(TLS_client_method()));
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(server.port()));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (clientCtx == nullptr ||
        connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
        fprintf(stderr, "cannot connect to the old TLS server\n");
        return 4;
    }
    MakeBlocking(fd);
    SslPtr ssl(SSL_new(clientCtx.get()));
    SSL_set_fd(ssl.get(), fd);
    const bool handshake = SSL_connect(ssl.get()) == 1;
    const int version = SSL_version(ssl.get());
    SSL_shutdown(ssl.get());
    ssl.reset();
    close(fd);
    if (!handshake || version > TLS1_1_VERSION) {
        fprintf(stderr, "the permissive configuration did not allow TLS 1.0 or 1.1 (%x)\n",
                version);
        ERR_print_errors_fp(stderr);
        return 5;
    }

    if (rk_startup(nullptr, 0) == 0) {
        return 6;
    }
    int status = 0;
    {
        ServerPtr h = OpenHandle("127.0.0.1", server.port(), RK_TRANSPORT_HTTPS);
        rk_server_set_ca_file(h.get(), dir.File("server.pem").c_str());
        rk_server_set_timeout(h.get(), 5);
        Outcome outcome = Call(h.get(), "system-get-corvi-version");
        if (outcome.errnum != RK_ERR_TLS_HANDSHAKE) {
            fprintf(stderr, "librk against TLS 1.0 and 1.1: %d %s\n", outcome.errnum,
                    outcome.reason.c_str());
            status = 7;
        }
    }
    rk_shutdown();
    return status;
}

TEST(TlsVersion, OnlyTls10And11OfferedFailsTheHandshake) {
    EXPECT_EXIT(_exit(OldTlsScenario()), ::testing::ExitedWithCode(0), "");
}

}  // namespace
}  // namespace teza_test
