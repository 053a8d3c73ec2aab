// Process entry: start-up in its fixed order, then the main loop for ever.
#include <pthread.h>

#include <cstdio>
#include <cstring>

#include "collect/result_upload.h"
#include "core/daemon.h"
#include "core/process.h"
#include "inventory/discovery.h"
#include "inventory/lists.h"
#include "log/log.h"

namespace {

constexpr const char* kUsage =
    "Usage: vn_hostinfo [VN_LOG_DEBUG]\n"
    "Host information collector for storage arrays. Run as root, it detaches\n"
    "at once and logs to /opt/Vornal/log/hostinfotool.log.\n"
    "\n"
    "  VN_LOG_DEBUG  log DEBUG lines as well\n"
    "  --help        print this text and exit\n"
    "  --version     print the version and exit\n"
    "\n"
    "See vn_hostinfo(8).\n";

// --help and --version answer on standard output and start nothing: asking
// a root daemon for help must not start it. Returns -1 for any other
// argument list.
int AnswerQuestion(int argc, char** argv) {
    if (argc != 2) {
        return -1;
    }
    if (std::strcmp(argv[1], "--help") == 0) {
        (void)std::fputs(kUsage, stdout);
    } else if (std::strcmp(argv[1], "--version") == 0) {
        (void)std::fputs("vn_hostinfo " HIC_VERSION "\n", stdout);
    } else {
        return -1;
    }
    return std::fflush(stdout) == 0 ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
    if (const int status = AnswerQuestion(argc, argv); status >= 0) {
        return status;
    }
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
