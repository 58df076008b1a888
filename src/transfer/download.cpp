// The download request: resolve a catalogue name, open and map the file (or take a JPEG's
// embedded thumbnail for a missing .thm), answer with the size. Main thread.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>

#include "client/event_base.h"
#include "core/card_fs.h"
#include "core/scoped.h"
#include "log/log.h"
#include "media/exif.h"
#include "transfer/paths.h"
#include "transfer/transfer_internal.h"

namespace korvel {

namespace {

// A name exists only as a regular file on the card, reached through no link: a link, a
// FIFO or a directory of that name is answered like a missing file.
bool exists(const std::string& path) {
    return card_is_regular(path.c_str());
}

// The embedded thumbnail of a JPEG opened the same way as a download.
int read_embedded_thumbnail(const std::string& jpeg, uint8_t* buf, uint32_t cap, uint32_t* size) {
    ScopedFd fd(card_open_regular(jpeg.c_str()));
    return fd.get() < 0 ? -1 : exif_read_thumbnail_fd(fd.get(), buf, cap, size);
}

}  // namespace

bool take_request_name(CPacket& packet, char* fileName) {
    uint32_t len = packet.getPayloadLen();
    if (len >= 1024) {
        log_print(1, "error msg with too long size of name: %d\n", static_cast<int>(len));
        return false;
    }
    memcpy(fileName, packet.getPayload(), len);
    fileName[len] = '\0';
    log_print(1, "received filename: %s\n", fileName);
    return true;
}

bool resolve_confined(CEventBase& eb, const char* name, std::string& filename,
                      std::string& absfiledir) {
    LocationSnapshot loc = eb.location_snapshot();
    if (eb.get_abs_file_dir(name, filename, absfiledir) == 0 &&
        is_confined(loc.resourceLocation, filename, absfiledir)) {
        return true;
    }
    log_print(1, "debug: failed name %s userDefLocPrex %s \n", filename.c_str(),
              absfiledir.c_str());
    return false;
}

int32_t CEventBase::download_file_name_check(CPacket& packet) {
    thumbReady = 0;
    if (!take_request_name(packet, fileName)) {
        return -1;
    }
    std::string filename, absfiledir;
    if (!resolve_confined(*this, fileName, filename, absfiledir)) {
        return -1;
    }
    snprintf(fileName, sizeof fileName, "%s", filename.c_str());
    snprintf(downFileName, sizeof downFileName, "%s/%s", absfiledir.c_str(), filename.c_str());
    if (exists(downFileName)) {
        log_print(1, "download filename: %s\n", downFileName);
        return 0;
    }
    // A missing stem.thm beside stem.JPG (or stem.jpg) is served from the JPEG's EXIF
    // thumbnail. Fields too long for 255/15 characters simply fail to match.
    char base[256] = {};
    char ext[16] = {};
    if (sscanf(fileName, "%255[^.].%15s", base, ext) < 1 || strcmp(ext, "thm") != 0) {
        return -1;
    }
    std::string jpeg = absfiledir + "/" + base + ".JPG";
    if (!exists(jpeg)) {
        jpeg = absfiledir + "/" + base + ".jpg";
    }
    bool found = exists(jpeg);
    log_print(1, "jpeg exist?: %d\n", found ? 1 : 0);
    if (!found) {
        return -1;
    }
    uint32_t size = 0;
    if (read_embedded_thumbnail(jpeg, thumbBuf, sizeof thumbBuf, &size) != 0) {
        return -1;
    }
    thumbSize = size;
    thumbReady = 1;
    return 0;
}

int32_t CEventBase::process_data_file_download(int fd, CPacket& packet) {
    if (!lock_region(regionMutex)) {
        log_print(1, "download while streaming, refused\n");
        return send_status(fd, MSG_DOWNLOAD, ACK_FAILED);
    }
    MutexLock region(regionMutex, ADOPT_LOCK);
    uint8_t size[4];
    if (download_file_name_check(packet) == -1) {
        log_print(1, "file not existed\n");
        return send_status(fd, MSG_DOWNLOAD, ACK_NOT_FOUND);
    }
    if (thumbReady) {
        log_print(1, "thm sent\n");
        size_le(thumbSize, size);
        return send_msg_data_to_app(fd, MARKER_LAST, MSG_DOWNLOAD, 0, size, sizeof size);
    }
    if (fileOpened) {
        size_le(fileSize, size);
        return send_msg_data_to_app(fd, MARKER_LAST, MSG_DOWNLOAD, 0, size, sizeof size);
    }
    ScopedFd newFd(card_open_regular(downFileName));
    struct stat st {};
    if (newFd.get() < 0 || fstat(newFd.get(), &st) != 0) {
        log_print(1, "file open error\n");
        return send_status(fd, MSG_DOWNLOAD, ACK_FAILED);
    }
    // The size reply has 32 bits: a larger size would be announced cut, and an app that
    // deletes after a complete download would lose the rest.
    if (static_cast<uint64_t>(st.st_size) > UINT32_MAX) {
        log_print(1, "file too large: %s\n", downFileName);
        return send_status(fd, MSG_DOWNLOAD, ACK_TOO_LARGE);
    }
    if (fileFd != -1) {
        close(fileFd);  // the capability file, which leaves fileOpened clear
    }
    fileFd = newFd.release();
    fileOpened = 1;
    fileSize = static_cast<uint32_t>(st.st_size);
    log_print(1, "downFileName:%s, fileSize = %d\n", downFileName, static_cast<int>(fileSize));
    if (event_switch_meminfo(fd, MSG_DOWNLOAD) != 0) {
        return -1;
    }
    size_le(fileSize, size);
    return send_msg_data_to_app(fd, MARKER_LAST, MSG_DOWNLOAD, 0, size, sizeof size);
}

}  // namespace korvel
