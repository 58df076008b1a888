// korvel-app ls: fetches the catalogue with paged requests and prints it as a table or JSON.
#include <algorithm>
#include <cstring>
#include <memory>

#include <cjson/cJSON.h>

#include "app/tool.h"
#include "core/json_ptr.h"
#include "core/packet.h"

namespace korvel {
namespace app {

namespace {

// No real card comes near this; it only bounds what a broken server can make us hold.
constexpr size_t MAX_CATALOGUE = 64u << 20;

// One burst of the catalogue starting at text position `offset`. Sets `ended` when the
// packet marked last (1 or 3) arrived.
int fetch_catalogue_burst(Session& s, uint16_t type, bool first, std::string& text, bool& ended) {
    uint32_t offset = static_cast<uint32_t>(text.size());
    int r = s.client.request_catalogue(type, offset, first ? 1 : 2);
    if (r != CLIENT_OK) {
        return report_client_error(s, r, "catalogue");
    }
    Reply reply;
    for (uint32_t n = 0; n < s.opt.blocks && !ended; ++n) {
        int rc = session_read(s, reply, "catalogue");
        if (rc != EXIT_OK) {
            return rc;
        }
        if (reply.reqType == REQ_CONTROL) {
            return report_ack(s, reply, "catalogue");
        }
        if (reply.msgType != MSG_CATALOGUE || reply.offset != text.size() ||
            text.size() + reply.payload.size() > MAX_CATALOGUE) {
            fprintf(s.err, "korvel-app: catalogue: packet out of order\n");
            return EXIT_PROTOCOL;
        }
        text.append(reply.payload.begin(), reply.payload.end());
        ended = reply.marker == MARKER_LAST || reply.marker == MARKER_CONT_LAST;
    }
    if (!ended && text.size() == offset) {
        fprintf(s.err, "korvel-app: catalogue: empty burst\n");
        return EXIT_PROTOCOL;
    }
    return EXIT_OK;
}

const char* str_member(const cJSON* obj, const char* key) {
    const cJSON* item = cJSON_GetObjectItemCaseSensitive(obj, key);
    return cJSON_IsString(item) && item->valuestring != nullptr ? item->valuestring : "";
}

const char* nested_name(const cJSON* obj, const char* key) {
    const cJSON* item = cJSON_GetObjectItemCaseSensitive(obj, key);
    const char* name = cJSON_IsObject(item) ? str_member(item, "fileName") : "";
    return name[0] != '\0' ? name : "-";
}

void print_table(FILE* out, const cJSON* root) {
    const cJSON* media = cJSON_GetObjectItemCaseSensitive(root, "media");
    const char* head[6] = {"NAME", "TYPE", "SIZE", "DATE", "THUMBNAIL", "SECOND"};
    std::vector<std::vector<std::string>> rows;
    size_t width[6];
    for (int c = 0; c < 6; ++c) {
        width[c] = strlen(head[c]);
    }
    const cJSON* entry = nullptr;
    cJSON_ArrayForEach(entry, media) {
        std::vector<std::string> row = {
            str_member(entry, "fileName"),   str_member(entry, "fileType"),
            str_member(entry, "fileSize"),   str_member(entry, "createDate"),
            nested_name(entry, "thumbnail"), nested_name(entry, "second")};
        for (int c = 0; c < 6; ++c) {
            width[c] = std::max(width[c], row[c].size());
        }
        rows.push_back(row);
    }
    auto print_row = [&](const char* const* cells) {
        fprintf(out, "%-*s  %-*s  %*s  %-*s  %-*s  %s\n", static_cast<int>(width[0]), cells[0],
                static_cast<int>(width[1]), cells[1], static_cast<int>(width[2]), cells[2],
                static_cast<int>(width[3]), cells[3], static_cast<int>(width[4]), cells[4],
                cells[5]);
    };
    print_row(head);
    for (const auto& row : rows) {
        const char* cells[6];
        for (int c = 0; c < 6; ++c) {
            cells[c] = row[c].c_str();
        }
        print_row(cells);
    }
    fprintf(out, "%zu file(s) in %s\n", rows.size(), str_member(root, "rootdir"));
}

int parse_ls_args(Session& s, const std::vector<std::string>& args, uint16_t& type, bool& json) {
    for (size_t i = 0; i < args.size(); ++i) {
        uint32_t v = 0;
        if (args[i] == "--type" && i + 1 < args.size() && parse_u32(args[i + 1], 0x7FFF, v)) {
            type = static_cast<uint16_t>(v);
            ++i;
        } else if (args[i] == "--json") {
            json = true;
        } else {
            return usage_error(s, "ls", ("bad argument " + args[i]).c_str());
        }
    }
    return EXIT_OK;
}

}  // namespace

int cmd_ls(Session& s, const std::vector<std::string>& args) {
    uint16_t type = 1;
    bool json = false;
    int rc = parse_ls_args(s, args, type, json);
    if (rc != EXIT_OK) {
        return rc;
    }
    rc = session_open(s);
    if (rc == EXIT_OK) {
        rc = session_configure(s, s.opt.packsize, s.opt.blocks);
    }
    std::string text;
    bool ended = false;
    for (bool first = true; rc == EXIT_OK && !ended; first = false) {
        rc = fetch_catalogue_burst(s, type, first, text, ended);
    }
    if (rc != EXIT_OK) {
        s.client.close_connection();
        return rc;
    }
    session_end_last_package(s);
    s.client.close_connection();
    JsonTree root(cJSON_ParseWithLength(text.data(), text.size()));
    if (!root) {
        fprintf(s.err, "korvel-app: catalogue: not valid JSON\n");
        return EXIT_PROTOCOL;
    }
    if (json) {
        fprintf(s.out, "%s\n", text.c_str());
    } else {
        print_table(s.out, root.get());
    }
    return EXIT_OK;
}

}  // namespace app
}  // namespace korvel
