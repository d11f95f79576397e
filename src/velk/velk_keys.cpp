// The trusted keys: Ed25519 public keys in PEM, one per "*.pub" file of the
// key directory. A PEM Ed25519 public key is always the same 44 bytes of DER
// (a fixed 12-byte prefix and the 32 key bytes), so a strict base64 reader
// takes the place of an ASN.1 parser.
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "base/console.h"
#include "base/fileutil.h"
#include "velk/velk_sig.h"

namespace {

constexpr const char* MODULE = "velk_sig";
constexpr char PEM_BEGIN[] = "-----BEGIN PUBLIC KEY-----";
constexpr char PEM_END[] = "-----END PUBLIC KEY-----";
// SubjectPublicKeyInfo { AlgorithmIdentifier { id-Ed25519 }, BIT STRING (32 bytes) }.
constexpr uint8_t SPKI_PREFIX[] = {0x30, 0x2a, 0x30, 0x05, 0x06, 0x03, 0x2b, 0x65,
                                   0x70, 0x03, 0x21, 0x00};
constexpr size_t SPKI_SIZE = sizeof SPKI_PREFIX + KOR_ED25519_KEY_SIZE;
constexpr size_t KEY_FILE_MAX = 4096;  // a PEM key is about 113 bytes
constexpr size_t NAME_MAX_LEN = 255;

int base64_value(char ch)
{
    if (ch >= 'A' && ch <= 'Z') return ch - 'A';
    if (ch >= 'a' && ch <= 'z') return ch - 'a' + 26;
    if (ch >= '0' && ch <= '9') return ch - '0' + 52;
    if (ch == '+') return 62;
    if (ch == '/') return 63;
    return -1;
}

// Decodes canonical base64 (padded, unused bits zero) with line breaks
// between the characters. Bytes decoded, or -1.
int base64_decode(const char* text, size_t length, uint8_t* out, size_t room)
{
    uint32_t bits = 0;
    int nbits = 0, symbols = 0, padding = 0;
    size_t n = 0;
    for (size_t i = 0; i < length; ++i) {
        const char ch = text[i];
        if (ch == '\n' || ch == '\r') continue;
        ++symbols;
        if (ch == '=') {
            ++padding;
            continue;
        }
        const int v = base64_value(ch);
        if (v < 0 || padding > 0) return -1;
        bits = (bits << 6) | static_cast<uint32_t>(v);
        nbits += 6;
        if (nbits >= 8) {
            nbits -= 8;
            if (n == room) return -1;
            out[n++] = static_cast<uint8_t>(bits >> nbits);
            bits &= (1u << nbits) - 1;
        }
    }
    const bool padded_right = padding == (nbits == 4 ? 2 : nbits == 2 ? 1 : 0);
    if (symbols % 4 != 0 || padding > 2 || !padded_right || bits != 0) return -1;
    return static_cast<int>(n);
}

bool starts_with(const char* s, size_t n, const char* prefix)
{
    const size_t k = std::strlen(prefix);
    return n >= k && std::memcmp(s, prefix, k) == 0;
}

// Skips one line end; false when there is none.
bool skip_line_end(const char** p, const char* end)
{
    if (*p < end && **p == '\r') ++*p;
    if (*p >= end || **p != '\n') return false;
    ++*p;
    return true;
}

// A regular file of at most KEY_FILE_MAX bytes, whole. Bytes read or -1.
int read_key_file(const char* path, char* buffer, size_t room)
{
    unique_fd fd(::open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
    struct stat st;
    if (!fd.valid() || fstat(fd.get(), &st) != 0 || !S_ISREG(st.st_mode) ||
        st.st_size > static_cast<off_t>(room))
        return -1;
    size_t n = 0;
    for (;;) {
        ssize_t r = ::read(fd.get(), buffer + n, room - n);
        if (r < 0 && errno == EINTR) continue;
        if (r < 0) return -1;
        if (r == 0) break;
        n += static_cast<size_t>(r);
        if (n == room) return -1;  // grew while being read
    }
    return fd.reset() == 0 ? static_cast<int>(n) : -1;
}

bool is_key_name(const char* name)
{
    const size_t n = std::strlen(name);
    return name[0] != '.' && n > 4 && n <= NAME_MAX_LEN && std::strcmp(name + n - 4, ".pub") == 0;
}

// The key files of a directory, sorted by name, so that messages and the
// key reported are the same on every run. -1 when more than `room`.
struct key_names {
    char name[VELK_SIG_MAX_KEYS][NAME_MAX_LEN + 1];
    uint32_t count;
};

int list_key_files(const char* dir, key_names* out, bool* unreadable)
{
    out->count = 0;
    DIR* d = opendir(dir);
    if (d == nullptr) {
        *unreadable = true;
        return 0;
    }
    int r = 0;
    while (const dirent* entry = readdir(d)) {
        if (!is_key_name(entry->d_name)) continue;
        if (out->count == VELK_SIG_MAX_KEYS) {
            r = -1;
            break;
        }
        uint32_t at = out->count++;
        // Insertion by name.
        while (at > 0 && std::strcmp(out->name[at - 1], entry->d_name) > 0) {
            std::memcpy(out->name[at], out->name[at - 1], sizeof out->name[at]);
            --at;
        }
        kor_str_copy(out->name[at], sizeof out->name[at], entry->d_name);
    }
    closedir(d);
    return r;
}

int load_key(velk_keyring* ring, const char* file, char* what, uint32_t what_size)
{
    velk_key& k = ring->keys[ring->count];
    char pem[KEY_FILE_MAX];
    const int n = read_key_file(file, pem, sizeof pem);
    uint8_t digest[KOR_SHA256_SIZE];
    if (std::strlen(file) >= sizeof k.file || n < 0 || velk_key_from_pem(pem, static_cast<size_t>(n), k.key) != 1 ||
        !sha256_of(k.key, sizeof k.key, digest)) {
        kor_str_copy(what, what_size, file);
        return VELK_KEYS_ERR_FILE;
    }
    std::memcpy(k.id, digest, sizeof k.id);
    kor_str_copy(k.file, sizeof k.file, file);
    ++ring->count;
    return 0;
}

int with_crypto(char* what, uint32_t what_size)
{
    return crypto_load(what, what_size) == 1 ? 0 : VELK_KEYS_ERR_CRYPTO;
}

}  // namespace

int velk_key_from_pem(const char* text, size_t length, uint8_t key[KOR_ED25519_KEY_SIZE])
{
    KOR_ASSERT(MODULE, text != nullptr && key != nullptr);
    const char* p = text;
    const char* end = text + length;
    if (!starts_with(p, length, PEM_BEGIN)) return -1;
    p += sizeof PEM_BEGIN - 1;
    if (!skip_line_end(&p, end)) return -1;
    const char* b64 = p;
    while (p < end && *p != '-') ++p;
    const char* b64_end = p;
    if (!starts_with(p, static_cast<size_t>(end - p), PEM_END)) return -1;
    p += sizeof PEM_END - 1;
    if (p < end && !skip_line_end(&p, end)) return -1;
    while (p < end && (*p == '\n' || *p == '\r')) ++p;
    if (p != end) return -1;
    uint8_t der[SPKI_SIZE + 1];
    if (base64_decode(b64, static_cast<size_t>(b64_end - b64), der, sizeof der) != static_cast<int>(SPKI_SIZE) ||
        std::memcmp(der, SPKI_PREFIX, sizeof SPKI_PREFIX) != 0)
        return -1;
    std::memcpy(key, der + sizeof SPKI_PREFIX, KOR_ED25519_KEY_SIZE);
    return 1;
}

int velk_keyring_load(velk_keyring* ring, const char* path, char* what, uint32_t what_size)
{
    KOR_ASSERT(MODULE, ring != nullptr && path != nullptr && what != nullptr);
    *ring = velk_keyring{};
    kor_str_copy(ring->source, sizeof ring->source, path);
    kor_str_copy(what, what_size, path);
    struct stat st;
    if (stat(path, &st) != 0) return errno == ENOENT ? 0 : VELK_KEYS_ERR_FILE;
    if (!S_ISDIR(st.st_mode)) {
        int r = with_crypto(what, what_size);
        if (r == 0) r = load_key(ring, path, what, what_size);
        return r < 0 ? r : static_cast<int>(ring->count);
    }
    static key_names names;  // 2 KiB: kept off the stack
    bool unreadable = false;
    if (list_key_files(path, &names, &unreadable) < 0) return VELK_KEYS_ERR_TOO_MANY;
    if (unreadable) return VELK_KEYS_ERR_FILE;
    if (names.count == 0) return 0;
    int r = with_crypto(what, what_size);
    for (uint32_t i = 0; r == 0 && i < names.count; ++i) {
        char file[sizeof ring->keys[0].file + 1];
        int n = std::snprintf(file, sizeof file, "%s/%s", path, names.name[i]);
        if (n < 0 || static_cast<size_t>(n) >= sizeof file) {
            kor_str_copy(what, what_size, names.name[i]);
            return VELK_KEYS_ERR_FILE;
        }
        r = load_key(ring, file, what, what_size);
    }
    return r < 0 ? r : static_cast<int>(ring->count);
}

int velk_keyring_find(const velk_keyring* ring, const uint8_t id[VELK_SIG_KEY_ID_SIZE])
{
    KOR_ASSERT(MODULE, ring != nullptr && id != nullptr);
    for (uint32_t i = 0; i < ring->count; ++i)
        if (std::memcmp(ring->keys[i].id, id, VELK_SIG_KEY_ID_SIZE) == 0) return static_cast<int>(i);
    return -1;
}

void velk_key_id_text(const uint8_t id[VELK_SIG_KEY_ID_SIZE], char text[2 * VELK_SIG_KEY_ID_SIZE + 1])
{
    static const char hex[] = "0123456789abcdef";
    for (uint32_t i = 0; i < VELK_SIG_KEY_ID_SIZE; ++i) {
        text[2 * i] = hex[id[i] >> 4];
        text[2 * i + 1] = hex[id[i] & 15];
    }
    text[2 * VELK_SIG_KEY_ID_SIZE] = '\0';
}
