// Chunk streaming on the worker: bursts of the app's file out of the mapped region, or of
// the thumbnail held in memory. regionMutex is held for the whole burst, so a download or
// capability request on the main thread never swaps the region underneath.
#include "client/event_base.h"
#include "log/log.h"
#include "transfer/burst.h"
#include "transfer/transfer_internal.h"

namespace korvel {

namespace {

// Bytes one request asks for; 0 when nothing remains or the burst size is 0.
uint32_t bytes_needed(uint32_t length, uint32_t mapsize, uint32_t burst, uint32_t fileSize,
                      uint32_t offset) {
    if (length != 0) {
        return length;
    }
    if (mapsize == 0 || offset >= fileSize) {
        return 0;
    }
    uint32_t left = fileSize - offset;
    return burst < left ? burst : left;
}

}  // namespace

int32_t CEventBase::transfer_file_data(int fd, uint8_t msgType, uint32_t offset, uint32_t length) {
    MutexLock region(regionMutex);
    uint32_t burst = userDefPacksize * userDefBlocks;
    if (fileFd < 0 || mmap_base_addr == nullptr) {
        return send_msg_ack_to_app(fd, MARKER_CONT_LAST, msgType, 0, 1, ACK_END_OF_DATA, 0);
    }
    if (length > burst) {
        log_print(1, "debug: exceed %d, %d, %d", static_cast<int>(length), static_cast<int>(burst),
                  static_cast<int>(offset));
        return send_status(fd, msgType, ACK_FAILED);
    }
    uint32_t need = bytes_needed(length, mapsize, burst, fileSize, offset);
    readOffset = offset;
    // Summed in 64 bits: a wrapped sum would let a request past the end through.
    if (static_cast<uint64_t>(need) + offset > fileSize) {
        log_print(1, "debug: exceed %d, %d", static_cast<int>(need), static_cast<int>(burst));
        return send_status(fd, msgType, ACK_FAILED);
    }
    // An empty chunk (nothing left at this offset, or a burst size of 0) ends the request
    // at once and without a reply: the app already holds every byte it can get here.
    if (need == 0) {
        return 0;
    }
    uint64_t regionEnd = static_cast<uint64_t>(mapoff) + mapsize;
    bool inside = offset >= mapoff && offset < regionEnd && offset + need <= regionEnd;
    if (!inside && event_switch_meminfo(fd, msgType) != 0) {
        return -1;
    }
    if (!region_still_backed(fileFd, mapoff, mapsize)) {
        return send_status(fd, msgType, ACK_FAILED);
    }
    bool continues = length == 0 && fileSize > static_cast<uint64_t>(mapoff) + mapsize;
    log_print(1, "debug: neesize %d, offset %d, mapoffset %d, mapsize %d, %d, userdef: %d\n",
              static_cast<int>(need), static_cast<int>(readOffset.load()), static_cast<int>(mapoff),
              static_cast<int>(mapsize), continues ? 1 : 0, static_cast<int>(burst));
    uint32_t start = readOffset - mapoff;
    uint32_t end = start + need < mapsize ? start + need : mapsize;
    if (quitRequested) {
        readOffset += need;
        return 0;
    }
    BurstResult r =
        send_burst(*this, make_plan(fd, msgType, mmap_base_addr, start, end, continues));
    if (r.end != BurstEnd::SendFailed && r.end != BurstEnd::SourceLost) {
        readOffset += need;
    }
    return r.lastResult;
}

void CEventBase::transfer_thumbnail_data(int fd, uint32_t offset) {
    MutexLock region(regionMutex);
    if (quitRequested) {
        return;
    }
    // At or past the end the plan is empty and nothing is sent: no reply, as for files.
    send_burst(*this, make_plan(fd, MSG_CHUNK, thumbBuf, offset, thumbSize));
}

}  // namespace korvel
