// Session steps of korvel-app: connect, configure, read one reply, end the event base, and
// turn every failure into its message and exit code.
#include <unistd.h>

#include <cerrno>
#include <cstdlib>

#include "app/tool.h"
#include "core/packet.h"

namespace korvel {
namespace app {

int exit_code_for_ack(uint32_t code) {
    switch (code) {
        case ACK_DONE:
            return EXIT_OK;
        case ACK_NOT_FOUND:
            return EXIT_NOT_FOUND;
        case ACK_BAD_CHECKSUM:
            return EXIT_BAD_CHECKSUM;
        case ACK_END_OF_DATA:
            return EXIT_END_OF_DATA;
        case ACK_FAILED:
            return EXIT_FAILED;
        case ACK_TOO_LARGE:
            return EXIT_TOO_LARGE;
        case ACK_BAD_NAME:
            return EXIT_BAD_NAME;
        case ACK_BAD_LOCATION:
            return EXIT_BAD_LOCATION;
        default:
            return EXIT_UNKNOWN_CODE;
    }
}

int report_client_error(Session& s, int clientResult, const char* what) {
    switch (clientResult) {
        case CLIENT_REFUSED:
            fprintf(s.err, "korvel-app: %s: connection refused by %s:%u\n", what,
                    s.opt.host.c_str(), s.opt.port);
            return EXIT_REFUSED;
        case CLIENT_TIMEOUT:
            fprintf(s.err, "korvel-app: %s: timed out after %d ms\n", what, s.opt.timeoutMs);
            return EXIT_TIMEOUT;
        case CLIENT_CLOSED:
            fprintf(s.err, "korvel-app: %s: the server closed the connection\n", what);
            return EXIT_CLOSED;
        case CLIENT_BAD_PACKET:
            fprintf(s.err, "korvel-app: %s: malformed reply\n", what);
            return EXIT_PROTOCOL;
        default:
            fprintf(s.err, "korvel-app: %s: connection error\n", what);
            return EXIT_CLOSED;
    }
}

int report_ack(Session& s, const Reply& reply, const char* what) {
    fprintf(s.err, "korvel-app: %s: %s (0x%04X)\n", what, ack_code_text(reply.ackCode),
            reply.ackCode);
    int code = exit_code_for_ack(reply.ackCode);
    // A stray 0xFB00 where data was expected is still a failed exchange.
    return code == EXIT_OK ? EXIT_PROTOCOL : code;
}

int session_open(Session& s) {
    s.client.peerID = s.opt.peer != 0 ? s.opt.peer : static_cast<uint32_t>(getpid());
    s.client.seqNO = 1;
    int r = s.client.connect_to(s.opt.host, s.opt.port, s.opt.timeoutMs);
    if (r != CLIENT_OK) {
        return report_client_error(s, r, "connect");
    }
    return EXIT_OK;
}

int session_read(Session& s, Reply& reply, const char* what) {
    int r = s.client.read_reply(reply, s.opt.timeoutMs);
    if (r != CLIENT_OK) {
        return report_client_error(s, r, what);
    }
    if (!reply.crcOk) {
        fprintf(s.err, "korvel-app: %s: reply failed its checksum\n", what);
        return EXIT_BAD_CHECKSUM;
    }
    return EXIT_OK;
}

int session_configure(Session& s, uint16_t packsize, uint16_t blocks) {
    // Every event base starts with an empty location, so each session configures first.
    int r = s.client.configure(packsize, blocks, s.opt.location, s.opt.userLocation);
    if (r != CLIENT_OK) {
        return report_client_error(s, r, "configure");
    }
    Reply reply;
    int rc = session_read(s, reply, "configure");
    if (rc != EXIT_OK) {
        return rc;
    }
    if (reply.reqType != REQ_CONTROL || reply.msgType != MSG_CONFIG) {
        fprintf(s.err, "korvel-app: configure: unexpected reply\n");
        return EXIT_PROTOCOL;
    }
    if (reply.ackCode != ACK_DONE) {
        return report_ack(s, reply, "configure");
    }
    return EXIT_OK;
}

int session_end_last_package(Session& s) {
    int r = s.client.ack_last_package(MARKER_LAST);
    return r == CLIENT_OK ? EXIT_OK : report_client_error(s, r, "acknowledge");
}

int session_quit(Session& s) {
    int r = s.client.quit();
    if (r != CLIENT_OK) {
        return report_client_error(s, r, "quit");
    }
    // Replies still in flight may precede the quit's acknowledgement.
    for (int i = 0; i < 64; ++i) {
        Reply reply;
        r = s.client.read_reply(reply, s.opt.timeoutMs);
        if (r != CLIENT_OK) {
            return report_client_error(s, r, "quit");
        }
        if (reply.reqType == REQ_CONTROL && reply.msgType == MSG_QUIT) {
            return EXIT_OK;
        }
    }
    return EXIT_PROTOCOL;
}

bool parse_u32(const std::string& text, uint32_t maxValue, uint32_t& value) {
    if (text.empty() || text[0] == '-' || text[0] == '+') {
        return false;
    }
    errno = 0;
    char* end = nullptr;
    unsigned long long v = strtoull(text.c_str(), &end, 0);
    if (errno != 0 || *end != '\0' || v > maxValue) {
        return false;
    }
    value = static_cast<uint32_t>(v);
    return true;
}

bool wants_help(const std::vector<std::string>& args) {
    for (const std::string& a : args) {
        if (a == "--help" || a == "-h") {
            return true;
        }
    }
    return false;
}

int usage_error(Session& s, const char* command, const char* message) {
    fprintf(s.err, "korvel-app %s: %s (see korvel-app %s --help)\n", command, message, command);
    return EXIT_USAGE;
}

}  // namespace app
}  // namespace korvel
