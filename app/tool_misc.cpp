// korvel-app meta, cap, rm, config and pos: the short exchanges.
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <memory>

#include <cjson/cJSON.h>

#include "app/tool.h"
#include "core/byte_order.h"
#include "core/json_ptr.h"
#include "core/packet.h"
#include "core/scoped.h"

namespace korvel {
namespace app {

namespace {

// One reply of several packets of msgType (metadata, capability file), reassembled by
// header offset, until the packet marked last or the burst's packet count.
int read_text_burst(Session& s, uint32_t msgType, const char* what, std::string& text) {
    Reply reply;
    for (uint32_t n = 0; n < s.opt.blocks; ++n) {
        int rc = session_read(s, reply, what);
        if (rc != EXIT_OK) {
            return rc;
        }
        if (reply.reqType == REQ_CONTROL) {
            return report_ack(s, reply, what);
        }
        if (reply.msgType != msgType || reply.offset != text.size()) {
            fprintf(s.err, "korvel-app: %s: packet out of order\n", what);
            return EXIT_PROTOCOL;
        }
        text.append(reply.payload.begin(), reply.payload.end());
        if (reply.marker == MARKER_LAST || reply.marker == MARKER_CONT_LAST) {
            return EXIT_OK;
        }
    }
    fprintf(s.err, "korvel-app: %s: reply cut after %u packets\n", what, s.opt.blocks);
    return EXIT_PROTOCOL;
}

int open_and_configure(Session& s) {
    int rc = session_open(s);
    return rc == EXIT_OK ? session_configure(s, s.opt.packsize, s.opt.blocks) : rc;
}

int finish(Session& s, int rc) {
    if (rc == EXIT_OK || rc >= EXIT_NOT_FOUND) {
        session_quit(s);
    }
    s.client.close_connection();
    return rc;
}

int write_whole(Session& s, const std::string& path, const std::string& bytes) {
    ScopedFd fd(open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644));
    bool ok = fd.valid() &&
              write(fd.get(), bytes.data(), bytes.size()) == static_cast<ssize_t>(bytes.size());
    if (!ok) {
        fprintf(s.err, "korvel-app: %s: %s\n", path.c_str(), strerror(errno));
    }
    return ok ? EXIT_OK : EXIT_LOCAL;
}

// Prints a delete acknowledgement; keeps the first failure's exit code.
void note_delete_ack(Session& s, const Reply& reply, int& first) {
    fprintf(s.out, "ack: %s (0x%04X)\n", ack_code_text(reply.ackCode), reply.ackCode);
    int code = exit_code_for_ack(reply.ackCode);
    if (first == EXIT_OK && code != EXIT_OK) {
        first = code;
    }
}

// Reads replies until one of (reqType, msgType), printing delete acknowledgements met on
// the way.
int drain_delete_acks(Session& s, uint32_t reqType, uint32_t msgType, int& first, Reply& reply) {
    for (;;) {
        int rc = session_read(s, reply, "rm");
        if (rc != EXIT_OK) {
            return rc;
        }
        if (reply.reqType == reqType && reply.msgType == msgType) {
            return EXIT_OK;
        }
        if (reply.reqType == REQ_CONTROL && reply.msgType == MSG_DELETE) {
            note_delete_ack(s, reply, first);
        }
    }
}

std::string delete_json(const std::vector<std::string>& names) {
    JsonTree root(cJSON_CreateObject());
    cJSON* media = cJSON_CreateArray();
    cJSON_AddItemToObject(root.get(), "media", media);
    for (const std::string& n : names) {
        cJSON_AddItemToArray(media, cJSON_CreateString(n.c_str()));
    }
    JsonText text(cJSON_PrintUnformatted(root.get()));
    return text != nullptr ? text.get() : "";
}

}  // namespace

int cmd_meta(Session& s, const std::vector<std::string>& args) {
    if (args.size() != 1 || args[0].empty() || args[0][0] == '-') {
        return usage_error(s, "meta", "give exactly one file name");
    }
    int rc = open_and_configure(s);
    if (rc == EXIT_OK) {
        int r = s.client.request_metadata(args[0]);
        rc = r == CLIENT_OK ? EXIT_OK : report_client_error(s, r, args[0].c_str());
    }
    std::string text;
    if (rc == EXIT_OK) {
        rc = read_text_burst(s, MSG_METADATA, args[0].c_str(), text);
    }
    if (rc == EXIT_OK) {
        fprintf(s.out, "%s\n", text.c_str());
    }
    return finish(s, rc);
}

int cmd_cap(Session& s, const std::vector<std::string>& args) {
    std::string out;
    if (args.size() == 2 && args[0] == "-o") {
        out = args[1];
    } else if (!args.empty()) {
        return usage_error(s, "cap", "bad arguments");
    }
    int rc = open_and_configure(s);
    if (rc == EXIT_OK) {
        int r = s.client.request_capability();
        rc = r == CLIENT_OK ? EXIT_OK : report_client_error(s, r, "capability file");
    }
    std::string text;
    if (rc == EXIT_OK) {
        rc = read_text_burst(s, MSG_CAPABILITY, "capability file", text);
    }
    if (rc == EXIT_OK && out.empty()) {
        fwrite(text.data(), 1, text.size(), s.out);
    } else if (rc == EXIT_OK) {
        rc = write_whole(s, out, text);
        fprintf(s.out, "capability file: %zu bytes -> %s\n", text.size(), out.c_str());
    }
    return finish(s, rc);
}

int cmd_rm(Session& s, const std::vector<std::string>& args) {
    if (args.empty()) {
        return usage_error(s, "rm", "no file name given");
    }
    std::string json = delete_json(args);
    if (json.size() > PACKET_MAX_RECV_PAYLOAD) {
        return usage_error(s, "rm", "too many names for one request");
    }
    int rc = open_and_configure(s);
    if (rc == EXIT_OK) {
        int r = s.client.request_delete(json);
        rc = r == CLIENT_OK ? EXIT_OK : report_client_error(s, r, "rm");
    }
    int first = EXIT_OK;
    Reply reply;
    if (rc == EXIT_OK) {
        // The first answer: accepted or not.
        rc = drain_delete_acks(s, REQ_CONTROL, MSG_DELETE, first, reply);
    }
    if (rc == EXIT_OK && reply.ackCode != ACK_DONE) {
        rc = report_ack(s, reply, "rm");
    }
    if (rc != EXIT_OK) {
        s.client.close_connection();
        return rc;
    }
    note_delete_ack(s, reply, first);
    // Quitting now waits for the running request to finish, and a position query after the
    // quit is answered only once every reply of that request is out.
    int r = s.client.quit();
    rc = r == CLIENT_OK ? drain_delete_acks(s, REQ_CONTROL, MSG_QUIT, first, reply)
                        : report_client_error(s, r, "rm");
    if (rc == EXIT_OK) {
        r = s.client.ctrl(MSG_POSITION);
        rc = r == CLIENT_OK ? drain_delete_acks(s, REQ_DATA, MSG_POSITION, first, reply)
                            : report_client_error(s, r, "rm");
    }
    s.client.close_connection();
    return rc != EXIT_OK ? rc : first;
}

int cmd_config(Session& s, const std::vector<std::string>& args) {
    bool havePack = false, haveBlocks = false;
    for (size_t i = 0; i < args.size(); ++i) {
        uint32_t v = 0;
        bool hasValue = i + 1 < args.size();
        if (args[i] == "--packsize" && hasValue && parse_u32(args[i + 1], 65535, v)) {
            s.opt.packsize = static_cast<uint16_t>(v);
            havePack = true;
        } else if (args[i] == "--blocks" && hasValue && parse_u32(args[i + 1], 65535, v)) {
            s.opt.blocks = static_cast<uint16_t>(v);
            haveBlocks = true;
        } else if (args[i] == "--location" && hasValue) {
            s.opt.location = args[i + 1];
            s.opt.userLocation = true;
        } else {
            return usage_error(s, "config", ("bad argument " + args[i]).c_str());
        }
        ++i;
    }
    if (!havePack || !haveBlocks) {
        return usage_error(s, "config", "--packsize and --blocks are required");
    }
    int rc = open_and_configure(s);
    if (rc == EXIT_OK) {
        fprintf(s.out, "configured: packsize %u, blocks %u, location %s\n", s.opt.packsize,
                s.opt.blocks, s.opt.userLocation ? s.opt.location.c_str() : "(card)");
    }
    return finish(s, rc);
}

int cmd_pos(Session& s, const std::vector<std::string>& args) {
    if (!args.empty()) {
        return usage_error(s, "pos", "takes no arguments");
    }
    int rc = session_open(s);
    if (rc == EXIT_OK) {
        int r = s.client.ctrl(MSG_POSITION);
        rc = r == CLIENT_OK ? EXIT_OK : report_client_error(s, r, "pos");
    }
    Reply reply;
    if (rc == EXIT_OK) {
        rc = session_read(s, reply, "pos");
    }
    if (rc == EXIT_OK && reply.reqType == REQ_CONTROL) {
        rc = report_ack(s, reply, "pos");
    } else if (rc == EXIT_OK && (reply.msgType != MSG_POSITION || reply.payload.size() != 4)) {
        fprintf(s.err, "korvel-app: pos: unexpected reply\n");
        rc = EXIT_PROTOCOL;
    }
    if (rc == EXIT_OK) {
        fprintf(s.out, "position: %u\n", load_be32(reply.payload.data()));
    }
    return finish(s, rc);
}

}  // namespace app
}  // namespace korvel
