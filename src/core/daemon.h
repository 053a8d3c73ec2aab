// The daemon's main loop and the constants of its start-up. Start-up itself
// lives in main(), so that its log lines carry the name "main".
#ifndef HIC_CORE_DAEMON_H
#define HIC_CORE_DAEMON_H

// The one command-line argument the daemon knows; it turns on DEBUG lines.
constexpr const char* HIC_DEBUG_ARG = "VN_LOG_DEBUG";
// Seconds the main thread sleeps between two passes of the main loop.
constexpr unsigned int HIC_MAIN_LOOP_PERIOD = 30;

// One pass of the main loop: the collection step, the sleep, the refresh.
void HIC_MainLoopPass();

#endif  // HIC_CORE_DAEMON_H
