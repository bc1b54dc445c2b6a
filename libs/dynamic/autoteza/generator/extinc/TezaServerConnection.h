// TezaServerConnection: the descriptor of one TEZA server endpoint (host, API version, style,
// server type, transport, port, credentials, time-outs, flags) and, while open, the owner of
// its client-library handle. Also the process-wide quarantine of servers whose connections
// fail, and the descriptor's tagged text form.
//
// A descriptor is not locked: one thread uses one descriptor at a time. The quarantine map is
// guarded by `_mutex`, which is never held across a network call.
#ifndef TEZA_SERVER_CONNECTION_H_
#define TEZA_SERVER_CONNECTION_H_

#include <pthread.h>
#include <stdint.h>
#include <time.h>

#include <atomic>
#include <map>
#include <string>

#include "TezaStatus.h"
#include "TezaUtil.h"
#include "rk.h"

class TEZA_API TezaServerConnection {
  public:
    // The numbers are what travels to the client library; a value outside a range is passed
    // as 0. What each number means to the client library is documented with librk. The fixed
    // underlying type lets a descriptor carry any number read from text or set by a caller.
    enum Style : int32_t {
        STYLE_LOGIN_PASSWORD = 0,
        STYLE_CERTIFICATE = 1,
        STYLE_TOKEN = 2,
        STYLE_NONE = 3,
    };
    enum ServerType : int32_t {
        SERVER_TYPE_NODE = 1,
        SERVER_TYPE_CLUSTER = 2,
        SERVER_TYPE_AGENT = 3,
        SERVER_TYPE_DEPOT = 4,
    };
    enum Transport : int32_t {
        TRANSPORT_HTTP = 0,
        TRANSPORT_HTTPS = 1,
        TRANSPORT_IN_PROCESS = 2,
        TRANSPORT_UNIX_SOCKET = 3,
    };

    // Read by nothing in the library; constructors take the port explicitly.
    static const int Default_Port = 951;

    // One quarantine entry: the connect time-out of the attempt that caused it, the current
    // back-off interval (30, 60, then 120 seconds) and the expiry on the getUptime() clock.
    class TEZA_API Expiration {
      public:
        explicit Expiration(int causalTimeout);
        // Doubles the interval, at most 120 seconds, and restarts it from now; returns the
        // new expiry.
        time_t bump();
        bool expired() const;
        int64_t interval() const { return _interval; }
        int getCausalTimeout() const { return _causalTimeout; }
        void setCausalTimeout(int timeout) { _causalTimeout = timeout; }

      private:
        int32_t _causalTimeout;
        int64_t _interval;
        time_t _expiry;
    };

    // The argument order differs from the member order; both are kept as they are.
    TezaServerConnection(const std::string& host, int major, int minor, Style style,
                         Transport transport, int port, ServerType type, int callTimeout,
                         unsigned connectTimeout, const std::string& login,
                         const std::string& password, unsigned healthPingTimeout);
    // A copy never shares the handle: it starts closed, not cachable, without a proc name.
    TezaServerConnection(const TezaServerConnection& other);
    // Copies what the copy constructor copies. A handle the target held is dropped without
    // being closed: assign only to closed descriptors.
    TezaServerConnection& operator=(const TezaServerConnection& other);
    // Closes the handle (into the cache when cachable).
    ~TezaServerConnection();

    // Identity: host, major, minor, style, type, transport and port; nothing else.
    bool operator<(const TezaServerConnection& other) const;
    bool operator==(const TezaServerConnection& other) const;

    // host:major,minor:style:type:transport:port:callTimeout:connectTimeout; never credentials.
    std::string toString() const;

    const std::string& getHost() const { return _host; }
    int getMajorVersion() const { return _majorVersion; }
    int getMinorVersion() const { return _minorVersion; }
    Style getStyle() const { return _style; }
    ServerType getServerType() const { return _type; }
    Transport getTransport() const { return _transport; }
    int getPort() const { return _port; }
    int getCallTimeout() const { return _callTimeout; }
    unsigned getConnectTimeout() const { return _connectTimeout; }
    unsigned getHealthPingTimeout() const { return _healthPingTimeout; }
    const std::string& getLogin() const { return _login; }
    rk_server_t* getServer() const { return _server; }
    bool isCachable() const { return _cachable; }
    bool useHealthChecker() const { return _useHealthChecker; }
    bool useIpCache() const { return _useIpCache; }
    // The caller's name for log lines, or "no proc".
    const char* getProc() const;
    // A remote descriptor is never opened or invoked. The mark has no setter: only copies and
    // assignment carry it from one descriptor to another.
    bool isremote() const { return !_remote.empty(); }

    // Setters store the value; those that configure the client library also apply it at once
    // to an open handle.
    void setStyle(Style style);
    void setServerType(ServerType type);
    void setTransport(Transport transport);
    void setPort(int port);
    void setCallTimeout(int timeout);
    void setConnectTimeout(unsigned timeout);
    void setUser(const std::string& login, const std::string& password);
    void setHealthPingTimeout(unsigned timeout);
    void setCachable(bool cachable);
    void setUseHealthChecker(bool use);
    // Keeps the pointer, not a copy of the text: it must outlive its use.
    void setProc(const char* proc);

    // Opens a handle: a cached one when the cache has it, otherwise a fresh one; refuses a
    // quarantined server (error 14007) when the health check is on. REQUIRES: closed.
    TezaStatus open();
    // Opens a fresh handle and proves it with the version probe. REQUIRES: closed.
    TezaStatus newConnection();
    // Hands the handle to the connection cache when cachable, otherwise closes it.
    void close();

    bool isQuarantined();
    void quarantine();
    void unquarantine();
    // Probes every quarantined server once; run by TezaConnectionCache::ageThread.
    static void probeQuarantinedServers();

    // Starts the library once on behalf of connections; cleanup stops it again.
    static void init();
    static void cleanup();

    // The tagged text form ("<_host>srv</_host>..."); xcdr_2bytes appends to `out`.
    void xcdr_2bytes(std::string& out) const;
    // True when every required element was read; members read before a missing one keep their
    // new values.
    bool xcdr_frombytes(std::string& in);

  private:
    // The tests' access to the remote mark; defined with the tests only, never installed.
    friend class TezaServerConnectionTestPeer;

    typedef std::map<TezaServerConnection, Expiration> QuarantineMap;

    static QuarantineMap* get_quarantine_map();
    static void create_quarantine_map();
    static time_t getUptime();

    // Identity (with login and password, the connection cache's key).
    std::string _host;
    int32_t _majorVersion;
    int32_t _minorVersion;
    Style _style;
    ServerType _type;
    Transport _transport;
    int32_t _port;
    int32_t _callTimeout;
    uint32_t _connectTimeout;
    uint32_t _healthPingTimeout;
    std::string _login;
    std::string _password;  // never logged
    bool _cachable;
    rk_server_t* _server;  // owned; null while closed
    bool _useHealthChecker;
    bool _useIpCache;     // carried and serialised only
    const char* _proc;    // not owned
    std::string _remote;  // non-empty: remote; copied, never serialised

    // Guards the quarantine map; never held across a network call.
    static pthread_mutex_t _mutex;
    static QuarantineMap* _quarantine_map;
    static pthread_once_t _quarantine_map_initialized;

    // Guards the one-time library start-up of init(); the flag is also read without it on the
    // fast path, hence atomic.
    static pthread_mutex_t lk;
    static std::atomic<bool> tezaInitialized;
};

#endif  // TEZA_SERVER_CONNECTION_H_
