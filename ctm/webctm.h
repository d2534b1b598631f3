// libwebctm.so: a context-monitoring (CTM) client built on W3C Trace Context.
//
// A context is one unit of work followed across threads and processes: a trace id (32 hex
// digits, the ECID) and the id of the current span within it (16 hex digits, the RID). Each
// thread has at most one current context. Its wrapped form is a "traceparent" header value, so
// a context can travel to another thread, process or tracing system and continue the same trace
// there. Contexts can also be stashed under a caller's reference (any address) and found again.
//
// Every context and wrapped text returned is the caller's, to be released with qamysLocalFree.
// Nothing works until qamMeasInitModel has been called once. All functions are plain C
// functions, found by name by the host.
//
// Threads: the current context is per thread and needs no lock; the stash is process-wide and
// guarded by one mutex.
#pragma once

#define WEBCTM_API __attribute__((visibility("default")))

extern "C" {

// Releases a context or a wrapped text handed out by this library.
WEBCTM_API extern void (*qamysLocalFree)(void* p);

// Initialises the client (its random source and stash); non-zero when it is ready.
WEBCTM_API int qamMeasInitModel(void);

// With the label "QamContextQuery": a copy of the thread's current context, or null when it has
// none. With a null label: a new trace with new random ids, made the thread's current context.
// Any other label: null.
WEBCTM_API void* qamContextGet(const char* pszLabel);

// The thread's current context as a traceparent value, or null when it has none.
WEBCTM_API char* qamContextWrap(void);

// Continues the trace of a traceparent value on this thread: the trace id is kept; with
// bKeepSpan the span id is kept too (the same span moved to another thread), otherwise a new
// span id is made (a new hop of the trace). Null, and the current context unchanged, when the
// value is malformed.
WEBCTM_API void* qamContextUnwrap(const char* pszWrapped, bool bKeepSpan);

// The trace id / span id of a context; owned by the context. Null for a null context.
WEBCTM_API const char* qamContextGetECID(void* pContext);
WEBCTM_API const char* qamContextGetRID(void* pContext);

// Ends the thread's current context; non-zero for success (also when there was none).
WEBCTM_API int qamContextClear(void);

// Makes the context of the given ids the thread's current one; null when an id is not valid.
WEBCTM_API void* qamContextCreate(const char* pszTraceId, const char* pszSpanId);

// Stashes the thread's current context under pReference, to be found once (it is taken out
// when found); 0 when the thread has no current context (nothing is then stashed under it).
WEBCTM_API int qamContextStashCurrent(void* pReference);

// Stashes the thread's current context under pReference for any number of finds, until it
// expires; 0 when there is no current context or no reference.
WEBCTM_API int qamContextStash(void* pReference);

// Makes the context stashed under pReference the thread's current one and returns a copy of it;
// null when nothing is stashed there.
WEBCTM_API void* qamContextFind(void* pReference);

// Drops stashed contexts that are at least nMaxAgeSeconds old.
WEBCTM_API void qamReferenceExpireCheck(unsigned nMaxAgeSeconds);

}  // extern "C"
