#include "CriSec.h"

int InitCriSecNKR(S_MUTEX_UNIX* m)
{
    int rc = pthread_mutexattr_init(&m->attr);
    if (rc != 0) return rc;
    rc = pthread_mutexattr_settype(&m->attr, PTHREAD_MUTEX_RECURSIVE);
    if (rc != 0) return rc;
    return pthread_mutex_init(&m->mutex, &m->attr);
}

int DelCriSecNKR(S_MUTEX_UNIX* m)
{
    int rc = pthread_mutex_destroy(&m->mutex);
    int rc2 = pthread_mutexattr_destroy(&m->attr);
    return rc != 0 ? rc : rc2;
}
