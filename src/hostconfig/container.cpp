// The hostconfig container: a VELK image of named bodies in a fixed record.
#include "hostconfig/hostconfig.h"

#include <cstring>

#include "base/console.h"
#include "base/fileutil.h"

namespace {

constexpr const char* kModule = "hostconfig";
constexpr uint32_t kFirstPart = VELK_ID_SIZE + VELK_HEADER_SIZE;  // 24

uint8_t* part_bytes(velk_content_header* part) { return reinterpret_cast<uint8_t*>(part); }
const uint8_t* part_bytes(const velk_content_header* part)
{
    return reinterpret_cast<const uint8_t*>(part);
}

bool has_room(const hostconfig* hc, uint64_t bytes)
{
    return hc->count < static_cast<int32_t>(HOSTCONFIG_MAX_PARTS) &&
           bytes <= static_cast<uint64_t>(hc->capacity) - hc->used;
}

void record_part(hostconfig* hc, uint32_t bytes)
{
    hc->parts[hc->count++] = reinterpret_cast<velk_content_header*>(hc->image + hc->used);
    hc->used += velk_pad4(bytes);
}

bool name_matches(const velk_content_header* part, const char* name)
{
    size_t n = std::strlen(name);
    return n <= sizeof part->name && std::strncmp(part->name, name, n) == 0;
}

// Walks the content parts of a freshly read image into the parts table.
// Each part must lie inside the body and pass its checks; an image with more
// parts than the table holds is refused rather than cut short.
int walk_parts(hostconfig* hc)
{
    int64_t remaining = hc->header->body_length;
    uint32_t at = kFirstPart;
    do {
        if (remaining < static_cast<int64_t>(VELK_CONTENT_HEADER_SIZE)) return -1;
        if (at + VELK_CONTENT_HEADER_SIZE > HOSTCONFIG_MAX) return -1;
        auto* part = reinterpret_cast<velk_content_header*>(hc->image + at);
        // Header lengths are multiples of 4, so every part starts at one and
        // its fields read in place; a saved copy places the part the same way.
        if (part->hdr_length % 4 != 0) return -1;
        if (remaining < part->hdr_length) return -1;
        remaining -= part->hdr_length;
        if (remaining < part->body_length) return -1;
        remaining -= part->body_length;
        if (velk_validate_content_part(part, part_bytes(part) + part->hdr_length) != VELK_OK)
            return -1;
        uint32_t pad = velk_pad4(part->body_length) - part->body_length;
        remaining -= pad;
        if (hc->count >= static_cast<int32_t>(HOSTCONFIG_MAX_PARTS)) return -1;
        hc->parts[hc->count++] = part;
        at += part->hdr_length + part->body_length + pad;
    } while (remaining > static_cast<int64_t>(VELK_CONTENT_HEADER_SIZE));
    return 1;
}

}  // namespace

int hostconfig_new(hostconfig* hc, uint32_t capacity)
{
    KOR_ASSERT(kModule, hc != nullptr);
    std::memset(hc, 0, sizeof *hc);
    if (capacity > HOSTCONFIG_MAX) return 0;
    hc->capacity = capacity;
    hc->used = kFirstPart;
    hc->header = reinterpret_cast<velk_header*>(hc->image + VELK_ID_SIZE);
    return 1;
}

int hostconfig_add(hostconfig* hc, const velk_content_header* part)
{
    KOR_ASSERT(kModule, hc != nullptr);
    KOR_ASSERT(kModule, part != nullptr);
    uint64_t bytes = static_cast<uint64_t>(part->hdr_length) + part->body_length;
    if (!has_room(hc, bytes)) return -1;
    std::memcpy(hc->image + hc->used, part, bytes);
    record_part(hc, static_cast<uint32_t>(bytes));
    return 1;
}

int hostconfig_add_body(hostconfig* hc, const void* body, uint32_t length, const char* name)
{
    KOR_ASSERT(kModule, hc != nullptr);
    KOR_ASSERT(kModule, name != nullptr);
    // An empty body gets no CRCs and would make the saved image unloadable.
    if (length == 0 || body == nullptr) return -1;
    if (!has_room(hc, static_cast<uint64_t>(length) + VELK_CONTENT_HEADER_SIZE)) return -1;
    velk_content_header h{};
    h.type_id = VELK_TYPE_DATA;
    h.hdr_length = VELK_CONTENT_HEADER_SIZE;
    h.body_length = length;
    kor_field_copy(h.name, sizeof h.name, name);
    std::memcpy(hc->image + hc->used, &h, sizeof h);
    std::memcpy(hc->image + hc->used + sizeof h, body, length);
    record_part(hc, VELK_CONTENT_HEADER_SIZE + length);
    return 1;
}

int hostconfig_finalize_content(velk_content_header* part)
{
    KOR_ASSERT(kModule, part != nullptr);
    if (part->body_length == 0) return -1;
    part->body_crc =
        crc32_calc(0, part_bytes(part) + VELK_CONTENT_HEADER_SIZE, part->body_length);
    part->hdr_crc = crc32_calc(0, part_bytes(part) + 4, part->hdr_length - 4u);
    return 1;
}

int hostconfig_save(hostconfig* hc, const char* path, const char* backup_path)
{
    KOR_ASSERT(kModule, hc != nullptr);
    KOR_ASSERT(kModule, hc->header != nullptr);
    KOR_ASSERT(kModule, path != nullptr);
    velk_header* h = hc->header;
    h->hdr_length = VELK_HEADER_SIZE;
    h->body_length = hc->used - kFirstPart;
    for (int i = 0; i < hc->count; i++) (void)hostconfig_finalize_content(hc->parts[i]);
    if (h->body_length != 0) {
        const uint32_t ident[2] = {VELK_ID_WORD1, VELK_ID_WORD2};
        std::memcpy(hc->image, ident, sizeof ident);
        h->version = 1;
        h->body_crc = crc32_calc(0, hc->image + kFirstPart, h->body_length);
        h->hdr_crc = crc32_calc(0, hc->image + VELK_ID_SIZE + 4, VELK_HEADER_SIZE - 4);
    }
    // Backup first, primary last: each write is on the device (fsync)
    // before the next begins, so one of the two copies is whole at any
    // moment. A failed backup write is not reported; the primary decides.
    if (backup_path) (void)hostconfig_save_raw(hc, backup_path);
    return hostconfig_save_raw(hc, path) == 0 ? 1 : -1;
}

int hostconfig_load(hostconfig* hc, const char* path, const char* backup_path)
{
    KOR_ASSERT(kModule, hc != nullptr);
    KOR_ASSERT(kModule, path != nullptr);
    // A primary whose file checks pass but whose parts do not is as lost as
    // an unreadable one: the backup still holds good metadata.
    if (hostconfig_load_raw(hc, path) == 0 && walk_parts(hc) == 1) {
        hc->loaded_from = 1;
        return 1;
    }
    hc->count = 0;
    if (!backup_path) return -1;
    if (hostconfig_load_raw(hc, backup_path) == 0 && walk_parts(hc) == 1) {
        hc->loaded_from = 2;
        return 2;
    }
    hc->count = 0;
    return -1;
}

velk_content_header* hostconfig_get_content_part(const hostconfig* hc, const char* name)
{
    KOR_ASSERT(kModule, hc != nullptr);
    KOR_ASSERT(kModule, name != nullptr);
    for (int i = 0; i < hc->count && i < static_cast<int32_t>(HOSTCONFIG_MAX_PARTS); i++) {
        if (name_matches(hc->parts[i], name)) return hc->parts[i];
    }
    return nullptr;
}

const uint8_t* hostconfig_get_body(const hostconfig* hc, const char* name)
{
    const velk_content_header* part = hostconfig_get_content_part(hc, name);
    return part ? part_bytes(part) + VELK_CONTENT_HEADER_SIZE : nullptr;
}

void* hostconfig_get() { return nullptr; }
