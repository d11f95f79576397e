// The partition that a streamed part is written into while it arrives.
// Bytes are staged in the device I/O buffer and reach the device a whole
// buffer at a time, with direct I/O at block-aligned offsets, as the
// partition writer writes a part held in memory; only the ragged end goes
// through the page cache. When the body is complete the partition is
// flushed and read back, as every written partition is.
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "base/console.h"
#include "base/fileutil.h"
#include "base/options.h"
#include "install/install_steps.h"

namespace {

constexpr uint32_t STAGE = DEVICE_IO_SIZE;

bool write_failed(const stream_sink& k, uint64_t result)
{
    log_console(LOG_ERR, "Could not fwrite to %s, errno=%i result=%i\n", k.device, errno,
                static_cast<int>(result));
    return false;
}

void direct_off(stream_sink& k)
{
    if (k.direct) (void)set_direct_io(k.fd, false);
    k.direct = false;
}

// Staged bytes [0, n) to partition offset k.at. A device that refuses a
// direct write gets it, and the rest, through the cache.
bool put(stream_sink& k, uint32_t n)
{
    uint64_t r = device_write_at(k.fd, device_io_buffer(), n, k.at);
    if (r == n) return true;
    if (k.direct && r == 0 && errno == EINVAL) {
        direct_off(k);
        r = device_write_at(k.fd, device_io_buffer(), n, k.at);
        if (r == n) return true;
    }
    return write_failed(k, r);
}

// At the end: the whole blocks directly, what is left of the last one
// through the cache.
bool flush_rest(stream_sink& k)
{
    const uint32_t blocks = k.fill / DEVICE_IO_ALIGN * DEVICE_IO_ALIGN;
    if (blocks > 0 && !put(k, blocks)) return false;
    const uint32_t tail = k.fill - blocks;
    if (tail > 0) {
        direct_off(k);
        uint64_t r = device_write_at(k.fd, device_io_buffer() + blocks, tail, k.at + blocks);
        if (r != tail) return write_failed(k, r);
    }
    k.at += k.fill;
    k.fill = 0;
    return true;
}

bool push(stream_sink& k, const uint8_t* data, uint32_t n)
{
    while (n > 0) {
        const uint32_t take = n < STAGE - k.fill ? n : STAGE - k.fill;
        std::memcpy(device_io_buffer() + k.fill, data, take);
        k.fill += take;
        data += take;
        n -= take;
        if (k.fill < STAGE) continue;
        if (!put(k, STAGE)) return false;
        k.at += STAGE;
        k.fill = 0;
    }
    return true;
}

// Write type 3 puts the header behind the body, on the next multiple of 4;
// the bytes in between are not written.
bool header_behind(stream_sink& k, const velk_content_header* h)
{
    direct_off(k);
    const uint64_t at = (uint64_t{h->body_length} + 3u) & ~uint64_t{3};
    uint64_t r = device_write_at(k.fd, reinterpret_cast<const uint8_t*>(h), h->hdr_length, at);
    return r == h->hdr_length || write_failed(k, r);
}

// The data is only written once the device holds it.
bool flush_and_close(stream_sink& k)
{
    int r = ::fsync(k.fd);
    int c = ::close(k.fd);
    k.fd = -1;
    if (r == 0 && c == 0) return true;
    log_console(LOG_ERR, "Could not fwrite to %s, errno=%i result=%i\n", k.device, errno, -1);
    return false;
}

bool failed(install_ctx* c, int element)
{
    stream_sink_abandon(&c->stream->sink);
    install_write_failed(c, element);
    return false;
}

}  // namespace

bool stream_sink_begin(install_ctx* c, int32_t part)
{
    install_stream* s = c->stream;
    stream_sink& k = s->sink;
    const int i = s->element[part];
    const korm_element* e = &c->korm[i];
    const velk_content_header* h = s->parts[part];
    k = stream_sink{};
    k.fd = -1;
    k.element = i;
    zb_snprintf(k.device, sizeof k.device, "/dev/mmcblk0p%i", c->data->partinfo[e->partinfo_idx].pn);
    zb_printf("Writing out %u bytes of data to %s\n", h->body_length, k.device);
    // Never created: a missing partition must not become a file in /dev.
    k.fd = ::open(k.device, O_WRONLY | O_CLOEXEC);
    if (k.fd < 0) {
        log_console(LOG_ERR, "Could not open %s for write\n", k.device);
        return failed(c, i);
    }
    if (e->wts < 1 || e->wts > 3) {
        log_console(LOG_ERR, "Unknown WTS, skip\n");
        return failed(c, i);
    }
    k.direct = set_direct_io(k.fd, true);
    if (e->wts == 2 && !push(k, reinterpret_cast<const uint8_t*>(h), h->hdr_length))
        return failed(c, i);
    return true;
}

bool stream_sink_body(install_ctx* c, const uint8_t* data, uint32_t n)
{
    stream_sink& k = c->stream->sink;
    return push(k, data, n) || failed(c, k.element);
}

bool stream_sink_end(install_ctx* c, int32_t part)
{
    install_stream* s = c->stream;
    stream_sink& k = s->sink;
    const int i = k.element;
    if (!flush_rest(k)) return failed(c, i);
    if (c->korm[i].wts == 3 && !header_behind(k, s->parts[part])) return failed(c, i);
    if (!flush_and_close(k)) return failed(c, i);
    return install_verify_element(c, i);
}

void stream_sink_abandon(stream_sink* k)
{
    if (k->fd >= 0) (void)::close(k->fd);
    k->fd = -1;
}
