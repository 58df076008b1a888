// The catalogue text, entry by entry. An entry printed on its own comes out as cJSON prints
// it at depth 0; inside the whole tree it sits at depth 2 (envelope, media array), which
// differs only by two more tabs after every line break. Printed strings hold no raw line
// breaks (cJSON escapes them), so inserting the tabs after each one gives the tree's bytes.
#include "catalogue/catalogue_text.h"

#include <cstring>

#include <cjson/cJSON.h>

namespace korvel {

namespace {

// Holds the largest entry the walk can make: three objects whose names (at most 1,023
// bytes each) could escape to six bytes a byte.
constexpr size_t SCRATCH_BYTES = 32 * 1024;

// How the envelope's print ends when its media array is empty, and what closes it.
constexpr char EMPTY_MEDIA_END[] = "[]\n}";
constexpr char MEDIA_CLOSE[] = "]\n}";
constexpr char ENTRY_BREAK[] = "\n\t\t";
constexpr char ENTRY_SEPARATOR[] = ", ";

}  // namespace

void CJsonBufferFree::operator()(char* p) const {
    cJSON_free(p);
}

size_t json_string_bytes(const char* s, size_t len) {
    size_t n = 2;
    for (size_t i = 0; i < len; ++i) {
        unsigned char c = static_cast<unsigned char>(s[i]);
        if (c == '"' || c == '\\' || c == '\b' || c == '\f' || c == '\n' || c == '\r' ||
            c == '\t') {
            n += 2;
        } else if (c < 32) {
            n += 6;  // \u00XX
        } else {
            n += 1;
        }
    }
    return n;
}

bool catalogue_text_begin(CatalogueWriter& w, cJSON* envelope) {
    CJsonBuffer printed(cJSON_Print(envelope));
    w.scratch.reset(static_cast<char*>(cJSON_malloc(SCRATCH_BYTES)));
    const size_t endLen = sizeof EMPTY_MEDIA_END - 1;
    size_t len = printed ? strlen(printed.get()) : 0;
    if (!w.scratch || len < endLen ||
        memcmp(printed.get() + len - endLen, EMPTY_MEDIA_END, endLen) != 0) {
        w.failed = true;
        return false;
    }
    w.text.clear();
    w.text.append(printed.get(), len - endLen + 1);  // up to and including '['
    return true;
}

bool catalogue_text_add(CatalogueWriter& w, cJSON* entry) {
    if (w.failed || !cJSON_PrintPreallocated(entry, w.scratch.get(),
                                             static_cast<int>(SCRATCH_BYTES), 1)) {
        w.failed = true;
        return false;
    }
    if (w.entries++ != 0) {
        w.text.append(ENTRY_SEPARATOR, sizeof ENTRY_SEPARATOR - 1);
    }
    const char* p = w.scratch.get();
    while (const char* nl = strchr(p, '\n')) {
        w.text.append(p, static_cast<size_t>(nl - p));
        w.text.append(ENTRY_BREAK, sizeof ENTRY_BREAK - 1);
        p = nl + 1;
    }
    w.text.append(p);
    return true;
}

void catalogue_text_end(CatalogueWriter& w) {
    w.text.append(MEDIA_CLOSE, sizeof MEDIA_CLOSE - 1);
}

}  // namespace korvel
