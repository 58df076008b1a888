// MP4/MOV box reader. The top level is walked with small bounded reads up to the first
// moov, which is read whole (after its size is checked against the file and MP4_MOOV_CAP)
// and parsed once along the fixed paths we need, so nesting is bounded by construction.
// Every size, offset and count is checked against its parent box before use; a box we
// decode that does not fit fails the open, boxes we do not decode are stepped over.
#include "media/mp4_reader.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <new>
#include <vector>

#include "core/byte_order.h"
#include "core/scoped.h"

namespace korvel {

namespace {

constexpr uint32_t fourcc(const char (&s)[5]) {
    return (uint32_t(uint8_t(s[0])) << 24) | (uint32_t(uint8_t(s[1])) << 16) |
           (uint32_t(uint8_t(s[2])) << 8) | uint32_t(uint8_t(s[3]));
}

uint64_t be64(const uint8_t* p) {
    return (uint64_t(load_be32(p)) << 32) | load_be32(p + 4);
}

// A bounded run of bytes inside the moov buffer.
struct Span {
    const uint8_t* data = nullptr;
    size_t size = 0;
};

struct BoxHeader {
    uint32_t type = 0;
    uint64_t size = 0;  // whole box, clipped to the parent
    uint32_t headerLen = 0;
};

// Decodes one box header from `avail` bytes at h; `room` is what the parent has left from
// the box's start. 1: a box; 0: fewer than 8 bytes left, ignored; -1: invalid header.
int parse_header(const uint8_t* h, size_t avail, uint64_t room, BoxHeader* out) {
    if (room < 8 || avail < 8) {
        return 0;
    }
    uint64_t size = load_be32(h);
    uint32_t headerLen = 8;
    out->type = load_be32(h + 4);
    if (size == 1) {
        if (avail < 16) {
            return -1;
        }
        size = be64(h + 8);
        headerLen = 16;
    }
    if (out->type == fourcc("uuid")) {
        headerLen += 16;
    }
    if (size == 0 || size > room) {
        // Size 0 runs to the end; an oversized box is clipped to its parent, which is how a
        // truncated mdat or an overlong moov is still read.
        size = room;
    }
    if (size < headerLen) {
        return -1;
    }
    out->size = size;
    out->headerLen = headerLen;
    return 1;
}

// Walks the child boxes of a span in order.
struct BoxCursor {
    Span parent;
    size_t pos = 0;
};

// 1 with the next child's type and payload, 0 at the end, -1 on an invalid header.
int next_child(BoxCursor* c, uint32_t* type, Span* payload) {
    size_t room = c->parent.size - c->pos;
    const uint8_t* h = c->parent.data + c->pos;
    BoxHeader hdr;
    int rc = parse_header(h, room < 24 ? room : 24, room, &hdr);
    if (rc <= 0) {
        return rc;
    }
    *type = hdr.type;
    payload->data = h + hdr.headerLen;
    payload->size = size_t(hdr.size) - hdr.headerLen;
    c->pos += size_t(hdr.size);
    return 1;
}

// Tag and body of one descriptor at the start of `in`; `in` is advanced past it.
// 1: found; 0: nothing left; -1: the length runs past its container.
int next_descriptor(Span* in, uint8_t* tag, Span* body) {
    if (in->size == 0) {
        return 0;
    }
    size_t pos = 1;
    uint32_t len = 0;
    for (int i = 0; i < 4; ++i) {
        if (pos >= in->size) {
            return -1;
        }
        uint8_t b = in->data[pos++];
        len = (len << 7) | (b & 0x7Fu);
        if ((b & 0x80u) == 0) {
            break;
        }
    }
    if (len > in->size - pos) {
        return -1;
    }
    *tag = in->data[0];
    body->data = in->data + pos;
    body->size = len;
    in->data += pos + len;
    in->size -= pos + len;
    return 1;
}

struct Esds {
    bool present = false;
    bool hasConfig = false;
    uint8_t objectType = 0;
    uint32_t avgBitrate = 0;
    bool hasDsi = false;
    Span dsi;
};

enum EntryKind { ENTRY_UNKNOWN, ENTRY_VISUAL, ENTRY_SOUND, ENTRY_OTHER };

struct SampleEntry {
    uint32_t type = 0;
    EntryKind kind = ENTRY_UNKNOWN;
    uint16_t width = 0, height = 0;
    uint16_t channels = 0, sampleSize = 0;
    bool sinfSeen = false;
    bool hasFrma = false;
    uint32_t frma = 0;
    bool hasAvcC = false;
    uint8_t profile = 0, level = 0;
    Esds direct;  // esds directly inside the entry
    Esds nested;  // esds inside the entry's first child (QuickTime wave)
};

struct SampleSizes {
    bool present = false;
    uint32_t constSize = 0;
    uint32_t count = 0;
    uint64_t tableSum = 0;
};

struct Mp4Track {
    uint32_t id = 0;
    bool hasTkhd = false, hasMdhd = false, hasHdlr = false;
    bool hasStts = false, hasStsc = false, hasStco = false, hasStsd = false;
    uint32_t tkhdWidth = 0, tkhdHeight = 0;  // 16.16 fixed
    uint32_t timescale = 0;
    uint64_t duration = 0;
    char handler[5] = {0, 0, 0, 0, 0};
    uint32_t entryBoxes = 0;
    char entryName[5] = {0, 0, 0, 0, 0};
    SampleEntry first;
    SampleSizes stsz, stz2;
};

}  // namespace

struct Mp4File {
    std::vector<uint8_t> moov;
    std::vector<Mp4Track> tracks;  // counted tracks only, in file order
    bool hasMvhd = false;
    bool hasIod = false;  // an iods holding an initial object descriptor
    uint8_t iodVisual = 0;
    bool iodsSeen = false;
};

namespace {

// ---- sample entry children ----

int parse_avcc(Span p, SampleEntry* e) {
    // The parameter set lists must be complete even though only bytes 1 and 3 are used.
    if (p.size < 6) {
        return -1;
    }
    size_t pos = 5;
    unsigned sps = p.data[pos++] & 0x1Fu;
    for (int list = 0; list < 2; ++list) {
        unsigned count = sps;
        if (list == 1) {
            if (pos >= p.size) {
                return -1;
            }
            count = p.data[pos++];
        }
        for (unsigned i = 0; i < count; ++i) {
            if (p.size - pos < 2 || p.size - pos - 2 < load_be16(p.data + pos)) {
                return -1;
            }
            pos += 2 + load_be16(p.data + pos);
        }
    }
    if (!e->hasAvcC) {
        e->hasAvcC = true;
        e->profile = p.data[1];
        e->level = p.data[3];
    }
    return 0;
}

int parse_decoder_config(Span body, Esds* out) {
    if (body.size < 13) {
        return -1;
    }
    out->hasConfig = true;
    out->objectType = body.data[0];
    out->avgBitrate = load_be32(body.data + 9);
    Span rest{body.data + 13, body.size - 13};
    uint8_t tag = 0;
    Span sub;
    int rc;
    while ((rc = next_descriptor(&rest, &tag, &sub)) == 1) {
        if (tag == 0x05 && !out->hasDsi) {
            out->hasDsi = true;
            out->dsi = sub;
        }
    }
    return rc;
}

// Skips the ES_Descriptor's own fields; -1 when they do not fit.
int skip_es_fields(Span* es) {
    if (es->size < 3) {
        return -1;
    }
    uint8_t flags = es->data[2];
    size_t pos = 3;
    if (flags & 0x80u) {
        pos += 2;
    }
    if (flags & 0x40u) {
        if (pos >= es->size) {
            return -1;
        }
        pos += 1 + es->data[pos];
    }
    if (flags & 0x20u) {
        pos += 2;
    }
    if (pos > es->size) {
        return -1;
    }
    es->data += pos;
    es->size -= pos;
    return 0;
}

int parse_esds(Span p, Esds* out) {
    Esds found;
    found.present = true;
    if (p.size < 4) {
        return -1;
    }
    Span in{p.data + 4, p.size - 4};
    uint8_t tag = 0;
    Span es;
    int rc = next_descriptor(&in, &tag, &es);
    if (rc < 0) {
        return -1;
    }
    if (rc == 1 && tag == 0x03) {
        if (skip_es_fields(&es) != 0) {
            return -1;
        }
        Span sub;
        while ((rc = next_descriptor(&es, &tag, &sub)) == 1) {
            if (tag == 0x04 && !found.hasConfig && parse_decoder_config(sub, &found) != 0) {
                return -1;
            }
        }
        if (rc < 0) {
            return -1;
        }
    }
    if (!out->present) {
        *out = found;
    }
    return 0;
}

int parse_sinf(Span p, SampleEntry* e) {
    BoxCursor c{p};
    uint32_t type;
    Span child;
    int rc;
    while ((rc = next_child(&c, &type, &child)) == 1) {
        if (type != fourcc("frma")) {
            continue;
        }
        if (child.size < 4) {
            return -1;
        }
        if (!e->hasFrma) {
            e->hasFrma = true;
            e->frma = load_be32(child.data);
        }
    }
    return rc;
}

int parse_wave(Span p, Esds* out) {
    BoxCursor c{p};
    uint32_t type;
    Span child;
    int rc;
    while ((rc = next_child(&c, &type, &child)) == 1) {
        if (type == fourcc("esds") && parse_esds(child, out) != 0) {
            return -1;
        }
    }
    return rc;
}

int parse_entry_child(uint32_t type, Span child, bool firstChild, SampleEntry* e) {
    if (type == fourcc("avcC")) {
        return parse_avcc(child, e);
    }
    if (type == fourcc("esds")) {
        return parse_esds(child, &e->direct);
    }
    if (type == fourcc("sinf")) {
        // Only the first sinf is consulted, even when it lacks a frma.
        bool first = !e->sinfSeen;
        e->sinfSeen = true;
        return first ? parse_sinf(child, e) : 0;
    }
    if (type == fourcc("wave") && firstChild) {
        return parse_wave(child, &e->nested);
    }
    return 0;
}

// Length of the fixed fields before an entry's child boxes, by entry type; 0 for types
// whose children we never look at.
size_t entry_fixed_length(uint32_t type, Span p, EntryKind* kind) {
    static const uint32_t visual[] = {fourcc("avc1"), fourcc("mp4v"), fourcc("encv"),
                                      fourcc("s263"), fourcc("h263"), fourcc("jpeg"),
                                      fourcc("raw "), fourcc("SVQ3"), fourcc("yuv2")};
    static const uint32_t sound[] = {fourcc("mp4a"), fourcc("enca"), fourcc("twos"),
                                     fourcc("sowt"), fourcc("samr"), fourcc("sawb"),
                                     fourcc("ac-3"), fourcc("alac")};
    for (uint32_t v : visual) {
        if (type == v) {
            *kind = ENTRY_VISUAL;
            return 78;
        }
    }
    for (uint32_t s : sound) {
        if (type == s) {
            *kind = ENTRY_SOUND;
            uint16_t version = p.size >= 10 ? load_be16(p.data + 8) : 0;
            return version == 1 ? 44 : version == 2 ? 64 : 28;
        }
    }
    if (type == fourcc("mp4s")) {
        *kind = ENTRY_OTHER;
        return 8;
    }
    *kind = ENTRY_UNKNOWN;
    return 0;
}

int parse_sample_entry(uint32_t type, Span p, SampleEntry* e) {
    e->type = type;
    size_t fixed = entry_fixed_length(type, p, &e->kind);
    if (e->kind == ENTRY_UNKNOWN) {
        return 0;
    }
    if (p.size < fixed) {
        return -1;
    }
    if (e->kind == ENTRY_VISUAL) {
        e->width = load_be16(p.data + 24);
        e->height = load_be16(p.data + 26);
    } else if (e->kind == ENTRY_SOUND) {
        e->channels = load_be16(p.data + 16);
        e->sampleSize = load_be16(p.data + 18);
    }
    BoxCursor c{Span{p.data + fixed, p.size - fixed}};
    uint32_t childType;
    Span child;
    int rc;
    bool firstChild = true;
    while ((rc = next_child(&c, &childType, &child)) == 1) {
        if (parse_entry_child(childType, child, firstChild, e) != 0) {
            return -1;
        }
        firstChild = false;
    }
    return rc;
}

// ---- sample table ----

void type_text(uint32_t type, char out[5]) {
    out[0] = char(type >> 24);
    out[1] = char(type >> 16);
    out[2] = char(type >> 8);
    out[3] = char(type);
    out[4] = 0;
}

int parse_stsd(Span p, Mp4Track* t) {
    // entry_count is not trusted: the entries are the boxes actually present.
    if (p.size < 8) {
        return -1;
    }
    BoxCursor c{Span{p.data + 8, p.size - 8}};
    uint32_t type;
    Span entry;
    int rc;
    while ((rc = next_child(&c, &type, &entry)) == 1) {
        if (t->entryBoxes == 0) {
            type_text(type, t->entryName);
            if (parse_sample_entry(type, entry, &t->first) != 0) {
                return -1;
            }
        }
        ++t->entryBoxes;
    }
    t->hasStsd = true;
    return rc;
}

int parse_stsz(Span p, SampleSizes* s) {
    if (p.size < 12) {
        return -1;
    }
    uint32_t constSize = load_be32(p.data + 4);
    uint32_t count = load_be32(p.data + 8);
    uint64_t sum = 0;
    if (constSize == 0) {
        if (uint64_t(count) * 4 > p.size - 12) {
            return -1;
        }
        for (uint32_t i = 0; i < count; ++i) {
            sum += load_be32(p.data + 12 + size_t(i) * 4);
        }
    }
    if (!s->present) {
        *s = SampleSizes{true, constSize, count, sum};
    }
    return 0;
}

int parse_stz2(Span p, SampleSizes* s) {
    if (p.size < 12) {
        return -1;
    }
    uint8_t fieldSize = p.data[7];
    uint32_t count = load_be32(p.data + 8);
    uint64_t bytes = fieldSize == 4    ? (uint64_t(count) + 1) / 2
                     : fieldSize == 16 ? uint64_t(count) * 2
                                       : count;
    if (bytes > p.size - 12) {
        return -1;
    }
    const uint8_t* tab = p.data + 12;
    uint64_t sum = 0;
    for (uint32_t i = 0; i < count; ++i) {
        if (fieldSize == 4) {
            // Each 4-bit field is its own sample size, so the nibbles are summed, not the
            // packed bytes they share.
            uint8_t b = tab[i / 2];
            sum += (i % 2 == 0) ? (b >> 4) : (b & 0x0Fu);
        } else if (fieldSize == 16) {
            sum += load_be16(tab + size_t(i) * 2);
        } else {
            sum += tab[i];
        }
    }
    if (!s->present) {
        *s = SampleSizes{true, 0, count, sum};
    }
    return 0;
}

// stts, stsc, stco and co64 only need to be present, but their tables must fit.
int check_table(Span p, uint32_t entrySize) {
    if (p.size < 8) {
        return -1;
    }
    return uint64_t(load_be32(p.data + 4)) * entrySize > p.size - 8 ? -1 : 0;
}

int parse_stbl_child(uint32_t type, Span p, Mp4Track* t) {
    switch (type) {
        case fourcc("stsd"):
            return t->hasStsd ? 0 : parse_stsd(p, t);
        case fourcc("stsz"):
            return parse_stsz(p, &t->stsz);
        case fourcc("stz2"):
            return parse_stz2(p, &t->stz2);
        case fourcc("stts"):
            t->hasStts = true;
            return check_table(p, 8);
        case fourcc("stsc"):
            t->hasStsc = true;
            return check_table(p, 12);
        case fourcc("stco"):
            t->hasStco = true;
            return check_table(p, 4);
        case fourcc("co64"):
            t->hasStco = true;
            return check_table(p, 8);
        default:
            return 0;
    }
}

// Calls fn(type, payload) for every child of p; descends only where fn does.
template <typename Fn>
int for_each_child(Span p, Fn fn) {
    BoxCursor c{p};
    uint32_t type;
    Span child;
    int rc;
    while ((rc = next_child(&c, &type, &child)) == 1) {
        if (fn(type, child) != 0) {
            return -1;
        }
    }
    return rc;
}

// ---- track headers ----

int parse_tkhd(Span p, Mp4Track* t) {
    bool v1 = p.size >= 1 && p.data[0] == 1;
    if (p.size < (v1 ? 96u : 84u)) {
        return -1;
    }
    if (!t->hasTkhd) {
        t->hasTkhd = true;
        t->id = load_be32(p.data + (v1 ? 20 : 12));
        t->tkhdWidth = load_be32(p.data + (v1 ? 88 : 76));
        t->tkhdHeight = load_be32(p.data + (v1 ? 92 : 80));
    }
    return 0;
}

int parse_mdhd(Span p, Mp4Track* t) {
    bool v1 = p.size >= 1 && p.data[0] == 1;
    if (p.size < (v1 ? 36u : 24u)) {
        return -1;
    }
    if (!t->hasMdhd) {
        t->hasMdhd = true;
        t->timescale = load_be32(p.data + (v1 ? 20 : 12));
        t->duration = v1 ? be64(p.data + 24) : load_be32(p.data + 16);
    }
    return 0;
}

int parse_hdlr(Span p, Mp4Track* t) {
    // The name after the fixed fields may be a C string, counted, unterminated or absent.
    if (p.size < 24) {
        return -1;
    }
    if (!t->hasHdlr) {
        t->hasHdlr = true;
        memcpy(t->handler, p.data + 8, 4);
    }
    return 0;
}

int parse_trak(Span p, Mp4Track* t) {
    bool mdiaSeen = false;
    return for_each_child(p, [&](uint32_t type, Span box) {
        if (type == fourcc("tkhd")) {
            return parse_tkhd(box, t);
        }
        if (type != fourcc("mdia") || mdiaSeen) {
            return 0;
        }
        mdiaSeen = true;
        bool minfSeen = false;
        return for_each_child(box, [&](uint32_t mtype, Span mbox) {
            if (mtype == fourcc("mdhd")) {
                return parse_mdhd(mbox, t);
            }
            if (mtype == fourcc("hdlr")) {
                return parse_hdlr(mbox, t);
            }
            if (mtype != fourcc("minf") || minfSeen) {
                return 0;
            }
            minfSeen = true;
            bool stblSeen = false;
            return for_each_child(mbox, [&](uint32_t itype, Span ibox) {
                if (itype != fourcc("stbl") || stblSeen) {
                    return 0;
                }
                stblSeen = true;
                return for_each_child(ibox, [&](uint32_t stype, Span sbox) {
                    return parse_stbl_child(stype, sbox, t);
                });
            });
        });
    });
}

bool track_counts(const Mp4Track& t) {
    return t.hasTkhd && t.hasMdhd && t.hasHdlr && (t.stsz.present || t.stz2.present) && t.hasStsc &&
           t.hasStts && t.hasStco;
}

// ---- moov ----

int parse_iods(Span p, Mp4File* f) {
    if (p.size < 4) {
        return -1;
    }
    Span in{p.data + 4, p.size - 4};
    uint8_t tag = 0;
    Span body;
    int rc = next_descriptor(&in, &tag, &body);
    if (rc <= 0) {
        return rc;
    }
    if (tag != 0x10) {
        return 0;  // another descriptor: the track's decoder config decides
    }
    if (body.size < 2) {
        return -1;
    }
    f->hasIod = true;
    if (body.data[1] & 0x20u) {
        f->iodVisual = 0;  // a URL stands in for the profile bytes
        return 0;
    }
    if (body.size < 7) {
        return -1;
    }
    f->iodVisual = body.data[5];
    return 0;
}

int parse_moov(Mp4File* f) {
    Span moov{f->moov.data(), f->moov.size()};
    return for_each_child(moov, [f](uint32_t type, Span box) {
        if (type == fourcc("mvhd")) {
            bool v1 = box.size >= 1 && box.data[0] == 1;
            f->hasMvhd = true;
            return box.size < (v1 ? 112u : 100u) ? -1 : 0;
        }
        if (type == fourcc("iods") && !f->iodsSeen) {
            f->iodsSeen = true;
            return parse_iods(box, f);
        }
        if (type != fourcc("trak")) {
            return 0;
        }
        Mp4Track t;
        if (parse_trak(box, &t) != 0) {
            return -1;
        }
        if (track_counts(t)) {
            f->tracks.push_back(t);
        }
        return 0;
    });
}

// ---- file level ----

int pread_full(int fd, uint8_t* buf, size_t len, uint64_t offset) {
    size_t done = 0;
    while (done < len) {
        ssize_t n = pread(fd, buf + done, len - done, off_t(offset + done));
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            return -1;
        }
        done += size_t(n);
    }
    return 0;
}

// Finds the first top-level moov and stops there. Every header before it must be valid and
// an ftyp must hold its brands; everything else is stepped over by its size. At most
// MP4_TOP_BOXES_MAX boxes are looked at, so a file of tiny boxes cannot hold the caller.
int find_moov(int fd, uint64_t fileSize, uint64_t* moovPayload, uint64_t* moovSize) {
    uint64_t pos = 0;
    uint8_t h[24];
    for (uint32_t boxes = 0; fileSize - pos >= 8 && boxes < MP4_TOP_BOXES_MAX; ++boxes) {
        uint64_t room = fileSize - pos;
        size_t want = room < sizeof h ? size_t(room) : sizeof h;
        if (pread_full(fd, h, want, pos) != 0) {
            return -1;
        }
        BoxHeader hdr;
        if (parse_header(h, want, room, &hdr) < 0) {
            return -1;
        }
        if (hdr.type == fourcc("ftyp") && hdr.size - hdr.headerLen < 8) {
            return -1;
        }
        if (hdr.type == fourcc("moov")) {
            *moovPayload = pos + hdr.headerLen;
            *moovSize = hdr.size - hdr.headerLen;
            return 0;
        }
        pos += hdr.size;
    }
    return -1;
}

int load(int fd, Mp4File* f) {
    struct stat st;
    if (fd < 0 || fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
        return -1;
    }
    uint64_t payload = 0, size = 0;
    if (find_moov(fd, uint64_t(st.st_size), &payload, &size) != 0 || size > MP4_MOOV_CAP) {
        return -1;
    }
    f->moov.resize(size_t(size));
    if (size > 0 && pread_full(fd, f->moov.data(), size_t(size), payload) != 0) {
        return -1;
    }
    if (parse_moov(f) != 0 || !f->hasMvhd) {
        return -1;
    }
    return 0;
}

const Mp4Track* find_track(const Mp4File* f, uint32_t id) {
    if (f == nullptr) {
        return nullptr;
    }
    for (const Mp4Track& t : f->tracks) {
        if (t.id == id) {
            return &t;
        }
    }
    return nullptr;
}

// Id 0 names no track for every call except the type and the timescale.
const Mp4Track* find_valid_track(const Mp4File* f, uint32_t id) {
    return id == MP4_INVALID_TRACK_ID ? nullptr : find_track(f, id);
}

// Smallest i with x <= 2^i, at most 64.
unsigned ceil_log2(uint64_t x) {
    unsigned i = 0;
    while (i < 64 && (uint64_t(1) << i) < x) {
        ++i;
    }
    return i;
}

const Esds* entry_esds(const SampleEntry& e) {
    if (e.direct.present) {
        return &e.direct;
    }
    return e.nested.present ? &e.nested : nullptr;
}

// Total bytes of all samples: stsz before stz2; raw PCM entries count frames, not bytes.
uint64_t total_sample_bytes(const Mp4Track& t) {
    uint64_t k = 1;
    if (t.entryBoxes == 1 && (t.first.type == fourcc("twos") || t.first.type == fourcc("sowt"))) {
        k = uint64_t(t.first.channels) * (t.first.sampleSize / 8);
    }
    if (t.stsz.present) {
        if (t.stsz.constSize != 0) {
            return k * t.stsz.constSize * t.stsz.count;
        }
        return k * t.stsz.tableSum;
    }
    return k * t.stz2.tableSum;
}

uint32_t sample_count(const Mp4Track& t) {
    return t.stsz.present ? t.stsz.count : t.stz2.count;
}

// Track duration in ms; false when the timescale is 0.
bool duration_ms(const Mp4Track& t, uint64_t* ms) {
    return mp4_rescale(t.duration, t.timescale, 1000, ms);
}

}  // namespace

Mp4File* mp4_open_fd(int fd) {
    Mp4File* f = new (std::nothrow) Mp4File;
    if (f != nullptr && load(fd, f) != 0) {
        delete f;
        return nullptr;
    }
    return f;
}

Mp4File* mp4_open(const char* path) {
    if (path == nullptr) {
        return nullptr;
    }
    // Without waiting: a FIFO given by name must not block the reader.
    ScopedFd fd(open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    return fd.get() < 0 ? nullptr : mp4_open_fd(fd.get());
}

void mp4_close(Mp4File* file) {
    delete file;
}

uint32_t mp4_track_count(const Mp4File* file) {
    return file ? uint32_t(file->tracks.size()) : 0;
}

uint32_t mp4_track_id(const Mp4File* file, uint32_t index) {
    if (file == nullptr || index >= file->tracks.size()) {
        return MP4_INVALID_TRACK_ID;
    }
    return file->tracks[index].id;
}

const char* mp4_track_type(const Mp4File* file, uint32_t trackId) {
    const Mp4Track* t = find_track(file, trackId);
    return t ? t->handler : nullptr;
}

const char* mp4_media_data_name(const Mp4File* file, uint32_t trackId) {
    const Mp4Track* t = find_valid_track(file, trackId);
    return (t && t->entryBoxes == 1) ? t->entryName : nullptr;
}

bool mp4_media_original_format(const Mp4File* file, uint32_t trackId, char* buffer, size_t length) {
    const Mp4Track* t = find_valid_track(file, trackId);
    if (buffer == nullptr || length < 5 || t == nullptr || !t->first.hasFrma) {
        return false;
    }
    type_text(t->first.frma, buffer);
    return true;
}

bool mp4_h264_profile_level(const Mp4File* file, uint32_t trackId, uint8_t* profile,
                            uint8_t* level) {
    const Mp4Track* t = find_valid_track(file, trackId);
    if (t == nullptr || !t->first.hasAvcC) {
        return false;
    }
    if (profile) {
        *profile = t->first.profile;
    }
    if (level) {
        *level = t->first.level;
    }
    return true;
}

uint8_t mp4_esds_object_type(const Mp4File* file, uint32_t trackId) {
    const Mp4Track* t = find_valid_track(file, trackId);
    const Esds* e = t ? entry_esds(t->first) : nullptr;
    return e ? e->objectType : 0;
}

uint8_t mp4_video_profile_level(const Mp4File* file, uint32_t trackId) {
    if (file == nullptr) {
        return 0;
    }
    if (file->hasIod) {
        return file->iodVisual;  // file-wide, as stored, for every track
    }
    const Mp4Track* t = find_valid_track(file, trackId);
    const Esds* e = t ? entry_esds(t->first) : nullptr;
    if (e == nullptr || e->objectType != 0x20 || !e->hasDsi) {
        return 0;
    }
    // The profile follows the visual object sequence start code; the byte after the code
    // must lie inside the decoder config.
    const uint8_t* d = e->dsi.data;
    for (size_t i = 0; i + 5 <= e->dsi.size; ++i) {
        if (d[i] == 0 && d[i + 1] == 0 && d[i + 2] == 1 && d[i + 3] == 0xB0) {
            return d[i + 4];
        }
    }
    return 0;
}

uint64_t mp4_track_duration(const Mp4File* file, uint32_t trackId) {
    const Mp4Track* t = find_valid_track(file, trackId);
    return t ? t->duration : MP4_INVALID_DURATION;
}

bool mp4_rescale(uint64_t t, uint32_t from, uint32_t to, uint64_t* result) {
    if (from == 0) {
        return false;
    }
    if (from == to) {
        *result = t;
    } else if (ceil_log2(t) + ceil_log2(to) <= 64) {
        *result = t * to / from;
    } else {
        // Too large for exact integer arithmetic: round half up in double. Results past the
        // 64-bit range saturate rather than overflow the conversion.
        double d = (double(to) * double(t)) / double(from) + 0.5;
        *result = d >= 18446744073709551615.0 ? UINT64_MAX : uint64_t(d);
    }
    return true;
}

uint64_t mp4_convert_from_track_duration(const Mp4File* file, uint32_t trackId, uint64_t duration,
                                         uint32_t toScale) {
    // Id 0 still reaches the timescale of a track that carries it.
    const Mp4Track* t = find_track(file, trackId);
    uint64_t out = 0;
    if (t == nullptr || !mp4_rescale(duration, t->timescale, toScale, &out)) {
        return MP4_INVALID_DURATION;
    }
    return out;
}

uint32_t mp4_track_bit_rate(const Mp4File* file, uint32_t trackId) {
    const Mp4Track* t = find_valid_track(file, trackId);
    if (t == nullptr) {
        return 0;
    }
    // Only an esds directly inside the entry gives a stated rate; zero means "not stated".
    if (t->first.direct.avgBitrate != 0) {
        return t->first.direct.avgBitrate;
    }
    uint64_t ms = 0;
    if (!duration_ms(*t, &ms) || ms == 0) {
        return 0;
    }
    return uint32_t(total_sample_bytes(*t) * 8000 / ms);
}

static uint16_t video_dimension(const Mp4File* file, uint32_t trackId, bool wantWidth) {
    const Mp4Track* t = find_valid_track(file, trackId);
    if (t == nullptr) {
        return 0;
    }
    if (t->entryBoxes > 0 && t->first.kind == ENTRY_VISUAL) {
        return wantWidth ? t->first.width : t->first.height;
    }
    // No size in the entry: the track header's 16.16 value, integer part taken exactly.
    return uint16_t((wantWidth ? t->tkhdWidth : t->tkhdHeight) >> 16);
}

uint16_t mp4_video_width(const Mp4File* file, uint32_t trackId) {
    return video_dimension(file, trackId, true);
}

uint16_t mp4_video_height(const Mp4File* file, uint32_t trackId) {
    return video_dimension(file, trackId, false);
}

double mp4_video_frame_rate(const Mp4File* file, uint32_t trackId) {
    const Mp4Track* t = find_valid_track(file, trackId);
    uint64_t ms = 0;
    if (t == nullptr || !duration_ms(*t, &ms) || ms == 0) {
        return 0.0;
    }
    // Divide before scaling: the last bit of e.g. 29.97 depends on this order.
    return (double(sample_count(*t)) / double(ms)) * 1000.0;
}

}  // namespace korvel
