// Encrypted values: AES-256-GCM with a 96-bit random nonce. The element text is the base64 of
//   version (1 byte, 1) | nonce (12 bytes) | ciphertext | tag (16 bytes)
// and the element's name is authenticated with it, so a sealed value cannot be moved to
// another field. The cipher key is the SHA-256 digest of the key text.

#include <openssl/evp.h>
#include <openssl/rand.h>
#include <openssl/sha.h>

#include <string.h>

#include <mutex>
#include <string>
#include <vector>

#include "rk_internal.h"

namespace rk {

namespace {

// Not a secret: it only makes two parties that configured nothing agree. Deployments set
// their own with rk_set_default_key.
const char kBuiltInDefaultKey[] = "teza-default-key";
const unsigned char kVersion = 1;
const size_t kNonceSize = 12;
const size_t kTagSize = 16;

std::mutex& DefaultKeyMutex() {
    static std::mutex mutex;
    return mutex;
}

std::string& DefaultKeyText() {
    static std::string key = kBuiltInDefaultKey;
    return key;
}

void DeriveKey(const char* key, unsigned char out[SHA256_DIGEST_LENGTH]) {
    std::string text;
    if (key != nullptr) {
        text = key;
    } else {
        std::lock_guard<std::mutex> lock(DefaultKeyMutex());
        text = DefaultKeyText();
    }
    SHA256(reinterpret_cast<const unsigned char*>(text.data()), text.size(), out);
}

struct CipherContext {
    CipherContext() : ctx(EVP_CIPHER_CTX_new()) {}
    ~CipherContext() { EVP_CIPHER_CTX_free(ctx); }
    CipherContext(const CipherContext&) = delete;
    CipherContext& operator=(const CipherContext&) = delete;
    EVP_CIPHER_CTX* ctx;
};

std::string Base64Encode(const std::vector<unsigned char>& data) {
    std::string out(4 * ((data.size() + 2) / 3) + 1, '\0');
    int n = EVP_EncodeBlock(reinterpret_cast<unsigned char*>(&out[0]), data.data(),
                            static_cast<int>(data.size()));
    out.resize(n < 0 ? 0 : static_cast<size_t>(n));
    return out;
}

bool Base64Decode(const std::string& text, std::vector<unsigned char>* out) {
    if (text.empty() || text.size() % 4 != 0) {
        return false;
    }
    out->assign(3 * text.size() / 4, 0);
    int n = EVP_DecodeBlock(out->data(), reinterpret_cast<const unsigned char*>(text.data()),
                            static_cast<int>(text.size()));
    if (n < 0) {
        return false;
    }
    // EVP_DecodeBlock counts the padding as zero bytes.
    size_t padding = 0;
    if (text[text.size() - 1] == '=')
        ++padding;
    if (text[text.size() - 2] == '=')
        ++padding;
    out->resize(static_cast<size_t>(n) - padding);
    // Only the canonical text is accepted: otherwise a change to the unused bits of the last
    // character would decode to the same bytes and go unnoticed.
    return Base64Encode(*out) == text;
}

}  // namespace

bool SetDefaultKey(const char* key) {
    std::lock_guard<std::mutex> lock(DefaultKeyMutex());
    DefaultKeyText() = key == nullptr ? kBuiltInDefaultKey : key;
    return true;
}

bool EncryptValue(const char* name, const std::string& plain, const char* key, std::string* out) {
    unsigned char cipherKey[SHA256_DIGEST_LENGTH];
    DeriveKey(key, cipherKey);
    std::vector<unsigned char> sealed(1 + kNonceSize + plain.size() + kTagSize);
    sealed[0] = kVersion;
    unsigned char* nonce = &sealed[1];
    unsigned char* cipherText = nonce + kNonceSize;
    if (RAND_bytes(nonce, kNonceSize) != 1) {
        return false;
    }
    CipherContext c;
    int len = 0;
    const int nameLen = static_cast<int>(strlen(name));
    if (c.ctx == nullptr ||
        EVP_EncryptInit_ex(c.ctx, EVP_aes_256_gcm(), nullptr, cipherKey, nonce) != 1 ||
        EVP_EncryptUpdate(c.ctx, nullptr, &len, reinterpret_cast<const unsigned char*>(name),
                          nameLen) != 1 ||
        EVP_EncryptUpdate(c.ctx, cipherText, &len,
                          reinterpret_cast<const unsigned char*>(plain.data()),
                          static_cast<int>(plain.size())) != 1 ||
        EVP_EncryptFinal_ex(c.ctx, cipherText + len, &len) != 1 ||
        EVP_CIPHER_CTX_ctrl(c.ctx, EVP_CTRL_GCM_GET_TAG, kTagSize, cipherText + plain.size()) !=
            1) {
        return false;
    }
    *out = Base64Encode(sealed);
    return true;
}

bool DecryptValue(const char* name, const std::string& sealedText, const char* key,
                  std::string* out) {
    std::vector<unsigned char> sealed;
    if (!Base64Decode(sealedText, &sealed) || sealed.size() < 1 + kNonceSize + kTagSize ||
        sealed[0] != kVersion) {
        return false;
    }
    unsigned char cipherKey[SHA256_DIGEST_LENGTH];
    DeriveKey(key, cipherKey);
    unsigned char* nonce = &sealed[1];
    unsigned char* cipherText = nonce + kNonceSize;
    const size_t cipherLen = sealed.size() - 1 - kNonceSize - kTagSize;
    unsigned char* tag = cipherText + cipherLen;
    std::vector<unsigned char> plain(cipherLen + 1);
    CipherContext c;
    int len = 0;
    int finalLen = 0;
    const int nameLen = static_cast<int>(strlen(name));
    if (c.ctx == nullptr ||
        EVP_DecryptInit_ex(c.ctx, EVP_aes_256_gcm(), nullptr, cipherKey, nonce) != 1 ||
        EVP_DecryptUpdate(c.ctx, nullptr, &len, reinterpret_cast<const unsigned char*>(name),
                          nameLen) != 1 ||
        EVP_DecryptUpdate(c.ctx, plain.data(), &len, cipherText, static_cast<int>(cipherLen)) !=
            1 ||
        EVP_CIPHER_CTX_ctrl(c.ctx, EVP_CTRL_GCM_SET_TAG, kTagSize, tag) != 1 ||
        EVP_DecryptFinal_ex(c.ctx, plain.data() + len, &finalLen) != 1) {
        // A wrong key or a changed byte anywhere fails authentication: nothing is returned.
        return false;
    }
    out->assign(reinterpret_cast<const char*>(plain.data()), static_cast<size_t>(len + finalLen));
    // A value with an embedded NUL cannot be handed out as C text without losing its tail.
    return out->find('\0') == std::string::npos;
}

}  // namespace rk
