// Prints the date HIC_GetDate forms and logs one line: run under
// libfaketime by log_test to check the date of a fixed moment.
#include <cstdio>

#include "log/log.h"

int main() {
    char date[HIC_DATE_LEN] = {};
    HIC_GetDate(date, HIC_DATE_LEN);
    (void)std::printf("%s\n", date);
    HIC_LOG(HIC_LOG_INFO, "probe\n");
    return 0;
}
