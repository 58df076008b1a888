// The server's fixed constants, and the one narrow seam that lets tests move the storage
// root, the capability file and the port. main() never calls the seam.
#pragma once

#include <cstddef>
#include <cstdint>

namespace korvel {

constexpr uint16_t SERVER_PORT = 9800;
constexpr int LISTEN_BACKLOG = 10;
constexpr int SOCKET_RCVBUF = 65536;
constexpr int SOCKET_SNDBUF = 4194304;
constexpr int KEEPALIVE_IDLE_S = 60;
constexpr int KEEPALIVE_INTVL_S = 10;
constexpr int KEEPALIVE_CNT = 3;
constexpr int LOOP_PASS_MS = 5000;  // the longest a loop pass waits for activity

// What apps on the network can make the server hold. An event base costs a thread and
// about 40 KiB; a connection up to one parked packet (64 KiB). A camera serves a handful
// of apps; the caps leave room for the 50-app load test and its misbehaving sessions.
constexpr size_t MAX_EVENT_BASES = 64;
constexpr size_t MAX_RETIRING_EVENT_BASES = 128;  // released, their workers still ending
constexpr size_t MAX_CONNECTIONS = 128;
// A connection that has sat in the middle of one packet this long is closed.
constexpr int PACKET_IDLE_TIMEOUT_MS = 10000;
// After accept fails for want of descriptors or memory, the listening socket is left out
// of the poll set this long (or until a descriptor is freed), so the loop does not spin.
constexpr int ACCEPT_PAUSE_MS = 100;
constexpr int ACCEPTS_PER_PASS = 16;

constexpr const char* SD_ROOT = "/tmp/SD0";
constexpr const char* MEDIA_SUBDIR = "/DCIM";
constexpr const char* MEDIA_DIR_MARKER = "MEDIA";
constexpr const char* HOLDING_DIR = "tmp_delete";
constexpr const char* LOG_CONF_NAME = "/krv_log.conf";
constexpr const char* CAPABILITY_PATH = "/webSvr/web/files/camera_definition.xml";

constexpr uint32_t TEXT_BUF = 1024;              // most fixed text buffers
constexpr uint32_t MAX_BURST_BYTES = 209715200;  // 200 MiB: packsize * blocks limit
constexpr uint32_t PAGE_SIZE_FIXED = 4096;       // region alignment; not the system page size
constexpr uint32_t THUMB_BUF_SIZE = 122880;
constexpr uint32_t MAX_MEDIA_DIRS = 100;

// A stalled reader: a reply write that makes no progress for this long gives up and the
// connection is shut down, so neither the loop nor a worker can be held for ever.
constexpr int WRITE_STALL_MS = 5000;

// The active storage root ("/tmp/SD0" unless a test moved it) and capability file path.
const char* active_sd_root();
const char* active_capability_path();

namespace testing_seam {
// Tests only: move the memory card and the capability file. Call before any server or
// event base exists; the values are read without a lock afterwards.
void set_sd_root(const char* root);
void set_capability_path(const char* path);
}  // namespace testing_seam

}  // namespace korvel
