// Random numbers and digests, all from OpenSSL's libcrypto.
#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/hmac.h>
#include <openssl/rand.h>

#include <climits>

#include "commonlib/zeph_commonlib.h"

namespace {

// libcrypto's state is process-wide and used by detached library threads
// (probes drawing transaction ids) that may still run while the process
// exits. Its own exit-time cleanup would free that state under them, so it
// is initialised at load without that cleanup.
[[maybe_unused]] const int g_crypto_init = OPENSSL_init_crypto(OPENSSL_INIT_NO_ATEXIT, nullptr);

// Digest 0 is SHA-1, the only one the library uses.
const EVP_MD* digest_md(int digest)
{
    return digest == 0 ? EVP_sha1() : nullptr;
}

} // namespace

int ZEPH_CPYPT_RealRandom(void* buf, uint32_t len)
{
    if (len == 0) {
        return 0;
    }
    if (buf == nullptr) {
        return -1;
    }
    auto* p = static_cast<unsigned char*>(buf);
    while (len > 0) {
        int chunk = len > static_cast<uint32_t>(INT_MAX) ? INT_MAX : static_cast<int>(len);
        if (RAND_bytes(p, chunk) != 1) {
            return -1;
        }
        p += chunk;
        len -= static_cast<uint32_t>(chunk);
    }
    return 0;
}

int ZEPH_CRYPT_digest(int digest, const void* data, uint32_t len, uint8_t* out, uint32_t* out_len)
{
    const EVP_MD* md = digest_md(digest);
    if (md == nullptr || out == nullptr || out_len == nullptr || (data == nullptr && len > 0) ||
        *out_len < static_cast<uint32_t>(EVP_MD_get_size(md))) {
        return -1;
    }
    static const unsigned char kEmpty = 0;
    unsigned int n = 0;
    if (EVP_Digest(data ? data : &kEmpty, len, out, &n, md, nullptr) != 1) {
        return -1;
    }
    *out_len = n;
    return 0;
}

int ZEPH_CRYPT_hmac(int digest, const void* key, uint32_t key_len, const void* data, uint32_t len, uint8_t* out,
                    uint32_t* out_len)
{
    const EVP_MD* md = digest_md(digest);
    if (md == nullptr || out == nullptr || out_len == nullptr || (key == nullptr && key_len > 0) ||
        (data == nullptr && len > 0) || key_len > static_cast<uint32_t>(INT_MAX) ||
        *out_len < static_cast<uint32_t>(EVP_MD_get_size(md))) {
        return -1;
    }
    static const unsigned char kEmpty = 0;
    unsigned int n = 0;
    if (HMAC(md, key ? key : &kEmpty, static_cast<int>(key_len), static_cast<const unsigned char*>(data ? data : &kEmpty),
             len, out, &n) == nullptr) {
        return -1;
    }
    *out_len = n;
    return 0;
}
