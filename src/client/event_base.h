// One app's state on the server: the worker thread with its task queue (Handler) and the
// event base (CEventBase) that holds the app's transfer, catalogue and reply state.
//
// Threads: the main thread creates event bases, dispatches packets and runs the immediate
// handlers; the worker runs queued tasks one at a time and is the only thread that writes
// to the app's socket while the server runs: replies made on the main thread are queued
// for it (see send_msg_*). Event bases are destroyed off the main thread.
//
// Lock order (outer first): regionMutex -> sendMutex -> mLock (log switch file).
// taskMutex, locationMutex and a Fence's mutex are leaves: nothing else is taken while one
// is held. The main thread only ever try_locks regionMutex and never takes sendMutex, so
// it never waits for a worker's socket write.
#pragma once

#include <array>
#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "core/config.h"
#include "core/mutex.h"
#include "core/packet.h"

struct cJSON;

namespace korvel {

class CJSONFile;
struct CatalogueSink;

constexpr uint8_t TASK_CATALOGUE = 0;
constexpr uint8_t TASK_DELETE = 1;
constexpr uint8_t TASK_STREAM3 = 3;
constexpr uint8_t TASK_STREAM6 = 6;
constexpr uint8_t TASK_REPLY = 0xFE;  // a reply made on the main thread, written by the worker
constexpr uint8_t TASK_STOP = 0xFF;

// Raised once an earlier event base that wrote to a connection is gone; work for that
// connection waits on it, on the worker, so two event bases never write to it at once.
struct Fence {
    std::mutex m;
    std::condition_variable cv;
    std::atomic<bool> done{false};
    void raise();
    void wait();
};

struct HandlerTask {
    uint8_t type = TASK_STOP;
    uint32_t offset = 0;
    uint32_t length = 0;
    int32_t fd = -1;
    uint8_t marker = 0;
    uint16_t value = 0;
    std::unique_ptr<char[]> payload;  // delete task: its own NUL-terminated copy of the JSON
    uint32_t payloadLen = 0;          // bytes in payload, its NUL not counted
    // TASK_REPLY: the packet to build ...
    bool isAck = false;
    uint8_t msgType = 0;
    uint8_t ackFlag = 0;
    uint16_t ackCode = 0;
    uint32_t seqNO = 0;
    // ... and, for every task, what must be gone before it may touch the socket.
    std::shared_ptr<Fence> fence;
};

// Per-app bounds: what one app can make the server hold while its worker is busy.
constexpr size_t TASK_QUEUE_MAX = 64;
constexpr size_t TASK_QUEUE_MAX_BYTES = 256 * 1024;
constexpr size_t REPLY_QUEUE_MAX_BYTES = 1024 * 1024;
constexpr size_t TASK_OVERHEAD_BYTES = 128;  // a task record counted against the byte caps

class Handler {
public:
    Handler();
    virtual ~Handler();
    virtual void process(HandlerTask& task) = 0;

    static void threadEntrance(Handler* h);
    // Append, notify_all, never waits for the worker. False (the task dropped) when the
    // queue already holds TASK_QUEUE_MAX tasks or TASK_QUEUE_MAX_BYTES.
    bool queue_task(HandlerTask task);
    // A reply for the worker to write; false when REPLY_QUEUE_MAX_BYTES are pending.
    bool queue_reply(HandlerTask reply);
    bool worker_started() const { return workerThread != nullptr; }
    // Clears running, queues the stop marker, joins. The most-derived destructor (or the
    // owner, before delete) calls it first, so the worker never runs into a class part
    // that is already destroyed.
    void stop_worker();
    // The first half of stop_worker, which never waits: the worker ends after its running
    // task, while the owner gets on with other work; stop_worker then only joins.
    void request_stop();
    // The fence that dispatch attaches to what it queues for the connection in hand
    // (main thread only).
    void set_dispatch_fence(std::shared_ptr<Fence> f) { dispatchFence = std::move(f); }

    // The thread that runs the server loop marks itself: replies made there are queued
    // for the app's worker instead of being written in place.
    static void mark_loop_thread();
    static bool on_loop_thread();

protected:
    // Last step of the derived constructor. False when no thread could be created: the
    // object then serves nobody and its owner drops it.
    bool start_worker();
    // Writes the replies queued so far (worker only).
    void flush_replies();

    std::unique_ptr<std::thread> workerThread;
    std::atomic<uint8_t> running{0};
    // A plain std::mutex: taskCond waits on it. Held only to append and notify or to take
    // one task (client/handler.cpp), so the queue is not annotated.
    std::mutex taskMutex;
    std::condition_variable taskCond;
    std::deque<HandlerTask> taskQueue;
    std::deque<HandlerTask> replyQueue;  // taskMutex; written before the next task starts
    size_t taskBytes = 0;                // taskMutex
    size_t replyBytes = 0;               // taskMutex
    std::atomic<bool> repliesPending{false};  // set and cleared under taskMutex; read without
    std::shared_ptr<Fence> dispatchFence;  // main
};

// The location fields copied out under locationMutex, for readers on the worker thread.
struct LocationSnapshot {
    char resourceLocation[1025];
    char locPostfix[1024];
    uint8_t userDefLocation;
    int32_t resourceLocationId;
};

class CEventBase : public Handler {
public:
    CEventBase();
    ~CEventBase() override;
    CEventBase(const CEventBase&) = delete;
    CEventBase& operator=(const CEventBase&) = delete;

    // ---- client/: dispatch and task execution (main thread / worker) ----
    void process(HandlerTask& task) override;
    int32_t event_base_process(int fd, CPacket& packet);
    int32_t event_base_process_data(int fd, CPacket& packet);
    int32_t event_base_process_ctrl(int fd, CPacket& packet);
    int32_t check_last_package(CPacket& packet);
    void reply_transfer_position(int fd);
    int32_t process_quit(int fd);

    // ---- core/: replies and the loop's checks ----
    // send_msg_data_to_app's result when the payload could not be read (its mapping lost
    // its pages); nothing was written. Not PacketAssembler::INCOMPLETE, whose value it shares.
    static constexpr int32_t SEND_SOURCE_LOST = -3;
    int32_t send_msg_data_to_app(int fd, uint8_t marker, uint8_t msgType, uint32_t offset,
                                 const void* data, uint32_t len) EXCLUDES(sendMutex);
    int32_t send_msg_ack_to_app(int fd, uint8_t marker, uint8_t msgType, uint32_t offset,
                                uint8_t ackFlag, uint16_t ackCode, uint16_t ackValue)
        EXCLUDES(sendMutex);
    // The standard acknowledgement of a request: marker 1, offset 0, ackFlag 1, ackValue 0.
    int32_t send_status(int fd, uint8_t msgType, uint16_t ackCode);
    void send_queued_reply(HandlerTask& reply);  // worker: write one TASK_REPLY
    int32_t check_seq_no(CPacket& packet);
    int32_t check_crc(int fd, CPacket& packet);
    uint8_t quit_received();

    // ---- transfer/: configuration, names, region, download, capability, metadata, stream ----
    void process_data_file_config(int fd, CPacket& packet);
    int32_t get_abs_file_dir(const char* name, std::string& filename, std::string& absfiledir);
    LocationSnapshot location_snapshot() EXCLUDES(locationMutex);
    int32_t event_switch_meminfo(int fd, uint8_t msgType) REQUIRES(regionMutex);
    // Unmaps (MADV_DONTNEED first); shared by the switch and the destructor.
    void release_region() REQUIRES(regionMutex);
    int32_t download_file_name_check(CPacket& packet) REQUIRES(regionMutex);
    int32_t process_data_file_download(int fd, CPacket& packet);
    void process_cap_get(int fd);
    int32_t process_data_file_metadata(int fd, CPacket& packet);
    int32_t transfer_file_data(int fd, uint8_t msgType, uint32_t offset, uint32_t length)
        EXCLUDES(regionMutex);
    void transfer_thumbnail_data(int fd, uint32_t offset) EXCLUDES(regionMutex);

    // ---- catalogue/: scan, classification, walk, delivery (worker) ----
    void json_file_list_send(int fd, uint8_t marker, uint16_t type, uint32_t offset);
    void json_file_list_create(uint32_t* length);
    int32_t json_look_from_dir(CatalogueSink& out);
    int32_t json_look_from_dir(cJSON* media);  // the same walk, every entry into one array
    void json_media_type_classify(char* ext, const char* name, int32_t slot);
    void json_look_by_filetime(char* ext, const char* name, const uint16_t& type, int32_t slot);
    bool is_recent(int32_t limit);
    int32_t json_look_by_filetype(CatalogueSink& out, int32_t filledSlots);
    void make_display_name(const std::string& file, const std::string& dir, char* dispName,
                           char* fullPath);

    // ---- delete/: delete request (worker) ----
    void process_file_delete(int fd, char* text);
    void json_file_delete(int fd, const char* text);

    // ---- fields; "main" / "worker" say which thread writes them ----
    char fileName[1024];             // main (download, metadata)
    // main (download, capability), worker (failed switch)
    int32_t fileFd GUARDED_BY(regionMutex) = -1;
    uint8_t* mmap_base_addr GUARDED_BY(regionMutex) = nullptr;
    uint8_t fileOpened GUARDED_BY(regionMutex) = 0;
    uint32_t fileSize GUARDED_BY(regionMutex) = 0;
    uint32_t mapsize GUARDED_BY(regionMutex) = 0;
    uint32_t mapoff GUARDED_BY(regionMutex) = 0;
    uint32_t positionWord = 0;       // main
    std::atomic<uint8_t> quitRequested{0};    // main (quit, destructor); polled by the worker
    std::atomic<uint8_t> lastPackageDone{0};  // main
    std::atomic<uint8_t> sendFailed{0};       // worker or main (burst senders)
    char downFileName[1024];         // main
    uint8_t thumbBuf[THUMB_BUF_SIZE] GUARDED_BY(regionMutex);  // main
    uint32_t thumbSize GUARDED_BY(regionMutex) = 0;            // main
    std::atomic<uint8_t> thumbReady{0};  // main
    std::atomic<uint8_t> busy{0};    // worker
    cJSON* catalogueJson = nullptr;  // worker: the envelope, only while the text is built
    std::unique_ptr<CJSONFile> mediaRecord;  // main (metadata); the catalogue uses its own record
    std::string catalogueText;       // worker
    char ctimePath[1024];            // worker
    uint32_t catalogueLen = 0;       // worker
    std::array<std::string, 100> mediaDirNames;                 // worker
    std::array<std::vector<std::string>, 100> mediaFileLists;   // worker
    std::array<std::vector<std::string>, 100> extraFileLists;   // worker
    std::atomic<uint32_t> readOffset{0};  // worker (stream), main (capability); regionMutex for writes
    std::atomic<uint32_t> replySeqNO{0};  // main
    uint32_t lastSeqNO = 0;          // main
    uint16_t catalogueType = 0;      // worker
    LocationSnapshot catalogueLocation{};  // worker: the location a catalogue is built under
    CPacket sendPacket GUARDED_BY(sendMutex);
    Mutex sendMutex;  // one whole reply packet at a time; never taken on the main thread
    std::atomic<uint32_t> softwareVerConfig{0};  // main
    std::atomic<uint8_t> userDefConfig{0};       // main
    std::atomic<uint32_t> userDefPacksize{4096};  // main
    std::atomic<uint32_t> userDefBlocks{1};       // main
    char resourceLocation[1025] GUARDED_BY(locationMutex);      // main
    uint8_t userDefLocation GUARDED_BY(locationMutex) = 0;      // main
    char locPostfix[1024] GUARDED_BY(locationMutex);            // main
    int32_t resourceLocationId GUARDED_BY(locationMutex) = -1;  // main

    // Keeps a chunk stream (worker) and a download or capability request (main) from
    // touching the mapped region, the open file or the thumbnail at the same time.
    Mutex regionMutex;
    // Guards the location texts written by the configuration and read by worker tasks.
    Mutex locationMutex;
};

}  // namespace korvel
