// The catalogue text, printed entry by entry into one growing string: the bytes are those
// cJSON_Print gives for the whole tree, but no tree of the whole card ever exists.
// Worker thread.
#pragma once

#include <cstddef>
#include <memory>
#include <string>

struct cJSON;

namespace korvel {

struct CJsonBufferFree {
    void operator()(char* p) const;
};
using CJsonBuffer = std::unique_ptr<char, CJsonBufferFree>;

struct CatalogueWriter {
    std::string& text;
    CJsonBuffer scratch;  // one entry's print, reused for every entry
    size_t entries = 0;
    bool failed = false;
};

// Where the walk puts each entry: into `media` (one tree of the card) or, when `writer` is
// set, printed into the text and deleted at once.
struct CatalogueSink {
    cJSON* media = nullptr;
    CatalogueWriter* writer = nullptr;
};

// Bytes of the quoted, escaped form of a string of `len` bytes, as cJSON prints it.
size_t json_string_bytes(const char* s, size_t len);

// Starts the text with everything of `envelope` (whose last member is an empty "media"
// array) up to the array's opening bracket. False (and w.failed) when the print or the
// scratch buffer could not be had.
bool catalogue_text_begin(CatalogueWriter& w, cJSON* envelope);

// Appends one element of the media array; false (and w.failed) when it could not be printed.
bool catalogue_text_add(CatalogueWriter& w, cJSON* entry);

// Closes the media array and the envelope.
void catalogue_text_end(CatalogueWriter& w);

}  // namespace korvel
