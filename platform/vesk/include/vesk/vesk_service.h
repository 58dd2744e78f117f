/*
 * What the host runtime offers to processes that serve a device, beyond vesk.h: being a device, keeping the endpoints
 * that clients send, calling them without blocking, answering later. A device's libvesk has no such header, and nothing
 * that is meant to run on one may include it.
 *
 * Results are 0 for success, else an error code as in vesk.h. What deals with requests and with endpoints of other
 * processes belongs to the run-loop thread: there, or inside its callbacks, or not at all (elsewhere the functions of
 * type int give -EPERM). Completions and notices run on that thread too, one at a time, and never before the function
 * that asked for them has returned.
 */
#ifndef VESK_VESK_SERVICE_H_
#define VESK_VESK_SERVICE_H_

#include <stddef.h>
#include <stdint.h>
#include <sys/types.h>

#include "vesk/vesk.h"

#ifdef __cplusplus
extern "C" {
#endif

/* ---- Being a device ---- */

/*
 * Like vesk_get_runtime, for a process that serves: makes the runtime directory (mode 0700) when it is missing, and
 * holds, until vesk_shutdown or the end of the process, the lock that tells clients that a device lives here. The lock
 * is shared: the processes of one device all hold it, and what belongs to one of them alone is a name
 * (vesk_service_register). A line on standard error says what was wrong. Any thread.
 *
 * Raises the process's soft limit of open files to the hard one, because each connection takes one or two: the process
 * must not use select(), and gives programs that it starts the old limit if they may. What the runtime directory loses
 * while this process is inside vesk_run_loop, or the whole directory, is made again within two seconds, with a line on
 * standard error, unless another device has taken the place meanwhile.
 */
VESK_API int vesk_serve_device(void** runtime);

/* The runtime directory of this process as an absolute path; valid to the end of the process. Reads the environment
 * once. */
VESK_API const char* vesk_runtime_directory(void);

/*
 * The run loop's own event loop, for timers, signals and child processes of the serving program. Borrowed. Use it only
 * on the run-loop thread, inside a callback; or, before vesk_run_loop, on the thread that will enter it, as long as no
 * other thread uses the runtime and no bind is pending: until a thread is inside the loop, each thread that calls
 * libvesk adds sources to it, and sd_event takes no two threads at once.
 */
struct sd_event;
VESK_API struct sd_event* vesk_service_event(void* runtime);

/*
 * Stops serving `name`: removes it from the directory, drops the endpoint's reference, and closes every connection that
 * was opened for it, which their owners see as the death of the service. A call in progress is answered first when its
 * endpoint_call is what withdraws. -ENOENT when this process does not serve the name. Any thread.
 */
VESK_API int vesk_service_withdraw(void* runtime, const char* name);

/*
 * Calls `found` for each connection that other processes have open to the service `name` of this process, in no order:
 * with the process, and with the time at which the connection was opened, in microseconds since 1970. -ENOENT when this
 * process does not serve the name. Run-loop thread.
 */
VESK_API int vesk_service_connections(void* runtime, const char* name,
                                      void (*found)(void* context, pid_t client, uint64_t opened_us), void* context);

/* ---- Requests (run-loop thread) ---- */

/* The process that sent the message; 0 when it is not known. */
VESK_API pid_t vesk_identity_pid(const vesk_identity* caller);

/*
 * The thread of that process that made the call, by its own word: for what is shown to people, not for deciding
 * anything. 0 when it is not known, as in a callback.
 */
VESK_API pid_t vesk_identity_thread(const vesk_identity* caller);

/* An answer that is still owed. Owned by the code that deferred it, until it is answered. */
typedef struct vesk_deferred vesk_deferred;

/*
 * Called from endpoint_call: takes over the duty to answer. What endpoint_call writes into its reply and returns is
 * then ignored. Null when the call cannot be deferred (one-way, already deferred, or no memory).
 */
VESK_API vesk_deferred* vesk_request_defer(vesk_identity* caller);

/*
 * Answers with `reply` (borrowed; may be null for an empty one), or, when `error` is not 0, fails the call with that
 * error. Frees `deferred`. That the caller has gone meanwhile is not an error.
 */
VESK_API int vesk_deferred_answer(vesk_deferred* deferred, int error, vesk_payload* reply);

/*
 * Closes the caller's connection in place of an answer: its call fails, and it sees the service die, and no other
 * client does. Frees `deferred`. That the caller has gone meanwhile is not an error.
 */
VESK_API int vesk_deferred_hang_up(vesk_deferred* deferred);

/* ---- Endpoints of other processes (run-loop thread) ---- */

/* An endpoint of another process. Counted: each vesk_remote* that a function returns is dropped by one
 * vesk_remote_release. */
typedef struct vesk_remote vesk_remote;

/*
 * Reads an endpoint reference out of a request and keeps it alive at its owner until it is released. Null, and the
 * buffer's sticky error, where no reference stands. The same endpoint sent twice over one connection gives the same
 * pointer.
 */
VESK_API vesk_remote* vesk_read_endpoint(vesk_buffer* buffer);
VESK_API vesk_remote* vesk_remote_acquire(vesk_remote* remote);
VESK_API void vesk_remote_release(vesk_remote* remote);

/* Non-zero when both name the same endpoint of the same connection. */
VESK_API int vesk_remote_equal(const vesk_remote* a, const vesk_remote* b);

/* The process that keeps the endpoint; 0 when it is not known. */
VESK_API pid_t vesk_remote_pid(const vesk_remote* remote);

/*
 * Asks for one call of `gone` when the process that keeps the endpoint has ended, has closed the connection, or has
 * taken the endpoint back because the call that brought it was answered too late; at once (from the loop) when that has
 * happened already. `remote` is borrowed inside `gone`, which may release the caller's own references to it. Releasing
 * the last reference, or a null `gone`, takes the request back. One at a time; vesk_shutdown drops it.
 */
VESK_API int vesk_remote_on_gone(vesk_remote* remote, void (*gone)(void* context, vesk_remote* remote), void* context);

/*
 * Calls the endpoint without an answer; never blocks. -ENOBUFS when the receiver reads so slowly that its queue is
 * full: the message is refused, and no other receiver notices. -EPIPE when the receiver is gone. `request` is borrowed.
 */
VESK_API int vesk_remote_call_oneway(vesk_remote* remote, unsigned int code, vesk_payload* request);

/*
 * Calls the endpoint and returns; `completion` gets the answer (error 0 and a borrowed reply) or an error code:
 * -ETIMEDOUT after `timeout_ms`, -EPIPE when the receiver died. It runs exactly once when this returns 0, never
 * otherwise; vesk_shutdown drops the completions that are still owed.
 */
typedef void (*vesk_completion)(void* context, int error, vesk_buffer* reply);
VESK_API int vesk_remote_call(vesk_remote* remote, unsigned int code, vesk_payload* request, unsigned int timeout_ms,
                              vesk_completion completion, void* context);

/*
 * Calls a service that was looked up by name without an answer, on any thread; never waits for the receiver, but for a
 * vesk_call on the same handle that is in progress. The errors are those of vesk_remote_call_oneway. The receiver's
 * endpoint_call_oneway gets it. A request that carries endpoints is refused (-EINVAL): their channel is settled by an
 * answer.
 */
VESK_API int vesk_call_oneway(void* runtime, vesk_handle* handle, unsigned int code, vesk_payload* request);

/* The process behind a handle that a lookup gave; 0 for a handle that names nothing. Any thread. */
VESK_API pid_t vesk_handle_pid(void* runtime, const vesk_handle* handle);

/* ---- Messages as bytes ---- */

/* The bytes written so far; valid until the payload changes. */
VESK_API const void* vesk_payload_data(const vesk_payload* payload, size_t* size);

/* Cuts the payload down to its first `size` bytes; the position, when it was beyond, moves to the last multiple of 4 in
 * it. */
VESK_API int vesk_payload_truncate(vesk_payload* payload, size_t size);

/* Fills `buffer` with a copy of `size` bytes and moves its position to the start. For decoding and for tests. */
VESK_API int vesk_buffer_assign(vesk_buffer* buffer, const void* data, size_t size);

/* Bytes that have not been read yet. */
VESK_API size_t vesk_buffer_remaining(const vesk_buffer* buffer);

#ifdef __cplusplus
} /* extern "C" */
#endif

#endif /* VESK_VESK_SERVICE_H_ */
