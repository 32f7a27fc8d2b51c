#include "MuContext.h"

#include "Testing.h"

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <exception>
#include <mutex>
#include <thread>

namespace mu {
namespace {

// MuPDF's allocations go through these so that tests can count the blocks that
// are alive and make an allocation fail, the way a full memory would.
std::atomic<long long> liveBlocks{0};
std::atomic<long long> allocationsUntilFailure{-1};

// Once the count runs out every allocation fails, as in a full memory, until
// the count is reset: MuPDF retries after emptying its caches.
bool allocationFails()
{
    const long long left = allocationsUntilFailure.load(std::memory_order_relaxed);
    if (left < 0)
        return false;
    if (left == 0)
        return true;
    allocationsUntilFailure.store(left - 1, std::memory_order_relaxed);
    return false;
}

void *allocate(void *, size_t size)
{
    if (allocationFails())
        return nullptr;
    void *p = std::malloc(size);
    if (p)
        liveBlocks.fetch_add(1, std::memory_order_relaxed);
    return p;
}

void *reallocate(void *, void *old, size_t size)
{
    if (!old)
        return allocate(nullptr, size);
    if (allocationFails())
        return nullptr;
    return std::realloc(old, size);
}

void freeBlock(void *, void *p)
{
    if (!p)
        return;
    liveBlocks.fetch_sub(1, std::memory_order_relaxed);
    std::free(p);
}

std::mutex locks[FZ_LOCK_MAX];

// MuPDF takes these locks around every allocation and for very short spells:
// trying for a moment before sleeping keeps a worker that renders and the
// thread that records display lists from putting each other to sleep.
void lockFn(void *, int lock)
{
    for (int attempt = 0; attempt < 200; ++attempt) {
        if (locks[lock].try_lock())
            return;
#if defined(__x86_64__) || defined(__i386__)
        __builtin_ia32_pause();
#else
        std::this_thread::yield();
#endif
    }
    locks[lock].lock();
}
void unlockFn(void *, int lock)
{
    locks[lock].unlock();
}

// A context made with the base one, for releasing references on a thread
// whose own context cannot be made (made at the start, while memory is
// there); one thread at a time uses it.
fz_context *spare = nullptr;
std::mutex spareLock;

fz_context *baseContext()
{
    static fz_context *base = [] {
        static fz_locks_context lc{nullptr, lockFn, unlockFn};
        static fz_alloc_context alloc{nullptr, allocate, reallocate, freeBlock};
        fz_context *c = fz_new_context(&alloc, &lc, FZ_STORE_DEFAULT);
        if (!c)
            throw Error("cannot create the PDF engine context");
        fz_register_document_handlers(c);
        // MuPDF prints warnings about damaged files on stderr; they are handled here.
        fz_set_warning_callback(
            c, [](void *, const char *) {}, nullptr);
        fz_set_error_callback(
            c, [](void *, const char *) {}, nullptr);
        spare = fz_clone_context(c);
        return c;
    }();
    return base;
}

struct ThreadContext {
    fz_context *context = nullptr;
    ~ThreadContext()
    {
        if (context)
            fz_drop_context(context);
    }
};

// This thread's context, made on first use; null when it cannot be made.
fz_context *threadContext() noexcept
{
    thread_local ThreadContext tc;
    if (!tc.context) {
        try {
            tc.context = fz_clone_context(baseContext());
        } catch (const Error &) {
            return nullptr;
        }
    }
    return tc.context;
}

} // namespace

fz_context *ctx()
{
    if (fz_context *c = threadContext())
        return c;
    throw Error("cannot create the PDF engine context for this thread");
}

void release(void (*fn)(fz_context *, void *), void *arg) noexcept
{
    if (fz_context *c = threadContext()) {
        fn(c, arg);
        return;
    }
    std::lock_guard hold(spareLock);
    if (spare)
        fn(spare, arg);
}

namespace {

// The document lock, and who waits for it: threads that use documents wait
// in turn; a recording that holds it for longer than they wait patiently is
// told through its cookie to stop.
struct DocumentLock {
    std::mutex mutex;
    std::mutex state; // guards the three below
    int waiting = 0;
    // Recordings waiting for the lock: background work leaves it to them.
    int recordersWaiting = 0;
    fz_cookie *recording = nullptr;
    bool background = false; // the recording is background work
};

constexpr std::chrono::milliseconds patience{10};

DocumentLock &documentLock()
{
    static DocumentLock lock;
    return lock;
}

// How many guards of this thread are open inside its hold of the lock.
thread_local int heldDepth = 0;

void lockDocuments()
{
    if (heldDepth++ > 0)
        return;
    DocumentLock &lock = documentLock();
    if (lock.mutex.try_lock())
        return;
    {
        std::lock_guard state(lock.state);
        ++lock.waiting;
        if (lock.recording && lock.background)
            abort(lock.recording); // background work does not keep anyone waiting
    }
    // Polled rather than a timed lock, which ThreadSanitizer cannot follow.
    const auto deadline = std::chrono::steady_clock::now() + patience;
    while (!lock.mutex.try_lock()) {
        if (std::chrono::steady_clock::now() < deadline) {
            std::this_thread::sleep_for(std::chrono::microseconds(200));
            continue;
        }
        {
            std::lock_guard state(lock.state);
            if (lock.recording)
                abort(lock.recording);
        }
        lock.mutex.lock();
        break;
    }
    std::lock_guard state(lock.state);
    --lock.waiting;
}

void unlockDocuments()
{
    if (--heldDepth == 0)
        documentLock().mutex.unlock();
}

} // namespace

void abort(fz_cookie *cookie)
{
    std::atomic_ref(cookie->abort).store(1, std::memory_order_relaxed);
}

void clearAbort(fz_cookie *cookie)
{
    std::atomic_ref(cookie->abort).store(0, std::memory_order_relaxed);
}

bool aborted(const fz_cookie *cookie)
{
    return std::atomic_ref(const_cast<fz_cookie *>(cookie)->abort).load(std::memory_order_relaxed) != 0;
}

DocumentsHold::DocumentsHold()
{
    lockDocuments();
}

DocumentsHold::~DocumentsHold()
{
    unlockDocuments();
}

RecordingHold::RecordingHold(fz_cookie *cookie, bool background)
{
    if (heldDepth > 0)
        return; // a thread that holds the lock does not record on the side
    DocumentLock &lock = documentLock();
    if (background) {
        if (!lock.mutex.try_lock())
            return;
    } else {
        {
            std::lock_guard state(lock.state);
            ++lock.recordersWaiting;
            // Background work gives way at once to a recording someone waits for.
            if (lock.recording && lock.background)
                abort(lock.recording);
        }
        lock.mutex.lock();
    }
    std::lock_guard state(lock.state);
    if (!background)
        --lock.recordersWaiting;
    if (lock.waiting > 0 || (background && lock.recordersWaiting > 0)) {
        lock.mutex.unlock();
        return;
    }
    lock.recording = cookie;
    lock.background = background;
    heldDepth = 1;
    held_ = true;
}

RecordingHold::~RecordingHold()
{
    if (!held_)
        return;
    DocumentLock &lock = documentLock();
    {
        std::lock_guard state(lock.state);
        lock.recording = nullptr;
    }
    heldDepth = 0;
    lock.mutex.unlock();
}

namespace {

struct Call {
    void (*fn)(fz_context *, void *);
    void *arg;
    std::exception_ptr exception;
};

// Runs the callable inside the guard's fz_try. A C++ exception (std::bad_alloc,
// or an mu::Error of a nested guard) must not unwind through fz_try: it is
// caught here, the fz_try levels it skipped are popped from MuPDF's error
// stack, and it is thrown again once the guard's own fz_try has ended.
void runCaught(fz_context *c, Call *call)
{
    fz_error_stack_slot *top = c->error.top;
    try {
        call->fn(c, call->arg);
    } catch (...) {
        c->error.top = top;
        call->exception = std::current_exception();
    }
}

} // namespace

namespace {

void guarded(fz_context *c, void (*fn)(fz_context *, void *), void *arg)
{
    Call call{fn, arg, nullptr};
    bool failed = false;
    char message[sizeof c->error.message] = "";
    fz_var(failed);
    fz_try(c)
    {
        runCaught(c, &call);
    }
    fz_catch(c)
    {
        failed = true;
        fz_strlcpy(message, fz_caught_message(c), sizeof message);
    }
    if (call.exception)
        std::rethrow_exception(call.exception);
    if (failed)
        throw Error(message);
}

} // namespace

void guardImpl(fz_context *c, void (*fn)(fz_context *, void *), void *arg, Lock lock)
{
    if (lock == Lock::None) {
        guarded(c, fn, arg);
        return;
    }
    lockDocuments();
    try {
        guarded(c, fn, arg);
    } catch (...) {
        unlockDocuments();
        throw;
    }
    unlockDocuments();
}

void putsDrop(fz_context *c, pdf_obj *dict, const char *key, pdf_obj *value)
{
    pdf_obj *name = nullptr;
    fz_var(name);
    fz_try(c)
    {
        name = pdf_new_name(c, key);
        pdf_dict_put(c, dict, name, value);
    }
    fz_always(c)
    {
        pdf_drop_obj(c, name);
        pdf_drop_obj(c, value);
    }
    fz_catch(c) fz_rethrow(c);
}

namespace testing {

long long liveAllocations()
{
    return liveBlocks.load();
}

void failAllocationAfter(long long count)
{
    allocationsUntilFailure.store(count);
}

void emptyCaches()
{
    fz_empty_store(ctx());
}

int errorDepth()
{
    fz_context *c = ctx();
    return int(c->error.top - c->error.stack_base);
}

void throwThroughNestedTry(void (*thrower)())
{
    guard([&](fz_context *c) {
        fz_try(c)
        {
            thrower();
        }
        fz_catch(c) fz_rethrow(c);
    });
}

} // namespace testing

} // namespace mu
