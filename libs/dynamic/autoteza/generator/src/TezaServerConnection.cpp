#include "TezaServerConnection.h"

#include <sys/time.h>

#include <sstream>
#include <vector>

#include "TezaConnectionCache.h"
#include "TezaLogger.h"
#include "TezaWrapper.h"

namespace {

const char kVersionProbe[] = "system-get-corvi-version";

// Quarantine back-off, in seconds: 30, 60, then 120 for every further extension.
const int64_t kFirstQuarantineInterval = 30;
const int64_t kMaxQuarantineInterval = 120;

// A server reported as not healthy; and the client library's refused connection.
const int kNotHealthyErrno = 14007;
const int kConnectionRefusedErrno = 13055;

// The client library takes the enumerations' numbers unchanged; numbers outside a range
// go as 0.
int __clientStyle(TezaServerConnection::Style style) {
    return style >= 0 && style <= 3 ? static_cast<int>(style) : 0;
}

int __clientServerType(TezaServerConnection::ServerType type) {
    return type >= 1 && type <= 4 ? static_cast<int>(type) : 0;
}

int __clientTransport(TezaServerConnection::Transport transport) {
    return transport >= 0 && transport <= 3 ? static_cast<int>(transport) : 0;
}

// Configuration calls on a valid handle are treated as unable to fail.
void __setServerType(rk_server_t* server, TezaServerConnection::ServerType type) {
    int ret = rk_server_set_server_type(server, __clientServerType(type));
    TEZA_ASSERT(ret);
}

void __setTransport(rk_server_t* server, TezaServerConnection::Transport transport) {
    int ret = rk_server_set_transport_type(server, __clientTransport(transport), NULL);
    TEZA_ASSERT(ret);
}

void __setPort(rk_server_t* server, int port) {
    int ret = rk_server_set_port(server, port);
    TEZA_ASSERT(ret);
}

void __setTimeout(rk_server_t* server, int timeout) {
    int ret = rk_server_set_timeout(server, timeout);
    TEZA_ASSERT(ret);
}

void __setAdminUser(rk_server_t* server, const std::string& login, const std::string& password) {
    int ret = rk_server_set_admin_user(server, login.c_str(), password.c_str());
    TEZA_ASSERT(ret);
}

void __closeServer(rk_server_t* server) {
    int ret = rk_server_close(server);
    TEZA_ASSERT(ret);
}

// The status of a server that the health check refuses; no connection is attempted.
TezaStatus __notHealthy(const std::string& host) {
    return TezaStatus(TezaStatus::ConnectionFailed, host + " is not healthy", kNotHealthyErrno);
}

// The last log line of an open that found no handle, with its whole seconds spent.
void __logOpenFailed(const TezaServerConnection& connection, time_t seconds) {
    TezaLogger::Log("%s: failed to connect to '%s' duration %ld", connection.getProc(),
                    connection.toString().c_str(), static_cast<long>(seconds));
}

// The last log line of an open that holds a handle, before the call time-out is put on it.
void __logConnected(const TezaServerConnection& connection) {
    TezaLogger::Log("%s: connected: call_timeout=%d connect_timeout=%d server=%p",
                    connection.getProc(), connection.getCallTimeout(),
                    static_cast<int>(connection.getConnectTimeout()),
                    static_cast<void*>(connection.getServer()));
}

// --- The tagged text form: "<key>value</key>", no separators and no escaping. ---------------

void tsc_put_string(std::string& out, const std::string& key, const std::string& value) {
    // An empty value leaves the whole element out.
    if (value.empty()) {
        return;
    }
    out += "<";
    out += key;
    out += ">";
    out += value;
    out += "</";
    out += key;
    out += ">";
}

void tsc_put_int(std::string& out, const std::string& key, int value) {
    std::ostringstream text;
    text << value;
    tsc_put_string(out, key, text.str());
}

void tsc_put_uint32_t(std::string& out, const std::string& key, uint32_t value) {
    std::ostringstream text;
    text << value;
    tsc_put_string(out, key, text.str());
}

void tsc_put_bool(std::string& out, const std::string& key, bool value) {
    tsc_put_string(out, key, value ? "TRUE" : "FALSE");
}

// Finds the first element of `key` from the start of `in`. An empty element is fatal, so an
// element written from an empty value can never be read back.
bool tsc_get_string(const std::string& in, const std::string& key, std::string& value) {
    const std::string openTag = "<" + key + ">";
    size_t open = in.find(openTag);
    if (open == std::string::npos) {
        return false;
    }
    size_t start = open + openTag.size();
    size_t end = in.find("</" + key + ">", start);
    if (end == std::string::npos) {
        return false;
    }
    // clang-format off
    TEZA_ASSERT(end>start);
    // clang-format on
    value = in.substr(start, end - start);
    return true;
}

// The stream extracts straight into the target: leading white space is skipped and text after
// the number ignored.
bool tsc_get_int(const std::string& in, const std::string& key, int& value) {
    std::string text;
    if (!tsc_get_string(in, key, text)) {
        return false;
    }
    std::istringstream stream(text);
    stream >> value;
    return !stream.fail();
}

bool tsc_get_uint32_t(const std::string& in, const std::string& key, unsigned& value) {
    std::string text;
    if (!tsc_get_string(in, key, text)) {
        return false;
    }
    std::istringstream stream(text);
    stream >> value;
    return !stream.fail();
}

// Only "TRUE" is true; any other text is an accepted false.
bool tsc_get_bool(const std::string& in, const std::string& key, bool& value) {
    std::string text;
    if (!tsc_get_string(in, key, text)) {
        return false;
    }
    value = text == "TRUE";
    return true;
}

}  // namespace

const int TezaServerConnection::Default_Port;
pthread_mutex_t TezaServerConnection::_mutex = PTHREAD_MUTEX_INITIALIZER;
TezaServerConnection::QuarantineMap* TezaServerConnection::_quarantine_map = NULL;
pthread_once_t TezaServerConnection::_quarantine_map_initialized = PTHREAD_ONCE_INIT;
pthread_mutex_t TezaServerConnection::lk = PTHREAD_MUTEX_INITIALIZER;
std::atomic<bool> TezaServerConnection::tezaInitialized(false);

// --- Expiration -------------------------------------------------------------------------------

TezaServerConnection::Expiration::Expiration(int causalTimeout)
    : _causalTimeout(causalTimeout),
      _interval(kFirstQuarantineInterval),
      _expiry(getUptime() + kFirstQuarantineInterval) {}

time_t TezaServerConnection::Expiration::bump() {
    _interval *= 2;
    if (_interval > kMaxQuarantineInterval) {
        _interval = kMaxQuarantineInterval;
    }
    _expiry = getUptime() + _interval;
    return _expiry;
}

bool TezaServerConnection::Expiration::expired() const {
    return _expiry <= getUptime();
}

// --- Construction, copy, comparison ---------------------------------------------------------

TezaServerConnection::TezaServerConnection(const std::string& host, int major, int minor,
                                           Style style, Transport transport, int port,
                                           ServerType type, int callTimeout,
                                           unsigned connectTimeout, const std::string& login,
                                           const std::string& password, unsigned healthPingTimeout)
    : _host(host),
      _majorVersion(major),
      _minorVersion(minor),
      _style(style),
      _type(type),
      _transport(transport),
      _port(port),
      _callTimeout(callTimeout),
      _connectTimeout(connectTimeout),
      _healthPingTimeout(healthPingTimeout),
      _login(login),
      _password(password),
      _cachable(false),
      _server(NULL),
      _useHealthChecker(false),
      _useIpCache(true),
      _proc(NULL) {}

TezaServerConnection::TezaServerConnection(const TezaServerConnection& other)
    : _host(other._host),
      _majorVersion(other._majorVersion),
      _minorVersion(other._minorVersion),
      _style(other._style),
      _type(other._type),
      _transport(other._transport),
      _port(other._port),
      _callTimeout(other._callTimeout),
      _connectTimeout(other._connectTimeout),
      _healthPingTimeout(other._healthPingTimeout),
      _login(other._login),
      _password(other._password),
      _cachable(false),
      _server(NULL),
      _useHealthChecker(other._useHealthChecker),
      _useIpCache(other._useIpCache),
      _proc(NULL),
      _remote(other._remote) {}

TezaServerConnection& TezaServerConnection::operator=(const TezaServerConnection& other) {
    if (this == &other) {
        return *this;
    }
    _host = other._host;
    _majorVersion = other._majorVersion;
    _minorVersion = other._minorVersion;
    _style = other._style;
    _type = other._type;
    _transport = other._transport;
    _port = other._port;
    _callTimeout = other._callTimeout;
    _connectTimeout = other._connectTimeout;
    _healthPingTimeout = other._healthPingTimeout;
    _login = other._login;
    _password = other._password;
    _useHealthChecker = other._useHealthChecker;
    _useIpCache = other._useIpCache;
    _remote = other._remote;
    // A handle held here is dropped, neither closed nor cached: callers assign only to closed
    // descriptors.
    _cachable = false;
    _server = NULL;
    _proc = NULL;
    return *this;
}

TezaServerConnection::~TezaServerConnection() {
    close();
}

bool TezaServerConnection::operator<(const TezaServerConnection& other) const {
    if (_host != other._host) {
        return _host < other._host;
    }
    if (_majorVersion != other._majorVersion) {
        return _majorVersion < other._majorVersion;
    }
    if (_minorVersion != other._minorVersion) {
        return _minorVersion < other._minorVersion;
    }
    if (_style != other._style) {
        return _style < other._style;
    }
    if (_type != other._type) {
        return _type < other._type;
    }
    if (_transport != other._transport) {
        return _transport < other._transport;
    }
    return _port < other._port;
}

bool TezaServerConnection::operator==(const TezaServerConnection& other) const {
    return _host == other._host && _majorVersion == other._majorVersion &&
           _minorVersion == other._minorVersion && _style == other._style && _type == other._type &&
           _transport == other._transport && _port == other._port;
}

std::string TezaServerConnection::toString() const {
    std::string text = _host;
    text += ":" + std::to_string(_majorVersion) + "," + std::to_string(_minorVersion);
    text += ":" + std::to_string(static_cast<int>(_style));
    text += ":" + std::to_string(static_cast<int>(_type));
    text += ":" + std::to_string(static_cast<int>(_transport));
    text += ":" + std::to_string(_port);
    text += ":" + std::to_string(_callTimeout);
    text += ":" + std::to_string(_connectTimeout);
    return text;
}

const char* TezaServerConnection::getProc() const {
    return _proc == NULL ? "no proc" : _proc;
}

// --- Setters ----------------------------------------------------------------------------------

void TezaServerConnection::setStyle(Style style) {
    _style = style;
    if (_server != NULL) {
        // The one configuration call whose result is not checked.
        rk_server_set_style(_server, __clientStyle(_style));
    }
}

void TezaServerConnection::setServerType(ServerType type) {
    _type = type;
    if (_server != NULL) {
        __setServerType(_server, _type);
    }
}

void TezaServerConnection::setTransport(Transport transport) {
    _transport = transport;
    if (_server != NULL) {
        __setTransport(_server, _transport);
    }
}

void TezaServerConnection::setPort(int port) {
    _port = port;
    if (_server != NULL) {
        __setPort(_server, _port);
    }
}

// The handle has a single time-out: the call and the connect time-out both write it.
void TezaServerConnection::setCallTimeout(int timeout) {
    _callTimeout = timeout;
    if (_server != NULL) {
        __setTimeout(_server, _callTimeout);
    }
}

void TezaServerConnection::setConnectTimeout(unsigned timeout) {
    _connectTimeout = timeout;
    if (_server != NULL) {
        __setTimeout(_server, static_cast<int>(_connectTimeout));
    }
}

void TezaServerConnection::setUser(const std::string& login, const std::string& password) {
    _login = login;
    _password = password;
    if (_server != NULL) {
        __setAdminUser(_server, _login, _password);
    }
}

void TezaServerConnection::setHealthPingTimeout(unsigned timeout) {
    _healthPingTimeout = timeout;
}

void TezaServerConnection::setCachable(bool cachable) {
    _cachable = cachable;
}

void TezaServerConnection::setUseHealthChecker(bool use) {
    _useHealthChecker = use;
}

void TezaServerConnection::setProc(const char* proc) {
    _proc = proc;
}

// --- Opening and closing ---------------------------------------------------------------------

TezaStatus TezaServerConnection::newConnection() {
    TEZA_ASSERT(_server == NULL);
    _server = rk_server_open(_host.c_str(), _majorVersion, _minorVersion);
    TEZA_ASSERT(_server != NULL);

    rk_server_set_style(_server, __clientStyle(_style));
    __setServerType(_server, _type);
    __setTransport(_server, _transport);
    __setPort(_server, _port);
    __setAdminUser(_server, _login, _password);
    __setTimeout(_server, static_cast<int>(_connectTimeout));
    TezaLogger::Log("%s: connect to '%s' timeout=%d _server=%p\n", getProc(), _host.c_str(),
                    static_cast<int>(_connectTimeout), static_cast<void*>(_server));

    rk_elem_t* out = rk_server_invoke(_server, kVersionProbe, static_cast<const char*>(NULL));
    TEZA_ASSERT(out != NULL);
    TezaStatus zst;
    if (rk_results_status(out) != 1) {
        const char* reason = rk_results_reason(out);
        zst = TezaStatus(TezaStatus::ConnectionFailed, reason == NULL ? "" : reason,
                         rk_results_errno(out));
    }
    rk_elem_free(out);

    if (zst.status != TezaStatus::Success) {
        __closeServer(_server);
        _server = NULL;
        // This line has no line end of its own.
        TezaLogger::Log("%s: connection failed; reason='%s (%d)' address=%s", getProc(),
                        zst.reason.c_str(), zst.errnum, toString().c_str());
    } else {
        TezaLogger::Log("%s: successful connection to '%s'\n", getProc(), _host.c_str());
    }
    TEZA_ASSERT((_server && zst.status == TezaStatus::Success) ||
                (!_server && zst.status != TezaStatus::Success));
    return zst;
}

void TezaServerConnection::close() {
    if (_server == NULL) {
        return;
    }
    if (_cachable) {
        TezaLogger::Log("TezaServerConnection::close Cachable\n");
        TezaConnectionCache::releaseConnection(_server, _host, _majorVersion, _minorVersion, _style,
                                               _type, _transport, _port, _login, _password);
    } else {
        TezaLogger::Log("TezaServerConnection::close rk_server_close\n");
        __closeServer(_server);
    }
    _server = NULL;
}

TezaStatus TezaServerConnection::open() {
    init();
    TEZA_ASSERT(_server == NULL);

    TezaStatus zst;
    // The candidate hosts are this descriptor's host alone, so one attempt is made and the
    // host needs no copy. Hosts refused with 13055 are collected and never read.
    std::vector<std::string> refusedHosts;
    TezaLogger::Log("%s: start with %s", getProc(), _host.c_str());
    time_t start = getUptime();

    TezaLogger::Log("%s: attempt connection to '%s'\n", getProc(), _host.c_str());
    if (useHealthChecker() && isQuarantined()) {
        zst = __notHealthy(_host);
    } else {
        // A handle left in _server by a successful expiry probe in isQuarantined is
        // overwritten here without being closed; the program has always done so.
        _server = TezaConnectionCache::getConnection(_host, _majorVersion, _minorVersion, _style,
                                                     _type, _transport, _port, _login, _password,
                                                     static_cast<int>(_healthPingTimeout));
        if (_server != NULL) {
            TezaLogger::Log("%s: found healthy cached connection for '%s'\n", getProc(),
                            _host.c_str());
            unquarantine();
        } else {
            zst = newConnection();
            if (zst.status == TezaStatus::Success) {
                unquarantine();
            } else {
                quarantine();
                if (zst.errnum == kConnectionRefusedErrno) {
                    refusedHosts.push_back(_host);
                }
            }
        }
    }

    if (_server == NULL) {
        __logOpenFailed(*this, getUptime() - start);
    } else {
        __logConnected(*this);
        // The connect time-out served the connecting only; requests run under the call
        // time-out.
        __setTimeout(_server, _callTimeout);
    }
    _cachable = false;
    TEZA_ASSERT((_server && zst.status == TezaStatus::Success) ||
                (!_server && zst.status != TezaStatus::Success));
    return zst;
}

// --- Quarantine -------------------------------------------------------------------------------

time_t TezaServerConnection::getUptime() {
    // Wall-clock seconds, not a monotonic clock. Zeroed first: a failed read gives 0, not an
    // undefined value.
    struct timeval now = {0, 0};
    gettimeofday(&now, NULL);
    return now.tv_sec;
}

void TezaServerConnection::create_quarantine_map() {
    _quarantine_map = new QuarantineMap;
}

TezaServerConnection::QuarantineMap* TezaServerConnection::get_quarantine_map() {
    int result = pthread_once(&_quarantine_map_initialized, create_quarantine_map);
    TEZA_ASSERT(!result);
    return _quarantine_map;
}

bool TezaServerConnection::isQuarantined() {
    QuarantineMap* map = get_quarantine_map();
    bool expired;
    int causalTimeout;
    {
        TezaWrapperUtil::Monitor monitor(_mutex);
        QuarantineMap::iterator entry = map->find(*this);
        if (entry == map->end()) {
            TezaLogger::Log("%s: %s not quarantined", getProc(), _host.c_str());
            return false;
        }
        expired = entry->second.expired();
        causalTimeout = entry->second.getCausalTimeout();
    }

    if (expired) {
        TezaLogger::Log("%s: quarantine expired for %s", getProc(), _host.c_str());
        TezaStatus zst = newConnection();
        if (zst.status != TezaStatus::Success) {
            {
                // The entry may have gone while the lock was released.
                TezaWrapperUtil::Monitor monitor(_mutex);
                QuarantineMap::iterator entry = map->find(*this);
                if (entry != map->end()) {
                    entry->second.bump();
                    TezaLogger::Log("%s: extending quarantine to %lu seconds for %s", getProc(),
                                    static_cast<unsigned long>(entry->second.interval()),
                                    _host.c_str());
                }
            }
            // Refused hosts are collected and then dropped; nothing depends on them.
            std::vector<std::string> refusedHosts;
            if (zst.errnum == kConnectionRefusedErrno) {
                refusedHosts.push_back(_host);
            }
            return true;
        }
        // The probe's handle stays in _server.
        TezaLogger::Log("%s: success after quarantine expired for %s", getProc(), _host.c_str());
        unquarantine();
        return false;
    }

    // A caller prepared to wait longer than the attempt that failed may try.
    if (_connectTimeout > static_cast<uint32_t>(causalTimeout)) {
        TezaLogger::Log("%s: allow quarantined %s to be used (%d > %d)", getProc(), _host.c_str(),
                        static_cast<int>(_connectTimeout), causalTimeout);
        return false;
    }
    return true;
}

void TezaServerConnection::quarantine() {
    QuarantineMap* map = get_quarantine_map();
    TezaWrapperUtil::Monitor monitor(_mutex);
    std::pair<QuarantineMap::iterator, bool> inserted = map->insert(
        QuarantineMap::value_type(*this, Expiration(static_cast<int>(_connectTimeout))));
    if (inserted.second) {
        TezaLogger::Log("%s: new quarantine for %s", getProc(), _host.c_str());
        return;
    }
    // A present entry keeps its interval and expiry; only a longer causal time-out is noted.
    Expiration& expiration = inserted.first->second;
    if (_connectTimeout > static_cast<uint32_t>(expiration.getCausalTimeout())) {
        TezaLogger::Log("%s: changing causal timeout from %d to %d %s", getProc(),
                        expiration.getCausalTimeout(), static_cast<int>(_connectTimeout),
                        _host.c_str());
        expiration.setCausalTimeout(static_cast<int>(_connectTimeout));
    }
}

void TezaServerConnection::unquarantine() {
    TezaLogger::Log("%s: unquarantine %s", getProc(), _host.c_str());
    QuarantineMap* map = get_quarantine_map();
    TezaWrapperUtil::Monitor monitor(_mutex);
    map->erase(*this);
}

void TezaServerConnection::probeQuarantinedServers() {
    QuarantineMap* map = get_quarantine_map();
    std::vector<TezaServerConnection> servers;
    {
        TezaWrapperUtil::Monitor monitor(_mutex);
        for (QuarantineMap::const_iterator entry = map->begin(); entry != map->end(); ++entry) {
            servers.push_back(entry->first);
        }
    }
    // Expiry is not consulted, and a failed background probe leaves the entry as it is.
    for (const TezaServerConnection& server : servers) {
        TezaServerConnection probe(server);
        TezaStatus zst = probe.newConnection();
        if (zst.status != TezaStatus::Success) {
            TezaLogger::Log("unsuccessful asynchronous unquarantine for '%s'",
                            probe.toString().c_str());
        } else {
            probe.unquarantine();
            TezaLogger::Log("successful asynchronous unquarantine for '%s'",
                            probe.toString().c_str());
        }
        // The copy is never cachable: its destructor closes the probe's handle.
    }
}

// --- Library start-up on behalf of connections -----------------------------------------------

void TezaServerConnection::init() {
    TezaLogger::Log("TezaServerConnection::init\n");
    if (!tezaInitialized) {
        TezaWrapperUtil::Monitor monitor(lk);
        if (!tezaInitialized) {
            std::string error;
            if (TezaWrapper::init(error)) {
                tezaInitialized = true;
            } else {
                // A failed start is counted too; give the count back so the next open retries.
                TezaWrapper::cleanup();
            }
        }
    }
}

void TezaServerConnection::cleanup() {
    TezaLogger::Log("TezaServerConnection::cleanup\n");
    if (tezaInitialized) {
        TezaWrapperUtil::Monitor monitor(lk);
        if (tezaInitialized) {
            TezaWrapper::cleanup();
            tezaInitialized = false;
        }
    }
}

// --- Tagged text form -------------------------------------------------------------------------

void TezaServerConnection::xcdr_2bytes(std::string& out) const {
    tsc_put_string(out, "_host", _host);
    tsc_put_int(out, "_majorVersion", _majorVersion);
    tsc_put_int(out, "_minorVersion", _minorVersion);
    tsc_put_int(out, "_style", _style);
    tsc_put_int(out, "_type", _type);
    tsc_put_int(out, "_transport", _transport);
    tsc_put_int(out, "_port", _port);
    tsc_put_string(out, "_login", _login);
    tsc_put_string(out, "_password", _password);
    tsc_put_bool(out, "_cachable", _cachable);
    tsc_put_bool(out, "_useHealthChecker", _useHealthChecker);
    // Older readers know one time-out and the health-check flag as "_useQuarantine"; both are
    // still written. A reader that finds "_timeout" takes it for both time-outs.
    tsc_put_int(out, "_timeout", 180);
    tsc_put_int(out, "_callTimeout", _callTimeout);
    tsc_put_uint32_t(out, "_connectTimeout", _connectTimeout);
    tsc_put_uint32_t(out, "_healthPingTimeout", _healthPingTimeout);
    tsc_put_bool(out, "_useQuarantine", _useHealthChecker);
    tsc_put_bool(out, "_useIpCache", _useIpCache);
}

bool TezaServerConnection::xcdr_frombytes(std::string& in) {
    if (!tsc_get_string(in, "_host", _host) || !tsc_get_int(in, "_majorVersion", _majorVersion) ||
        !tsc_get_int(in, "_minorVersion", _minorVersion)) {
        return false;
    }
    int number;
    if (!tsc_get_int(in, "_style", number)) {
        return false;
    }
    _style = static_cast<Style>(number);
    if (!tsc_get_int(in, "_type", number)) {
        return false;
    }
    _type = static_cast<ServerType>(number);
    if (!tsc_get_int(in, "_transport", number)) {
        return false;
    }
    _transport = static_cast<Transport>(number);
    if (!tsc_get_int(in, "_port", _port) || !tsc_get_string(in, "_login", _login) ||
        !tsc_get_string(in, "_password", _password) || !tsc_get_bool(in, "_cachable", _cachable)) {
        return false;
    }

    // The older "_useQuarantine" counts only when "_useHealthChecker" is absent.
    if (!tsc_get_bool(in, "_useHealthChecker", _useHealthChecker) &&
        !tsc_get_bool(in, "_useQuarantine", _useHealthChecker)) {
        return false;
    }
    // "_useIpCache" is never read: the health check implies it, and nothing clears it.
    if (_useHealthChecker) {
        _useIpCache = true;
    }

    // The older single "_timeout" wins over the three newer elements when present.
    int timeout;
    if (tsc_get_int(in, "_timeout", timeout)) {
        _callTimeout = timeout;
        _connectTimeout = static_cast<uint32_t>(timeout);
        return true;
    }
    return tsc_get_int(in, "_callTimeout", _callTimeout) &&
           tsc_get_uint32_t(in, "_connectTimeout", _connectTimeout) &&
           tsc_get_uint32_t(in, "_healthPingTimeout", _healthPingTimeout);
}
