#include "transfer/transfer_lock.h"

#include <pthread.h>

static pthread_mutex_t transfer_mutex = PTHREAD_MUTEX_INITIALIZER;

void lock_transfer() {
    pthread_mutex_lock(&transfer_mutex);
}

void unlock_transfer() {
    pthread_mutex_unlock(&transfer_mutex);
}
