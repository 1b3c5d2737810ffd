/* Calls a Python callable while one chosen allocation of the calling thread fails, or all from that one on; or lets
 * that happen from now on until the thread ends.
 *
 * Counted are the interpreter's allocations of objects and of memory blocks, through hooks that stand in front of
 * its own allocators, and, where this library is loaded before the C library, the allocations of native code. It is
 * compiled without the interpreter's headers and finds the interpreter in the process that loads it.
 */
#define _GNU_SOURCE
#include <dlfcn.h>
#include <errno.h>
#include <stddef.h>

/* The interpreter's description of an allocator, unchanged since 3.5. */
struct allocator {
    void* context;
    void* (*malloc)(void*, size_t);
    void* (*calloc)(void*, size_t, size_t);
    void* (*realloc)(void*, void*, size_t);
    void (*free)(void*, void*);
};

enum { DOMAIN_MEM = 1, DOMAIN_OBJ = 2, DOMAINS = 3 };

static struct allocator original[DOMAINS];

/* Of the calling thread: how many allocations are still to succeed, whether those after the failed one succeed
 * again, and where those that fail are counted. A thread that makes no call of ours is never failed. */
static __thread int is_armed;
static __thread long left;
static __thread int for_good;
static __thread long* failures;

static int is_to_fail(void) {
    if (!is_armed) {
        return 0;
    }
    --left;
    if (left == 0 || (left < 0 && for_good)) {
        ++*failures;
        return 1;
    }
    return 0;
}

static void* hooked_malloc(void* context, size_t size) {
    struct allocator* own = context;
    return is_to_fail() ? NULL : own->malloc(own->context, size);
}

static void* hooked_calloc(void* context, size_t count, size_t size) {
    struct allocator* own = context;
    return is_to_fail() ? NULL : own->calloc(own->context, count, size);
}

static void* hooked_realloc(void* context, void* block, size_t size) {
    struct allocator* own = context;
    return is_to_fail() ? NULL : own->realloc(own->context, block, size);
}

static void hooked_free(void* context, void* block) {
    struct allocator* own = context;
    own->free(own->context, block);
}

/* Puts the hooks in place, for the life of the process. Returns 0, or -1 where the interpreter lacks the calls. */
int install(void) {
    void (*get)(int, struct allocator*) = (void (*)(int, struct allocator*))dlsym(NULL, "PyMem_GetAllocator");
    void (*set)(int, struct allocator*) = (void (*)(int, struct allocator*))dlsym(NULL, "PyMem_SetAllocator");
    if (get == NULL || set == NULL) {
        return -1;
    }
    for (int domain = DOMAIN_MEM; domain <= DOMAIN_OBJ; ++domain) {
        get(domain, &original[domain]);
        struct allocator hooked = {&original[domain], hooked_malloc, hooked_calloc, hooked_realloc, hooked_free};
        set(domain, &hooked);
    }
    return 0;
}

/* Lets allocation number `number` of the calling thread fail, and all later ones where `from_there_on` is set, until
 * the thread ends. How many failed is counted in `failed`, which has to outlive the thread. */
void fail_until_the_end(long number, int from_there_on, long* failed) {
    *failed = 0;
    failures = failed;
    left = number;
    for_good = from_there_on;
    is_armed = 1;
}

/* Calls `callable()` in the same state, which ends with the call. Returns what the callable returned. */
void* call_failing(void* callable, long number, int from_there_on, long* failed) {
    void* (*call)(void*, void*) = (void* (*)(void*, void*))dlsym(NULL, "PyObject_CallObject");
    fail_until_the_end(number, from_there_on, failed);
    void* result = call(callable, NULL);
    is_armed = 0;
    return result;
}

extern void* __libc_calloc(size_t, size_t);

/* What native code asks for. The C library's own calls do not come by here. */
void* calloc(size_t count, size_t size) {
    if (is_to_fail()) {
        errno = ENOMEM;
        return NULL;
    }
    return __libc_calloc(count, size);
}

extern void* __libc_memalign(size_t, size_t);

void* aligned_alloc(size_t alignment, size_t size) {
    if (is_to_fail()) {
        errno = ENOMEM;
        return NULL;
    }
    return __libc_memalign(alignment, size);
}
