// The certificates of a CA file, read once for the process and shared by every TLS context
// that trusts that file. See tls_trust.h.

#include "tls_trust.h"

#include <openssl/ssl.h>
#include <openssl/x509.h>
#include <openssl/x509_vfy.h>
#include <string.h>
#include <sys/stat.h>

#include <map>
#include <memory>
#include <mutex>

namespace rk {

namespace {

// What tells one version of a file from another without reading it.
struct FileVersion {
    dev_t device = 0;
    ino_t inode = 0;
    off_t size = 0;
    struct timespec modified = {0, 0};

    bool operator==(const FileVersion& o) const {
        return device == o.device && inode == o.inode && size == o.size &&
               modified.tv_sec == o.modified.tv_sec && modified.tv_nsec == o.modified.tv_nsec;
    }
};

// One CA file and the store made from its current version.
class SharedCaFile {
  public:
    explicit SharedCaFile(std::string path) : _path(std::move(path)) {}
    ~SharedCaFile() { X509_STORE_free(_store); }
    SharedCaFile(const SharedCaFile&) = delete;
    SharedCaFile& operator=(const SharedCaFile&) = delete;

    // A new reference to a store holding the certificates of the file as it is now, read again
    // when it changed since the last time; null when it cannot be read or holds no certificate.
    // The store is only read from once made.
    X509_STORE* Acquire() {
        struct stat st;
        if (stat(_path.c_str(), &st) != 0) {
            return nullptr;
        }
        FileVersion version;
        version.device = st.st_dev;
        version.inode = st.st_ino;
        version.size = st.st_size;
        version.modified = st.st_mtim;
        std::lock_guard<std::mutex> lock(_mutex);
        if (_store == nullptr || !(version == _version)) {
            X509_STORE* fresh = Load();
            if (fresh == nullptr) {
                return nullptr;
            }
            X509_STORE_free(_store);  // callers that hold a reference keep it alive
            _store = fresh;
            _version = version;
        }
        X509_STORE_up_ref(_store);
        return _store;
    }

  private:
    X509_STORE* Load() const {
        X509_STORE* store = X509_STORE_new();
        if (store == nullptr) {
            return nullptr;
        }
        if (X509_STORE_load_file(store, _path.c_str()) != 1) {
            X509_STORE_free(store);
            return nullptr;
        }
        return store;
    }

    const std::string _path;
    std::mutex _mutex;
    // Guarded by `_mutex`.
    X509_STORE* _store = nullptr;
    FileVersion _version;
};

struct Registry {
    std::mutex mutex;
    // Guarded by `mutex`. Entries live until ReleaseSharedCaFiles: easy handles point at them.
    std::map<std::string, std::unique_ptr<SharedCaFile>> files;
};

Registry& TheRegistry() {
    static Registry* registry = new Registry;  // never destroyed: handles may close at exit
    return *registry;
}

SharedCaFile* FileFor(const std::string& path) {
    Registry& r = TheRegistry();
    std::lock_guard<std::mutex> lock(r.mutex);
    std::unique_ptr<SharedCaFile>& entry = r.files[path];
    if (entry == nullptr) {
        entry = std::make_unique<SharedCaFile>(path);
    }
    return entry.get();
}

// The TLS contexts libcurl makes are OpenSSL's only when libcurl was built on OpenSSL.
bool CurlUsesOpenSsl() {
    static const bool openSsl = [] {
        const curl_version_info_data* info = curl_version_info(CURLVERSION_NOW);
        return info != nullptr && info->ssl_version != nullptr &&
               strncmp(info->ssl_version, "OpenSSL/", 8) == 0;
    }();
    return openSsl;
}

// CURLOPT_SSL_CTX_FUNCTION: libcurl calls it with each new TLS context of the handle, before
// the handshake. The context's own store, empty so far, receives the file's certificates (and
// any revocation lists) as references to the objects parsed once; libcurl goes on to set its
// verification flags on that store, which is the context's alone.
CURLcode UseSharedCertificates(CURL*, void* context, void* file) {
    X509_STORE* parsed = static_cast<SharedCaFile*>(file)->Acquire();
    if (parsed == nullptr) {
        return CURLE_SSL_CACERT_BADFILE;  // the file went away or broke since the handle was set up
    }
    X509_STORE* own = SSL_CTX_get_cert_store(static_cast<SSL_CTX*>(context));
    // `parsed` is never changed once made, so its objects are read without its lock.
    STACK_OF(X509_OBJECT)* objects = X509_STORE_get0_objects(parsed);
    CURLcode result = CURLE_OK;
    for (int i = 0; i < sk_X509_OBJECT_num(objects) && result == CURLE_OK; ++i) {
        X509_OBJECT* object = sk_X509_OBJECT_value(objects, i);
        if (X509* cert = X509_OBJECT_get0_X509(object)) {
            if (X509_STORE_add_cert(own, cert) != 1) {
                result = CURLE_OUT_OF_MEMORY;
            }
        } else if (X509_CRL* crl = X509_OBJECT_get0_X509_CRL(object)) {
            if (X509_STORE_add_crl(own, crl) != 1) {
                result = CURLE_OUT_OF_MEMORY;
            }
        }
    }
    X509_STORE_free(parsed);
    return result;
}

}  // namespace

bool TrustSharedCaFile(CURL* easy, const std::string& caFile) {
    // The path stands as libcurl's certificate directory below, where OpenSSL would take a
    // colon for a separator between directories.
    if (!CurlUsesOpenSsl() || caFile.find(':') != std::string::npos) {
        return false;
    }
    SharedCaFile* file = FileFor(caFile);
    X509_STORE* now = file->Acquire();
    if (now == nullptr) {
        return false;
    }
    X509_STORE_free(now);
    if (curl_easy_setopt(easy, CURLOPT_SSL_CTX_FUNCTION, &UseSharedCertificates) != CURLE_OK) {
        return false;
    }
    // libcurl reads no CA file of its own. It tells TLS sessions apart by its CA settings
    // among others, so that a handle never resumes a session whose server certificate was
    // verified against other certificates: the CA file's path is given as the directory of
    // certificates, which keeps the sessions of different CA files apart and trusts nothing
    // more (a file has no entries: every look-up in it fails).
    if (curl_easy_setopt(easy, CURLOPT_SSL_CTX_DATA, static_cast<void*>(file)) != CURLE_OK ||
        curl_easy_setopt(easy, CURLOPT_CAINFO, static_cast<char*>(nullptr)) != CURLE_OK ||
        curl_easy_setopt(easy, CURLOPT_CAPATH, caFile.c_str()) != CURLE_OK) {
        curl_easy_setopt(easy, CURLOPT_SSL_CTX_FUNCTION, static_cast<void*>(nullptr));
        return false;
    }
    return true;
}

void ReleaseSharedCaFiles() {
    Registry& r = TheRegistry();
    std::lock_guard<std::mutex> lock(r.mutex);
    r.files.clear();
}

}  // namespace rk
