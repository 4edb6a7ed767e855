#include "engine/state.h"

guarded_mutex_t tarvo_nd_mutex = {PTHREAD_ERRORCHECK_MUTEX_INITIALIZER_NP,
                                  PTHREAD_ERRORCHECK_MUTEX_INITIALIZER_NP, PTHREAD_COND_INITIALIZER,
                                  0};
guarded_mutex_t tarvo_nd_workq_mutex = {PTHREAD_ERRORCHECK_MUTEX_INITIALIZER_NP,
                                        PTHREAD_ERRORCHECK_MUTEX_INITIALIZER_NP,
                                        PTHREAD_COND_INITIALIZER, 0};
