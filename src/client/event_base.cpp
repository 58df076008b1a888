// Construction and destruction of an event base. The server constructs on the main thread
// and destroys on its reaper thread; the destructor stops the worker (after its running
// task) before anything is released.
#include "client/event_base.h"

#include <unistd.h>

#include <new>

#include <cjson/cJSON.h>

#include "media/json_file.h"
#include "log/log.h"

namespace korvel {

// thumbBuf is left as allocated: only thumbSize bytes of it are ever read, and not
// touching its 120 KiB keeps an idle app's event base small on the camera.
CEventBase::CEventBase()
    : fileName{}, downFileName{}, ctimePath{}, resourceLocation{}, locPostfix{} {
    mediaRecord.reset(new (std::nothrow) CJSONFile());
    log_print(1, "new ceventbase.\n");
    if (mediaRecord) {
        start_worker();  // last: the worker never sees a half-built object
    }
}

// A running stream or catalogue ends at its next poll of quitRequested; the join in
// stop_worker then waits for it (and for a delete, which does not poll) without spinning.
// Also when idle: a task the worker takes before the stop marker ends at its first poll.
CEventBase::~CEventBase() {
    quitRequested = 1;
    if (busy) {
        log_print(1, "waiting finish of msg handling thread.\n");
    }
    log_print(1, "release ceventbase.\n");
    stop_worker();
    if (catalogueJson != nullptr) {
        cJSON_Delete(catalogueJson);
        catalogueJson = nullptr;
    }
    mediaRecord.reset();
    // The capability file may be open while fileOpened is clear; close it all the same.
    if (fileFd != -1) {
        log_print(1, "close file %d\n", fileFd);
        close(fileFd);
        fileOpened = 0;
        fileFd = -1;
    }
    release_region();
}

}  // namespace korvel
