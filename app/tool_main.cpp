// korvel-app's command line: global options, the command table and the help texts.
#include <cstring>

#include "app/tool.h"

namespace korvel {
namespace app {

namespace {

const char* const EXIT_CODES_HELP =
    "Exit codes:\n"
    "   0  success\n"
    "   1  usage error\n"
    "   2  a local file could not be read or written\n"
    "   3  connection refused\n"
    "   4  timeout (no connection or no reply in time)\n"
    "   5  the server closed the connection\n"
    "   6  malformed or unexpected reply, or a size mismatch\n"
    "   7  bad checksum (a reply failed its CRC, or the server rejected ours: 0xFB03)\n"
    "  10  not found (0xFB02)\n"
    "  11  end of data: nothing open to stream (0xFB04)\n"
    "  12  failed (0xFB06)\n"
    "  13  too large: transfer parameters over the server's limit (0xFB08)\n"
    "  14  bad name (0xFB09)\n"
    "  15  bad location (0xFB10)\n"
    "  16  any other status code\n";

const char* const MAIN_HELP =
    "usage: korvel-app [global options] COMMAND [args]\n"
    "\n"
    "Commands:\n"
    "  ls [--type N] [--json]          list the card's photos and videos\n"
    "  get NAME... [-o DIR] [--packsize N] [--blocks N]\n"
    "                                  download files (resumes partial local files)\n"
    "  thumb NAME [-o FILE]            download the thumbnail of a photo or video\n"
    "  meta NAME                       print the metadata of one file (JSON)\n"
    "  cap [-o FILE]                   fetch the camera's capability file\n"
    "  rm NAME...                      delete files, printing every acknowledgement\n"
    "  config --packsize N --blocks N [--location TEXT]\n"
    "                                  check a transfer configuration\n"
    "  pos                             ask for the transfer position\n"
    "\n"
    "Global options:\n"
    "  --host H         server address (default 127.0.0.1)\n"
    "  --port P         server port (default 9800)\n"
    "  --peer ID        peerID to use (default: the process id)\n"
    "  --timeout MS     wait at most MS milliseconds for a reply (default 5000)\n"
    "  --packsize N     payload bytes per packet, 1..65535 (default 32768)\n"
    "  --blocks N       packets per burst, 1..65535 (default 32)\n"
    "  --location TEXT  a user-defined storage location (names then carry its prefix)\n"
    "\n"
    "'korvel-app COMMAND --help' describes one command.\n";

struct Command {
    const char* name;
    int (*run)(Session&, const std::vector<std::string>&);
    const char* help;
};

const Command COMMANDS[] = {
    {"ls", cmd_ls,
     "usage: korvel-app ls [--type N] [--json]\n"
     "Fetches the whole catalogue in bursts and prints name, type, size, date, thumbnail\n"
     "and second stream of every file, or the catalogue's JSON with --json.\n"
     "--type N: 1 all (default), 2 JPG, 3 JPG with thumbnails, 4 DNG, 5 MP4,\n"
     "6 MP4 with thumbnails and second streams, 7 videos, 8..11 changed in the last\n"
     "5, 10, 30 or 60 minutes.\n"},
    {"get", cmd_get,
     "usage: korvel-app get NAME... [-o DIR] [--packsize N] [--blocks N]\n"
     "Downloads each file as named by ls into DIR (default: the current directory).\n"
     "A partial local file is resumed from its size. Every packet's checksum and the\n"
     "final size are verified. Shows a progress bar on a terminal.\n"},
    {"thumb", cmd_thumb,
     "usage: korvel-app thumb NAME [-o FILE]\n"
     "Downloads the thumbnail of NAME (stem.thm, else stem.THM; the server makes a\n"
     "JPEG's from its EXIF data). NAME may also be the thumbnail's own name.\n"},
    {"meta", cmd_meta,
     "usage: korvel-app meta NAME\n"
     "Prints the metadata reply (JSON) for one file: EXIF facts of a JPEG, track facts\n"
     "of an MP4 or MOV.\n"},
    {"cap", cmd_cap,
     "usage: korvel-app cap [-o FILE]\n"
     "Fetches the camera's capability file and prints it, or writes it to FILE.\n"},
    {"rm", cmd_rm,
     "usage: korvel-app rm NAME...\n"
     "Deletes the named files (photos with their thumbnails, videos with their\n"
     "thumbnails and second streams) and prints every acknowledgement received.\n"
     "The exit code is that of the first failure acknowledged (bad name, bad location).\n"},
    {"config", cmd_config,
     "usage: korvel-app config --packsize N --blocks N [--location TEXT]\n"
     "Sends a transfer configuration and reports whether the server accepts it.\n"
     "packsize x blocks may be at most 209715200 bytes.\n"},
    {"pos", cmd_pos,
     "usage: korvel-app pos\n"
     "Asks a fresh session for its transfer position (packet size + read offset).\n"},
};

const Command* find_command(const std::string& name) {
    for (const Command& c : COMMANDS) {
        if (name == c.name) {
            return &c;
        }
    }
    return nullptr;
}

// Global options; returns the index of the command word, or -1 after a usage error.
int parse_globals(Session& s, int argc, char** argv) {
    int i = 1;
    for (; i < argc && argv[i][0] == '-'; ++i) {
        std::string a = argv[i];
        if (i + 1 >= argc) {
            return -1;
        }
        std::string v = argv[++i];
        uint32_t n = 0;
        if (a == "--host") {
            s.opt.host = v;
        } else if (a == "--port" && parse_u32(v, 65535, n) && n > 0) {
            s.opt.port = static_cast<uint16_t>(n);
        } else if (a == "--peer" && parse_u32(v, 0xFFFFFFFFu, n)) {
            s.opt.peer = n;
        } else if (a == "--timeout" && parse_u32(v, 3600000, n) && n > 0) {
            s.opt.timeoutMs = static_cast<int>(n);
        } else if (a == "--packsize" && parse_u32(v, 65535, n) && n > 0) {
            s.opt.packsize = static_cast<uint16_t>(n);
        } else if (a == "--blocks" && parse_u32(v, 65535, n) && n > 0) {
            s.opt.blocks = static_cast<uint16_t>(n);
        } else if (a == "--location") {
            s.opt.location = v;
            s.opt.userLocation = true;
        } else {
            return -1;
        }
    }
    return i;
}

}  // namespace

int tool_main(int argc, char** argv, FILE* out, FILE* err) {
    Session s;
    s.out = out;
    s.err = err;
    if (argc >= 2 && (strcmp(argv[1], "--help") == 0 || strcmp(argv[1], "-h") == 0)) {
        fprintf(out, "%s\n%s", MAIN_HELP, EXIT_CODES_HELP);
        return EXIT_OK;
    }
    int at = parse_globals(s, argc, argv);
    if (at < 0 || at >= argc) {
        fprintf(err, "%s", MAIN_HELP);
        return EXIT_USAGE;
    }
    const Command* cmd = find_command(argv[at]);
    if (cmd == nullptr) {
        fprintf(err, "korvel-app: unknown command '%s'\n\n%s", argv[at], MAIN_HELP);
        return EXIT_USAGE;
    }
    std::vector<std::string> args(argv + at + 1, argv + argc);
    if (wants_help(args)) {
        fprintf(out, "%s\n%s", cmd->help, EXIT_CODES_HELP);
        return EXIT_OK;
    }
    int rc = cmd->run(s, args);
    fflush(out);
    return rc;
}

}  // namespace app
}  // namespace korvel
