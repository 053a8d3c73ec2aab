#include "core/daemon.h"

#include <unistd.h>

#include "collect/collect_task.h"
#include "inventory/vnadm_refresh.h"
#include "log/log.h"

void HIC_MainLoopPass() {
    if (HIC_GetHostCollectSwitchInfo() != 0) {
        // The main loop's line: it carries main's name, as it did in main.
        HIC_WriteLog(HIC_LOG_ERROR, "main", __LINE__, "get host collect switch info failed.\n");
    }
    (void)sleep(HIC_MAIN_LOOP_PERIOD);
    HIC_RefreshLunAndArrayList();
}
