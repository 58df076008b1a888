// korvel-app: the command-line client. Each command opens one session (connect, configure),
// does its exchange and ends the server's event base with a last-package notice or a quit.
#pragma once

#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "app/client.h"

namespace korvel {
namespace app {

// Exit codes, one per outcome; documented in the tool's --help.
constexpr int EXIT_OK = 0;
constexpr int EXIT_USAGE = 1;
constexpr int EXIT_LOCAL = 2;          // a local file could not be read or written
constexpr int EXIT_REFUSED = 3;        // connection refused
constexpr int EXIT_TIMEOUT = 4;        // no connection or no reply in time
constexpr int EXIT_CLOSED = 5;         // the server closed the connection
constexpr int EXIT_PROTOCOL = 6;       // a malformed or unexpected reply, or a size mismatch
constexpr int EXIT_BAD_CHECKSUM = 7;   // a reply failed its CRC, or the server said 0xFB03
constexpr int EXIT_NOT_FOUND = 10;     // 0xFB02
constexpr int EXIT_END_OF_DATA = 11;   // 0xFB04
constexpr int EXIT_FAILED = 12;        // 0xFB06
constexpr int EXIT_TOO_LARGE = 13;     // 0xFB08
constexpr int EXIT_BAD_NAME = 14;      // 0xFB09
constexpr int EXIT_BAD_LOCATION = 15;  // 0xFB10
constexpr int EXIT_UNKNOWN_CODE = 16;  // any other status code

struct ToolOptions {
    std::string host = "127.0.0.1";
    uint16_t port = 9800;
    uint32_t peer = 0;  // 0: derived from the process id
    int timeoutMs = 5000;
    uint16_t packsize = 32768;
    uint16_t blocks = 32;
    std::string location;  // non-empty: a user-defined location
    bool userLocation = false;
};

// One connection to the server and where the command reports.
struct Session {
    ToolOptions opt;
    Client client;
    FILE* out = stdout;
    FILE* err = stderr;
};

// Entry point of the tool; argv[0] is the program name. Returns the exit code.
int tool_main(int argc, char** argv, FILE* out, FILE* err);

// Session steps (tool_session.cpp). Each returns an exit code and has reported a failure.
int session_open(Session& s);
int session_configure(Session& s, uint16_t packsize, uint16_t blocks);
int session_read(Session& s, Reply& reply, const char* what);
int session_end_last_package(Session& s);
int session_quit(Session& s);
int report_client_error(Session& s, int clientResult, const char* what);
int report_ack(Session& s, const Reply& reply, const char* what);
int exit_code_for_ack(uint32_t code);

// Commands; args are the words after the command name.
int cmd_ls(Session& s, const std::vector<std::string>& args);
int cmd_get(Session& s, const std::vector<std::string>& args);
int cmd_thumb(Session& s, const std::vector<std::string>& args);
int cmd_meta(Session& s, const std::vector<std::string>& args);
int cmd_cap(Session& s, const std::vector<std::string>& args);
int cmd_rm(Session& s, const std::vector<std::string>& args);
int cmd_config(Session& s, const std::vector<std::string>& args);
int cmd_pos(Session& s, const std::vector<std::string>& args);

// Small argument helpers shared by the commands.
bool parse_u32(const std::string& text, uint32_t maxValue, uint32_t& value);
bool wants_help(const std::vector<std::string>& args);
int usage_error(Session& s, const char* command, const char* message);

// Downloads NAME into localPath with length-0 chunk requests; with resume, continues from
// the local file's size. Used by get and thumb (tool_get.cpp).
int download_one(Session& s, const std::string& name, const std::string& localPath, bool resume,
                 bool quietNotFound);

}  // namespace app
}  // namespace korvel
