// Process entry: start-up in its fixed order, then the main loop for ever.
#include <pthread.h>

#include <cstring>

#include "collect/result_upload.h"
#include "core/daemon.h"
#include "core/process.h"
#include "inventory/discovery.h"
#include "inventory/lists.h"
#include "log/log.h"

int main(int argc, char** argv) {
    // Exactly one argument, byte for byte; anything else is ignored silently.
    if (argc == 2 && std::strcmp(argv[1], HIC_DEBUG_ARG) == 0) {
        // Announced while the level is still INFO, so the line is written.
        HIC_LOG(HIC_LOG_INFO, "Set log level to Debug.\n");
        HIC_SetLogLevel(HIC_LOG_DEBUG);
    }

    HIC_InitListHead(&HIC_LunListHead);
    HIC_InitListHead(&HIC_ArrayListHead);

    // Only the final background process comes back from here; the invoking
    // shell has seen status 0 already.
    HIC_TakeTheProgramRunToBackground();

    // The product check comes before the lock: without the product no pid
    // file is created.
    if (HIC_CheckVornal() != 0) {
        HIC_LOG(HIC_LOG_ERROR, "Vornal is not installed in the OS.\n");
        return -1;
    }
    if (HIC_CheckIsAlreadyRunning() != 0) {
        HIC_LOG(HIC_LOG_ERROR, "hostinfo tool already running...\n");
        return -1;
    }
    if (HIC_GetLunList() != 0) {
        HIC_LOG(HIC_LOG_ERROR, "get lun list failed.\n");
        HIC_FreeLunList();
        return -1;
    }

    (void)pthread_mutex_init(&HIC_ResultWriteMutex, nullptr);

    for (;;) {
        HIC_MainLoopPass();
    }
}
