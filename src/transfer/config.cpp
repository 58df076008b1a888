// The transfer configuration: packet size, burst length and storage location of one app.
// Main thread; the location texts are written under locationMutex for worker readers.
#include "core/config.h"

#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>

#include "client/event_base.h"
#include "core/byte_order.h"
#include "core/text.h"
#include "log/log.h"
#include "transfer/paths.h"

namespace korvel {

namespace {

constexpr uint32_t CONFIG_BUF = 2048;
constexpr uint32_t LOCATION_TEXT_MAX = 1024;
constexpr uint32_t CONFIG_WORD_AT = 1024;
constexpr uint32_t BLOCK_WORD_AT = 1028;

struct Location {
    std::string root;
    std::string postfix;
    bool postfixSet = false;
    int32_t id = -1;
};

// The app's own text names the location: an absolute path, a storage id, or nothing.
Location location_from_text(const char* text) {
    Location loc;
    loc.root = text;
    if (text[0] == '\0') {
        loc.root = get_sd_root();
        loc.id = get_storage_id(loc.root);
    } else if (text[0] == '/') {
        if (loc.root.back() == '/') {
            loc.root.pop_back();
        }
        size_t slash = loc.root.rfind('/');
        if (slash != std::string::npos) {
            loc.postfix = loc.root.substr(slash + 1);
            loc.postfixSet = true;
        }
        loc.id = get_storage_id(loc.root);
        if (loc.id == -1) {
            loc.root = get_sd_root();
            loc.id = get_storage_id(loc.root);
        }
    } else {
        loc.id = static_cast<int32_t>(strtol(text, nullptr, 10));
        loc.root = get_storage_root(loc.id);
        if (loc.root.empty()) {
            loc.root = get_sd_root();
            loc.id = get_storage_id(loc.root);
        }
    }
    log_print(1, "debug, postfix: %d, %s \n", loc.id, loc.root.c_str());
    return loc;
}

}  // namespace

void CEventBase::process_data_file_config(int fd, CPacket& packet) {
    uint32_t len = packet.getPayloadLen();
    if (len >= CONFIG_BUF) {
        log_warn("[WARN],%sbuf len exceed lmitation 2048\n",
                 "void korvel::CEventBase::process_data_file_config(int, korvel::CPacket&)");
        return;
    }
    uint8_t buf[CONFIG_BUF] = {};
    memcpy(buf, packet.getPayload(), len);
    if (len >= BLOCK_WORD_AT) {
        uint32_t word = load_be32(buf + CONFIG_WORD_AT);
        userDefBlocks = 1;
        userDefConfig = static_cast<uint8_t>(word >> 31);
        softwareVerConfig = (word >> 16) & 0x7FFF;
        userDefPacksize = word & 0xFFFF;
    }
    if (len >= BLOCK_WORD_AT + 4) {
        userDefBlocks = load_be32(buf + BLOCK_WORD_AT) & 0xFFFF;
    }
    uint64_t burst = static_cast<uint64_t>(userDefBlocks) * userDefPacksize;
    // Refused with 0xFB08, yet the values just stored stay in force for later requests:
    // apps rely on that answer and state, so this is not to be undone here.
    if (burst > MAX_BURST_BYTES) {
        log_print(1, "exceed max memory size %d, %d", static_cast<int>(userDefBlocks.load()),
                  static_cast<int>(userDefPacksize.load()));
        send_status(fd, MSG_CONFIG, ACK_TOO_LARGE);
        return;
    }
    log_print(
        1,
        "userDefConfig = %d,           softwareVerConfig = %d,           userDefPacksize = %d,           userDefBlocks=%d\n",
        userDefConfig.load(), static_cast<int>(softwareVerConfig.load()),
        static_cast<int>(userDefPacksize.load()), static_cast<int>(userDefBlocks.load()));

    // At most 1024 bytes: a text that fills them is never joined to the words behind it.
    char text[LOCATION_TEXT_MAX + 1] = {};
    memcpy(text, buf, strnlen(reinterpret_cast<char*>(buf), LOCATION_TEXT_MAX));
    Location loc;
    if (userDefConfig == 0) {
        loc.root = get_sd_root();
        loc.id = get_storage_id(loc.root);
    } else {
        loc = location_from_text(text);
    }
    if (loc.id != -1) {
        loc.root += MEDIA_SUBDIR;
    }
    {
        MutexLock guard(locationMutex);
        copy_truncated(resourceLocation, sizeof resourceLocation, loc.root.c_str());
        userDefLocation = userDefConfig;
        if (loc.postfixSet) {
            copy_truncated(locPostfix, sizeof locPostfix, loc.postfix.c_str());
        }
        resourceLocationId = loc.id;
    }
    if (loc.id == -1) {
        log_print(1, "wrong resource location: %s\n", loc.root.c_str());
        send_status(fd, MSG_CONFIG, ACK_BAD_LOCATION);
        return;
    }
    log_print(1, "resource location: %s, id %d\n", loc.root.c_str(), loc.id);
    if (send_status(fd, MSG_CONFIG, ACK_DONE) < 0) {
        perror("send_msg_ack_to_app error");
    }
}

}  // namespace korvel
