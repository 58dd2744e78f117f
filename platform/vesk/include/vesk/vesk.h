/*
 * libvesk: messages between processes, named services and notices of their death.
 *
 * A device ships its own libvesk; on a workstation the host runtime beside this header stands in for it. Everything
 * here is plain C, so that both sides of the interface agree on every layout.
 *
 * Results of type int are 0 for success. Anything else is an error code; the host runtime uses negated errno values
 * (-ENOENT: no such service, -EAGAIN: a service that takes no connection at the moment, -EPIPE or -ECONNRESET: the
 * service died, -ETIMEDOUT: the call limit passed, -ESHUTDOWN: after vesk_shutdown, -EMSGSIZE: over 8 MiB, -EPERM:
 * called after fork).
 *
 * Runtime. There is one per process; its pointer is the same each time and stays valid to the end of the process, in
 * exit handlers and static destructors too; a static object that vesk_get_runtime makes would be gone before those of
 * its callers. libvesk holds no lock while it calls out: a callback may call any function but vesk_run_loop. What a
 * callback throws never passes through the frames of this library: the host runtime catches it where it calls, prints
 * one line to standard error, answers a two-way call with an error and goes on; a device may end the process.
 */
#ifndef VESK_VESK_H_
#define VESK_VESK_H_

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Marks the functions that the host runtime exports. */
#define VESK_API __attribute__((visibility("default")))

/* An outgoing message under construction. Owned by the code that allocated it; one thread at a time. */
typedef struct vesk_payload vesk_payload;

/* An incoming message with a read position. Owned by the code that allocated it; one thread at a time. */
typedef struct vesk_buffer vesk_buffer;

/* Who sent a message. Borrowed for the duration of the callback that receives it. */
typedef struct vesk_identity vesk_identity;

/*
 * Names a connection to one service. A plain value that is passed by address: the functions keep no address of it, and
 * a value is never used again for another connection. Both words are 0 in a handle that names nothing.
 */
typedef struct vesk_handle {
  uint32_t words[2];
} vesk_handle;

/*
 * Told when the process behind a handle dies. The caller owns the record and keeps it alive through the references that
 * libvesk counts with death_acquire and death_release, which may run on any thread; on_death runs on the run-loop
 * thread.
 */
typedef struct vesk_death_callback {
  void (*on_death)(void* runtime, struct vesk_death_callback* callback, vesk_handle* handle);
  void (*death_acquire)(struct vesk_death_callback* callback);
  void (*death_release)(struct vesk_death_callback* callback);
  void* context; /* the owner's; libvesk does not touch it */
} vesk_death_callback;

struct vesk_endpoint;

/*
 * What an endpoint does. None of the four may be null: vesk_service_register and vesk_write_endpoint refuse such an
 * endpoint (-EINVAL). The two calls run on the run-loop thread, one at a time. What endpoint_call returns is what the
 * caller's vesk_call returns: 0 brings it the reply, anything else fails the call with that number, and the reply is
 * dropped. A reply in which a write failed is answered with -EINVAL. What endpoint_call_oneway returns is ignored.
 * acquire and release count references on any thread, and their results are ignored. The request, the reply and the
 * caller are borrowed for the call.
 */
typedef struct vesk_endpoint_fn {
  int (*endpoint_call)(void* runtime, struct vesk_endpoint* endpoint, unsigned int code, vesk_identity* caller,
                       vesk_buffer* request, vesk_payload* reply);
  int (*endpoint_call_oneway)(void* runtime, struct vesk_endpoint* endpoint, unsigned int code, vesk_identity* caller,
                              vesk_buffer* request);
  int (*endpoint_acquire)(void* runtime, struct vesk_endpoint* endpoint);
  int (*endpoint_release)(void* runtime, struct vesk_endpoint* endpoint);
} vesk_endpoint_fn;

/* Something in this process that other processes can call. Its address is its identity, so it never moves. */
typedef struct vesk_endpoint {
  const vesk_endpoint_fn* fn;
  void* context; /* the owner's; libvesk does not touch it */
} vesk_endpoint;

/*
 * Receives the handle of a bound service, with one reference that the receiver drops by vesk_service_unbind. Runs on
 * any thread, possibly before vesk_service_bind returns. `name` is borrowed for the call.
 */
typedef void (*vesk_service_bind_callback)(void* runtime, void* context, const char* name, vesk_handle handle);

/* ---- Runtime ---- */

/*
 * Stores the process's runtime in *runtime and ends the effect of an earlier vesk_shutdown. Fails at once, with a line
 * on standard error that names the directory, when there is no device: the runtime directory does not exist, is not
 * safe to use, or no live process serves in it. Any thread.
 */
VESK_API int vesk_get_runtime(void** runtime);

/*
 * Delivers calls on endpoints and death notices on the calling thread until vesk_shutdown. What arrives before the loop
 * runs waits for it. One thread at a time: a second caller gets -EBUSY.
 */
VESK_API int vesk_run_loop(void* runtime);

/*
 * Holds until the next vesk_get_runtime: the loop returns after the callback in progress, and a loop entered later
 * returns at once; calls in progress and new calls fail. It withdraws the names of this process, drops their endpoints
 * and the pending binds. When it returns no bind callback is running, unless it was called from one. Every other
 * function goes on working. Any thread, callbacks included.
 */
VESK_API int vesk_shutdown(void* runtime);

/* ---- Services ---- */

/*
 * Binds the service called `name`. One that runs is given to `callback` before this returns; for one that does not run
 * yet this returns 0 and calls back when it appears. Never needs the run loop, and waits for no service: the host
 * runtime gives one that does not answer, because it is stopped for example, 50 ms (10 ms on the run-loop thread) and
 * then binds it all the same. A service that has no room for one more connection, or is just ending, is an error
 * (-EAGAIN), one that is waited for is tried again. Binds that wait for one name with one callback may get one handle,
 * with a reference for each. `context` is passed on untouched; the name is copied. Any thread.
 */
VESK_API int vesk_service_bind(void* runtime, const char* name, vesk_service_bind_callback callback, void* context);

/*
 * Drops the reference that a lookup (vesk_service_bind, vesk_binder_servicemanager_get) gave. When the service died,
 * that reference has already ended by itself; dropping it again is harmless. Any thread.
 */
VESK_API int vesk_service_unbind(void* runtime, vesk_handle* handle);

/*
 * Looks `name` up and answers at once, like a bind of a service that runs: *out gets a handle with one lookup
 * reference, or the result says why not. Any thread.
 */
VESK_API int vesk_binder_servicemanager_get(void* runtime, const char* name, vesk_handle* out);

/*
 * Publishes `endpoint` under `name` and keeps one reference to it until the name is replaced, withdrawn, or
 * vesk_shutdown. A name that this process already serves gets the new endpoint: later calls reach it, and the old one's
 * reference is dropped, after its callback if one is in progress. A name that another live process serves is an error
 * (-EADDRINUSE), an empty or over-long one too (-EINVAL, -ENAMETOOLONG), and so is an
 * endpoint without all its functions (-EINVAL). The host runtime waits for other processes
 * that publish for at most 2 s (-EBUSY, with a line on standard error: one of them is stopped). Any thread.
 */
VESK_API int vesk_service_register(void* runtime, const char* name, vesk_endpoint* endpoint);

/* ---- Handles (any thread) ---- */

/* Non-zero when the two words name a handle: from the lookup until the last reference is released, its death in
 * between. */
VESK_API int vesk_handle_is_valid(void* runtime, const vesk_handle* handle);

/* Takes one more reference. */
VESK_API int vesk_handle_acquire(void* runtime, vesk_handle* handle);

/*
 * Drops a reference. Dropping the last one closes the connection and releases what was exported over it before this
 * returns, or, from inside a callback that came through such an export, when that callback returns.
 */
VESK_API int vesk_handle_release(void* runtime, vesk_handle* handle);

/* The value that names no handle. */
VESK_API vesk_handle vesk_invalid_handle(void);

/*
 * Asks for one notice of the death of the process behind `handle`. Linking to a process that has just died succeeds and
 * the notice follows at once; it fails only for an invalid handle or lack of memory. Each link keeps one reference to
 * the callback, from death_acquire to death_release.
 */
VESK_API int vesk_handle_link_to_death(void* runtime, vesk_handle* handle, vesk_death_callback* callback);

/*
 * After this returns, that callback's on_death is not started any more, not even one that was queued. Unlinking what is
 * not linked changes nothing and drops no reference.
 */
VESK_API int vesk_handle_unlink_to_death(void* runtime, vesk_handle* handle, vesk_death_callback* callback);

/* ---- Messages (on the thread that holds the message) ---- */
/* A null payload or buffer is harmless: writes and ..._last_error give an error, reads give 0 or null, freeing does
 * nothing. */

/* Null when out of memory. */
VESK_API vesk_payload* vesk_payload_alloc(void);
/* Drops the endpoint references of a payload that was never sent. */
VESK_API void vesk_payload_free(vesk_payload* payload);
/* The first failed write's error, which sticks; else 0. */
VESK_API int vesk_payload_last_error(vesk_payload* payload);
/* Bytes from the start; 0 for null. */
VESK_API unsigned int vesk_payload_get_position(vesk_payload* payload);
/* Goes back to bytes that are written already, or to their end; a position beyond the end is an error. */
VESK_API int vesk_payload_set_position(vesk_payload* payload, unsigned int position);

/* Null when out of memory. */
VESK_API vesk_buffer* vesk_buffer_alloc(void);
VESK_API void vesk_buffer_free(vesk_buffer* buffer);
/* The first failed read's error, which sticks; else 0. */
VESK_API int vesk_buffer_last_error(vesk_buffer* buffer);

/* ---- Transactions (any thread) ---- */

/*
 * Sends `request` as transaction `code` and waits for the answer, which replaces what `reply` held. Takes the endpoint
 * references out of the request: on success the receiving side holds them, on failure they are dropped. A service that
 * has died or dies meanwhile is an error at once; one that lives but does not answer is -ETIMEDOUT after the call limit
 * (host runtime: 30 s, or ORVEL_CALL_TIMEOUT_MS, a day at most). That call fails alone: the service may carry it out
 * all the same, its late answer is thrown away, endpoints that the service took with it are asked back, and the
 * connection goes on. Calls on one handle follow one another; each limit runs from when it is the call's turn.
 */
VESK_API int vesk_call(void* runtime, vesk_handle* handle, unsigned int code, vesk_payload* request,
                       vesk_buffer* reply);

/* Says that `reply` has been consumed; its contents must not be read any more. `reply` may be null. */
VESK_API int vesk_reply_done(void* runtime, vesk_buffer* reply);

/* ---- Writing: appends at the position, or overwrites in place before the end. Little-endian, 4-byte aligned. ---- */

VESK_API int vesk_write_i32(vesk_payload* payload, int32_t value);
VESK_API int vesk_write_i64(vesk_payload* payload, int64_t value);
VESK_API int vesk_write_f64(vesk_payload* payload, double value);
/* Length in UTF-16 units (32-bit), the units, a 0 unit, padding to 4 bytes. Null is an error; bad UTF-8 becomes U+FFFD.
 */
VESK_API int vesk_write_utf16_cstring(vesk_payload* payload, const char* utf8);
/* -1 stands for a null array. */
VESK_API int vesk_write_array_length(vesk_payload* payload, int32_t length);
/* Writes a reference to a local endpoint and takes that reference at once. */
VESK_API int vesk_write_endpoint(vesk_payload* payload, vesk_endpoint* endpoint);

/* ---- Reading: past the end gives 0 or null and sets the sticky error, after which every read gives 0 or null. ---- */

VESK_API int32_t vesk_read_i32(vesk_buffer* buffer);
VESK_API int64_t vesk_read_i64(vesk_buffer* buffer);
VESK_API double vesk_read_f64(vesk_buffer* buffer);
/* The string's code units, owned by the buffer and followed by a 0 unit; null with *length 0 for a null string. */
VESK_API const uint16_t* vesk_read_utf16_string(vesk_buffer* buffer, unsigned int* length);
/* Negative for a null array. */
VESK_API int32_t vesk_read_array_length(vesk_buffer* buffer);

#ifdef __cplusplus
} /* extern "C" */
#endif

#endif /* VESK_VESK_H_ */
