// What the benchmarks share: a tezad child process on loopback, a temporary directory with a
// self-signed certificate, the hand-written element code that the runtime's mapping is
// measured against, and small helpers for handles and descriptors. Benchmark-only code.
#ifndef TEZA_BENCH_BENCH_SUPPORT_H_
#define TEZA_BENCH_BENCH_SUPPORT_H_

#include <curl/curl.h>
#include <stdint.h>
#include <sys/types.h>

#include <memory>
#include <string>
#include <vector>

#include "TezaServerConnection.h"
#include "bench.h"
#include "rk.h"

namespace teza_bench {

// The credentials and API version every server of the benchmarks expects.
extern const char kLogin[];     // "admin"
extern const char kPassword[];  // "secret"
const int kMajor = 1;
const int kMinor = 21;

// Ends the process with a message: the benchmarks measure nothing once set-up failed.
[[noreturn]] void Die(const std::string& message);

struct ElemFree {
    void operator()(rk_elem_t* elem) const { rk_elem_free(elem); }
};
using ElemPtr = std::unique_ptr<rk_elem_t, ElemFree>;
struct ServerClose {
    void operator()(rk_server_t* server) const { rk_server_close(server); }
};
using ServerPtr = std::unique_ptr<rk_server_t, ServerClose>;

// A directory removed with its contents at destruction.
class TempDir {
  public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;
    std::string File(const std::string& name) const { return _path + "/" + name; }

  private:
    std::string _path;
};

// Writes `dir`/server.pem and `dir`/server.key, a self-signed certificate for 127.0.0.1,
// with the openssl command; dies when that fails.
void MakeCertificate(const TempDir& dir);

// A tezad executable listening on 127.0.0.1 and a free port, with the benchmarks' user and
// API version, and HTTPS when `tls` is set, plus the options `extraArgs`. Stopped with SIGTERM
// at destruction.
class Tezad {
  public:
    explicit Tezad(bool tls, const std::vector<std::string>& extraArgs = {});
    ~Tezad();
    Tezad(const Tezad&) = delete;
    Tezad& operator=(const Tezad&) = delete;

    int port() const { return _port; }
    // The CA file that trusts the server's certificate; empty over HTTP.
    std::string caFile() const { return _tls ? _dir.File("server.pem") : std::string(); }

    // The process-wide servers, started on first use.
    static Tezad& Http();
    static Tezad& Https();

  private:
    TempDir _dir;
    bool _tls;
    pid_t _pid = -1;
    int _port = 0;
};

// A handle configured as the runtime configures the handles it opens (style, server type,
// transport, port, user, time-out), plus the CA file when not empty. Not yet connected.
ServerPtr OpenHandle(const std::string& host, int transport, int port,
                     const std::string& caFile = std::string());

// The runtime's descriptor for the same endpoint.
TezaServerConnection Descriptor(const std::string& host, TezaServerConnection::Transport transport,
                                int port);

// Sends the version probe on `server`; true when it passed.
bool Probe(rk_server_t* server);

// Starts the runtime (TezaWrapper::init) once for the process; dies when it fails.
void StartRuntime();

// An in-process server handler (rk_inprocess_register) that answers every call, the version
// probe included, with a passed result holding copies of the request's children.
rk_elem_t* EchoRequest(void* context, const rk_inprocess_call_t* call, rk_elem_t* request);

// ---- Records and the hand-written element code they are measured against -----------------

// Plain C++ counterparts of the generated records, filled and read by hand-written rk_ code.
struct PointData {
    int32_t x = 0;
    int32_t y = 0;
    std::string label;
};

struct Record20Data {
    std::string name;
    std::string secret;
    int32_t small = 0;
    int32_t negative = 0;
    uint32_t count = 0;
    uint32_t limit = 0;
    int64_t offset = 0;
    int64_t stamp = 0;
    uint64_t size = 0;
    uint64_t id = 0;
    bool enabled = false;
    PointData origin;
    PointData point;
    std::vector<PointData> corners;
    std::vector<std::string> texts;
    std::vector<int32_t> smalls;
    std::vector<uint32_t> counts;
    std::vector<int64_t> offsets;
    std::vector<uint64_t> sizes;
    std::vector<bool> flags;
};

struct ItemData {
    uint64_t id = 0;
    std::string name;
    int32_t quantity = 0;
    bool active = false;
};

// The same values twice: as plain data and as a generated record.
Record20Data MakeRecord20Data();
bench::Record20 ToRecord(const Record20Data& data);
std::vector<ItemData> MakeItems(int count);
bench::Batch ToBatch(const std::vector<ItemData>& items);

// Hand-written writers: the children the runtime's constructRkChildElement writes for the
// same values, in the same order, under `elem`.
void WriteRecord20(rk_elem_t* elem, const Record20Data& data);
void WriteBatch(rk_elem_t* elem, const std::vector<ItemData>& items);

// Hand-written readers: what parseRkChildElement reads, with the same conversions (entity
// decoding of texts, base-10 numbers, the runtime's booleans).
void ReadRecord20(rk_elem_t* elem, Record20Data* data);
void ReadBatch(rk_elem_t* elem, std::vector<ItemData>* items);

// The XML text of a tree, with the text of every encrypted element replaced by its decrypted
// value, so that two trees with the same values compare equal whatever their nonces. Changes
// the tree.
std::string ComparableText(rk_elem_t* elem);

// The five XML entities decoded in one pass, as the runtime decodes texts it reads.
std::string DecodeEntities(const char* text);

// A bare libcurl easy handle with the options and header fields librk sets on its own for an
// HTTP call to tezad on 127.0.0.1:`port` as kLogin; each answer's body is appended to `answer`.
// The header list goes to `headers`, which the caller frees after the handle.
CURL* NewLibrkLikeHandle(int port, std::string* answer, curl_slist** headers);

}  // namespace teza_bench

#endif  // TEZA_BENCH_BENCH_SUPPORT_H_
