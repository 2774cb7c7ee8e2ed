// The placement hash (SHA-256, one-shot and incremental, and its text form) and the table of retained
// topologies.
#include "liborlith/topo/topo.h"

#define OPENSSL_SUPPRESS_DEPRECATED  // the bare SHA-256 has no other name in libcrypto
#include <openssl/evp.h>
#include <openssl/sha.h>

#include <cstring>
#include <mutex>
#include <shared_mutex>

#include "liborlith/liborlith_fatal.h"

namespace {

char g_globals_started = 0;  // one-shot flag of topo_init_globals, set by compare-and-swap

// A digest looked up by name is fetched from its provider anew each time it is started, which takes several
// times as long as hashing a metric's key. So it is fetched once in a process. Never freed: contexts may still
// be started while the process ends.
const EVP_MD *fetched_sha256() {
  static const EVP_MD *const md = EVP_MD_fetch(nullptr, "SHA256", nullptr);
  liborlith_assert(md);
  return md;
}

// Topologies by signature. Zeroed is empty, so the table is usable before topo_init_globals too.
ruxo_hash_table g_retained;
std::shared_mutex g_retained_lock;  // retaining happens on the control thread, look-ups on any

// The value of a lower-case hex digit, or -1.
int hex_value(char digit) {
  if (digit >= '0' && digit <= '9') return digit - '0';
  if (digit >= 'a' && digit <= 'f') return digit - 'a' + 10;
  return -1;
}

}  // namespace

void topo_init_globals(void) {
  char expected = 0;
  if (!__atomic_compare_exchange_n(&g_globals_started, &expected, 1, false, __ATOMIC_SEQ_CST,
                                   __ATOMIC_SEQ_CST))
    return;
  OpenSSL_add_all_digests();
}

// By the bare functions, which keep their state on the stack: no context of a thread's to start again, and none
// that would be gone in destructors that run while a thread or the process ends.
void topo_hash(const void *data, size_t len, uint8_t *out) {
  SHA256_CTX state;
  SHA256_Init(&state);
  SHA256_Update(&state, data, len);
  SHA256_Final(out, &state);
}

void topo_hash_ctx_init(topo_hash_ctx_t *ctx) {
  const EVP_MD *md = EVP_get_digestbyname("SHA256");
  liborlith_assert(md);
  md = fetched_sha256();  // the same digest, faster to start
  ctx->ictx = EVP_MD_CTX_new();
  EVP_DigestInit_ex(ctx->ictx, md, nullptr);
}

void topo_hash_ctx_update(topo_hash_ctx_t *ctx, const void *data, size_t len) {
  EVP_DigestUpdate(ctx->ictx, data, len);
}

void topo_hash_ctx_final(uint8_t *out, topo_hash_ctx_t *ctx) {
  EVP_DigestFinal(ctx->ictx, out, nullptr);
  EVP_MD_CTX_free(ctx->ictx);
  ctx->ictx = nullptr;
}

void topo_hash_to_hex(const uint8_t *hash, char *out) {
  static constexpr char kDigits[] = "0123456789abcdef";
  static constexpr uint8_t kNone[TOPO_HASH_SIZE] = {};
  if (memcmp(hash, kNone, TOPO_HASH_SIZE) == 0) {
    memcpy(out, "-", 2);
    return;
  }
  for (size_t i = 0; i < TOPO_HASH_SIZE; ++i) {
    out[2 * i] = kDigits[hash[i] >> 4];
    out[2 * i + 1] = kDigits[hash[i] & 15];
  }
  out[2 * TOPO_HASH_SIZE] = '\0';
}

void topo_retain(topo_config *tc) {
  const std::unique_lock lock(g_retained_lock);
  if (ruxo_hash_store(&g_retained, tc->signature, TOPO_HASH_SIZE, tc) == 1) return;
  liborlith_fatal(ruxo_error, "[FATAL] hash collision %s in topology config?!\n", tc->hex_signature);
}

topo_config *topo_retrieve(const uint8_t *hash) {
  const std::shared_lock lock(g_retained_lock);
  void *found = nullptr;
  if (ruxo_hash_retrieve(&g_retained, hash, TOPO_HASH_SIZE, &found) == 0) return nullptr;
  return static_cast<topo_config *>(found);
}

topo_config *topo_retrieve_hex(const char *hex) {
  if (hex == nullptr || strlen(hex) != 2 * TOPO_HASH_SIZE) return nullptr;
  uint8_t hash[TOPO_HASH_SIZE];
  for (size_t i = 0; i < TOPO_HASH_SIZE; ++i) {
    const int high = hex_value(hex[2 * i]);
    const int low = hex_value(hex[2 * i + 1]);
    if (high < 0 || low < 0) return nullptr;
    hash[i] = static_cast<uint8_t>(high << 4 | low);
  }
  return topo_retrieve(hash);
}

const char *topo_signature(topo_config *tc, void *buff) {
  static constexpr uint8_t kNone[TOPO_HASH_SIZE] = {};
  if (buff != nullptr) memcpy(buff, tc == nullptr ? kNone : tc->signature, TOPO_HASH_SIZE);
  return tc == nullptr ? "-" : tc->hex_signature;
}
