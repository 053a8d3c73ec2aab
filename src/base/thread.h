// Starting a detached thread, the only kind the daemon makes: nobody joins
// its threads, each ends by itself.
#ifndef HIC_BASE_THREAD_H
#define HIC_BASE_THREAD_H

#include <pthread.h>

namespace hic {

// pthread_create's result: 0, or the error number.
inline int StartDetachedThread(void* (*entry)(void*), void* arg) {
    pthread_attr_t attr;
    (void)pthread_attr_init(&attr);
    (void)pthread_attr_setdetachstate(&attr, PTHREAD_CREATE_DETACHED);
    pthread_t tid;
    const int ret = pthread_create(&tid, &attr, entry, arg);
    (void)pthread_attr_destroy(&attr);
    return ret;
}

}  // namespace hic

#endif  // HIC_BASE_THREAD_H
