/**
 * @file
 * Event manager: runs handlers for asynchronous events on the one thread that dispatches it.
 *
 * Any thread may raise an event; raises that come before the handler runs are one call of it.
 */
#ifndef TARVO_PLATFORM_EVENT_H
#define TARVO_PLATFORM_EVENT_H

#include "export.h"

struct sigevent;

PLATFORM_BEGIN

/** The result is not used. Called on the dispatching thread with no lock of the manager held. */
typedef int (*event_handler)(void *context);

/** A manager, or null with errno set. */
PLATFORM_API void *event_mgr_create(void);

/** Frees a manager that no thread dispatches and no timer or thread can raise any more. */
PLATFORM_API void event_mgr_destroy(void *mgr);

/**
 * Waits for events and runs their handlers until event_mgr_stop. Returns 0, or -1 with errno set
 * (EINVAL for a null manager).
 */
PLATFORM_API int event_mgr_dispatch(void *mgr);

/**
 * Makes the dispatching thread return from event_mgr_dispatch, or the next call of it when there is
 * none. Events raised and not handled yet stay for a later dispatch. Any thread.
 */
PLATFORM_API void event_mgr_stop(void *mgr);

/** Kind of event: raises that come before the handler runs are one call of it. */
enum { EVENT_COALESCE = 128 };

/**
 * Attaches `handler` for a new asynchronous event; `context` is passed to it. The second argument
 * is EVENT_COALESCE, the only kind there is. Returns the event's code (0 or more), or -1 with
 * errno set (EINVAL for another kind, a null handler or manager). Attachments last as long as the
 * manager; memory alone bounds their number.
 */
PLATFORM_API int event_async_attach(void *mgr, unsigned kind, event_handler handler, void *context);

/**
 * Fills a zeroed sigevent so that delivering it raises the event. It uses SIGEV_THREAD, so no
 * signal has to be blocked or handled anywhere. The third and fourth arguments are 0. Returns 0,
 * or -1 with errno set (EINVAL for a null manager or a code that is not attached).
 */
PLATFORM_API int event_init_sigevent(void *mgr, int code, long zero1, long zero2,
                                     struct sigevent *event);

PLATFORM_END

#endif
