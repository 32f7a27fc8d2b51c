#include "MuContext.h"

#include <mutex>
#include <thread>

namespace mu {
namespace {

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
void unlockFn(void *, int lock) { locks[lock].unlock(); }

fz_context *baseContext()
{
    static fz_context *base = [] {
        static fz_locks_context lc{nullptr, lockFn, unlockFn};
        fz_context *c = fz_new_context(nullptr, &lc, FZ_STORE_DEFAULT);
        if (!c)
            throw Error("cannot create the PDF engine context");
        fz_register_document_handlers(c);
        // MuPDF prints warnings about damaged files on stderr; they are handled here.
        fz_set_warning_callback(c, [](void *, const char *) {}, nullptr);
        fz_set_error_callback(c, [](void *, const char *) {}, nullptr);
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

} // namespace

fz_context *ctx()
{
    thread_local ThreadContext tc;
    if (!tc.context) {
        tc.context = fz_clone_context(baseContext());
        if (!tc.context)
            throw Error("cannot create the PDF engine context for this thread");
    }
    return tc.context;
}

void guardImpl(fz_context *c, void (*fn)(fz_context *, void *), void *arg)
{
    const char *message = nullptr;
    fz_var(message);
    fz_try(c) { fn(c, arg); }
    fz_catch(c) { message = fz_caught_message(c); }
    if (message)
        throw Error(message);
}

} // namespace mu
