/* The event loop: descriptors, timers, job queues, and the names of their callbacks.
 *
 * A process has one set of loop threads, started by eventer_start(). Every event belongs to one of them, its owner, and
 * its callback runs there, one call at a time; so what an owner's callbacks share among themselves needs no lock.
 * Work that blocks goes to a job queue, whose worker threads run it; the completion then runs on the owner.
 *
 * An event is made by one of the eventer_alloc_ calls, is its maker's until it is added, and the loop's from then on.
 * It ends, and is freed by the loop, when its callback returns 0 (a timer always ends after its call); an event that
 * was taken out with eventer_remove_fd() or eventer_remove_timer() is the taker's again, who adds it once more or frees
 * it. A callback may take out its own event; what it returns then is ignored.
 *
 * Ending an event closes no descriptor. A descriptor must be taken out before it is closed, or the next one of its
 * number is mistaken for it. A callback that is done with both does it so:
 *     eventer_remove_fd(fd); close(fd); eventer_free(e); return 0;
 *
 * Unless a function says otherwise it may be called from any thread. Nothing here needs the loop to run before
 * eventer_start(): what is added earlier waits for it. A forked child has no loop threads, no workers and none of the
 * parent's events: it starts anew with eventer_start(), and jobs that wait in the parent's queues are the parent's.
 *
 * Memory that runs out under a loop or worker thread ends the process with a line that begins "[FATAL] ". */
#ifndef RUXO_EVENTER_H
#define RUXO_EVENTER_H

#include <pthread.h>
#include <sys/time.h>

#include "ruxo/base.h"

RUXO_BEGIN_DECLS

/* What an event waits for, and what its callback is told has happened. EXCEPTION is urgent data, and a descriptor that
 * failed or was hung up; who does not wait for it is told of those two as READ or WRITE, so waiting for one of these
 * alone is enough, and cheapest. Readiness may have passed when the callback runs: descriptors are non-blocking. */
#define EVENTER_READ 0x01
#define EVENTER_WRITE 0x02
#define EVENTER_EXCEPTION 0x04
#define EVENTER_TIMER 0x08
/* The phases of a job: WORK on a worker thread; COMPLETE on the owner, with WORK done; CANCEL instead of both, on the
 * owner, when the queue was closed before the work began. Where the owner's loop does not run (yet, or any more),
 * COMPLETE runs on the worker, and CANCEL on the thread that closes the queue or adds to a closed one. A job's closure
 * is released in COMPLETE or in CANCEL. */
#define EVENTER_ASYNCH_WORK 0x10
#define EVENTER_ASYNCH_COMPLETE 0x20
#define EVENTER_ASYNCH_CANCEL 0x40

typedef struct ruxo_event *eventer_t;
typedef struct ruxo_jobq eventer_jobq_t;

/* A callback: `mask` of the above is what happened, `closure` is the event's own, `now` the time of the call.
 * It returns the mask to wait for next, 0 when the event is done (a job returns anything; it is done after COMPLETE,
 * or after a WORK that called eventer_set_mask(e, 0), which gives the completion up, frees the event and leaves the
 * closure to WORK). No exception may leave it. */
typedef int (*eventer_func_t)(eventer_t e, int mask, void *closure, struct timeval *now);

/* ---- Loop threads ---- */

/* Starts `threads` loop threads (1 to 256), opens the job queues that eventer_stop() has closed, and hands out the
 * events that wait; one whose descriptor cannot be watched any more is told so by EXCEPTION. 0; -1 when they run
 * already, the number is out of range, or a thread could not be made (then none is left running). SIGPIPE is ignored
 * from then on, unless the host handles it. Other signals are not delivered to loop threads and workers. */
RUXO_EXPORT int eventer_start(unsigned threads);

/* Stops: closes every job queue (work that has begun is waited for, and completed; what has not begun is cancelled),
 * ends the loop threads, and frees the events still registered without calling them; their descriptors and closures
 * are the host's. Returns when no callback runs any more. The queues stay closed, and what is added waits, until it is
 * started again. Fatal from a loop or worker thread. */
RUXO_EXPORT void eventer_stop(void);

/* The number of loop threads, 0 before eventer_start(); and the thread at `index` (modulo that number; 0, which is no
 * thread, when there is none). */
RUXO_EXPORT unsigned eventer_loop_count(void);
RUXO_EXPORT pthread_t eventer_choose_owner(unsigned index);

/* Whether the calling thread is the loop thread that owns the event. */
RUXO_EXPORT ruxo_boolean eventer_is_owner(eventer_t e);

/* ---- Events ---- */

/* New events; null when memory ran out. Their owner is the calling thread where that is a loop thread, else one of the
 * loop threads in turn, chosen when it is added. Descriptors must be non-blocking; the event does not own its own. */
RUXO_EXPORT eventer_t eventer_alloc_fd(eventer_func_t function, void *closure, int fd, int mask);
/* Runs once, at the wall-clock time *when or as soon after as the loop can. When it is added that becomes a delay, so
 * that a clock which is set later neither holds it up nor hurries it. Any time is fine, also one long past. */
RUXO_EXPORT eventer_t eventer_alloc_timer(eventer_func_t function, void *closure, const struct timeval *when);
/* A job, for eventer_add_asynch(). */
RUXO_EXPORT eventer_t eventer_alloc_asynch(eventer_func_t function, void *closure);

/* Hands a descriptor or timer event to the loop. 0; or -1 and errno, and it stays the caller's: EINVAL for a job or an
 * event that waits for nothing, EEXIST when it or another event of its descriptor is registered already, EBADF and
 * EPERM for descriptors that are none or cannot be waited for (files, folders), others as the system has them. Once it
 * is added the callback may run, and the event be gone, before this returns. */
RUXO_EXPORT int eventer_add(eventer_t e);

/* A timer `seconds` and `microseconds` from now (microseconds from 1,000,000 on are carried), made and added. It never
 * runs within the call. Null when memory ran out. Only its owner knows whether the event returned is still there. */
RUXO_EXPORT eventer_t eventer_add_in_s_us(eventer_func_t function, void *closure, unsigned long seconds,
                                          unsigned long microseconds);

/* Takes an event out of the loop and gives it to the caller; null when there is none, as when its last callback just
 * ended. From another thread than the owner's it waits for a callback that is running, so two owners must not do that
 * to each other, nor may a lock be held that the callback takes. The callback does not run again. */
RUXO_EXPORT eventer_t eventer_remove_fd(int fd);
RUXO_EXPORT eventer_t eventer_remove_timer(eventer_t e);

/* Changes what a descriptor event waits for, as if its callback had returned it; with 0 it stays, but waits for nothing
 * until the next change. Made while the callback runs it holds, unless that returns 0. */
RUXO_EXPORT void eventer_update(eventer_t e, int mask);

/* Calls a registered event's callback once on its owner, soon, with `mask`, as if that had happened: what it returns
 * counts, and a timer ends. For an event that was taken out meanwhile it does nothing. */
RUXO_EXPORT void eventer_wakeup(eventer_t e, int mask);

/* ---- Names of callbacks ---- */

/* Makes `function` known as `name`, so that jobs and configuration can refer to it. The name is copied; names
 * are never forgotten. A function may have several names and is called by the first. Registering the same
 * pair again changes nothing and is fine. Returns 0; -1, changing nothing, when the name belongs to another
 * function or memory ran out. Any thread. */
RUXO_EXPORT int eventer_name_callback(const char *name, eventer_func_t function);

/* The function known as `name`; null when there is none. Any thread. */
RUXO_EXPORT eventer_func_t eventer_callback_for_name(const char *name);

/* The first name that `function` was given, valid for the life of the process; null when it has none. Any
 * thread. */
RUXO_EXPORT const char *eventer_name_for_callback(eventer_func_t function);

/* A new event that waits for nothing and has no callback, owned by the caller; null when memory ran out. What job
 * callbacks are tested with. */
RUXO_EXPORT eventer_t eventer_alloc(void);

/* Frees an event that is the caller's; null is ignored. Fatal for one that is registered. */
RUXO_EXPORT void eventer_free(eventer_t e);

/* What the event waits for, its descriptor (-1 for none), its closure, its time (a timer's) and its owner (0 while it
 * has none). A thread that is no loop thread is as good as none. Set them while the event is not registered, or, the
 * mask, from a job's own WORK. */
RUXO_EXPORT void eventer_set_mask(eventer_t e, int mask);
RUXO_EXPORT int eventer_get_mask(eventer_t e);
RUXO_EXPORT int eventer_get_fd(eventer_t e);
RUXO_EXPORT void *eventer_get_closure(eventer_t e);
RUXO_EXPORT struct timeval eventer_get_when(eventer_t e);
RUXO_EXPORT void eventer_set_owner(eventer_t e, pthread_t owner);
RUXO_EXPORT pthread_t eventer_get_owner(eventer_t e);

/* ---- Job queues ---- */

/* A queue with up to `threads` worker threads of its own (1 to 1024), which start as jobs need them; work begins in the
 * order added. `name` is copied, and what the workers are called. Null for a number out of range, for a name in use, or
 * without memory. */
RUXO_EXPORT eventer_jobq_t *eventer_jobq_create(const char *name, unsigned threads);

/* The queue of that name; null when there is none. */
RUXO_EXPORT eventer_jobq_t *eventer_jobq_by_name(const char *name);

/* Hands a job over. Null stands for the queue "default", which, unless the host has made it, has one worker for each
 * processor. A job that is added to a closed queue, or for which no worker can be started, is cancelled. */
RUXO_EXPORT void eventer_add_asynch(eventer_jobq_t *queue, eventer_t e);

/* Jobs that wait for a worker, and jobs that a worker has taken and that are not over, completion included. */
RUXO_EXPORT size_t eventer_jobq_backlog(const eventer_jobq_t *queue);
RUXO_EXPORT size_t eventer_jobq_inflight(const eventer_jobq_t *queue);

/* Closes the queue: cancels what waits, waits for the work that runs, for its completions and for the cancellations,
 * ends the workers, frees the queue. Nothing may be added any more. Fatal from a loop or worker thread, where it could
 * wait for itself. Null is ignored. */
RUXO_EXPORT void eventer_jobq_destroy(eventer_jobq_t *queue);

RUXO_END_DECLS

#endif
