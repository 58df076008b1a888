// Construction and destruction of an event base. Both run on the main thread; the
// destructor waits for the worker's running task before anything is released.
#include "client/event_base.h"

#include <unistd.h>

#include <cjson/cJSON.h>

#include "media/json_file.h"
#include "log/log.h"

namespace korvel {

// thumbBuf is left as allocated: only thumbSize bytes of it are ever read, and not
// touching its 120 KiB keeps an idle app's event base small on the camera.
CEventBase::CEventBase()
    : fileName{}, downFileName{}, ctimePath{}, resourceLocation{}, locPostfix{} {
    mediaRecord.reset(new CJSONFile());
    log_print(1, "new ceventbase.\n");
    start_worker();  // last: the worker never sees a half-built object
}

CEventBase::~CEventBase() {
    while (busy) {
        quitRequested = 1;
        log_print(1, "waiting finish of msg handling thread.\n");
        usleep(5);
    }
    // Also when idle: a task the worker takes between the wait above and the stop marker
    // then ends at its first poll instead of running a whole burst.
    quitRequested = 1;
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
