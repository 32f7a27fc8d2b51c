// Internal to the engine: the MuPDF context of the calling thread and the
// guard that turns MuPDF's setjmp/longjmp errors into C++ exceptions.
#pragma once

#include <mupdf/fitz.h>
#include <mupdf/pdf.h>

#include <new>
#include <stdexcept>
#include <type_traits>
#include <utility>

namespace mu {

// Thrown for any MuPDF error; caught inside the engine before it reaches callers.
struct Error : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// The context for the calling thread: every thread gets its own clone of one
// base context, with MuPDF's locking callbacks installed, so documents can be
// used on one thread and display lists played back on others.
fz_context *ctx();

// Runs `fn` with a MuPDF context for dropping references: this thread's, or,
// when it cannot be made (memory is short), a spare one lent under a lock.
// Never throws, so destructors can use it.
void release(void (*fn)(fz_context *, void *), void *arg) noexcept;
template <class F> void release(F &&f) noexcept
{
    release([](fz_context *c, void *p) { (*static_cast<std::remove_reference_t<F> *>(p))(c); }, &f);
}

// Documents: MuPDF's documents are not safe to use from two threads at once,
// so every guarded call holds the engine's document lock (a thread's nested
// guards take it once). A display list recorded on a worker holds it with a
// RecordingHold and gives it up as soon as another thread asks for it: that
// thread sets the recording's cookie to abort, and the recording is tried
// again later. Playing back a display list uses no document and takes no lock.
enum class Lock { Documents, None };

// Runs fn(ctx, arg) inside fz_try; a MuPDF error becomes mu::Error. The callable
// must not have C++ objects with destructors alive while it calls MuPDF.
void guardImpl(fz_context *c, void (*fn)(fz_context *, void *), void *arg, Lock lock);

template <class F> void guard(F &&f, Lock lock = Lock::Documents)
{
    auto trampoline = [](fz_context *c, void *p) { (*static_cast<std::remove_reference_t<F> *>(p))(c); };
    guardImpl(ctx(), trampoline, &f, lock);
}

// Same, but false instead of an exception, also when memory runs out for
// the C++ side of the work.
template <class F> bool tryGuard(F &&f, Lock lock = Lock::Documents) noexcept
{
    try {
        guard(std::forward<F>(f), lock);
        return true;
    } catch (const Error &) {
        return false;
    } catch (const std::bad_alloc &) {
        return false;
    }
}

// Holds the document lock across several guarded calls that other threads
// must see whole or not at all: a page list rewritten, a document written.
class DocumentsHold {
public:
    DocumentsHold();
    ~DocumentsHold();
    DocumentsHold(const DocumentsHold &) = delete;
    DocumentsHold &operator=(const DocumentsHold &) = delete;
};

// Holds the document lock for a recording on a worker thread. It is not
// taken (held() is false) while another thread waits for it; once held,
// a thread that asks for it sets `cookie->abort`, and the recording must
// end soon after. A background hold (work nobody waits for, like indexing
// text) does not wait for the lock either, leaves it to recordings that
// wait for it, and is stopped through its cookie when one starts waiting.
class RecordingHold {
public:
    explicit RecordingHold(fz_cookie *cookie, bool background = false);
    ~RecordingHold();
    RecordingHold(const RecordingHold &) = delete;
    RecordingHold &operator=(const RecordingHold &) = delete;
    bool held() const { return held_; }

private:
    bool held_ = false;
};

// Asks a recording to stop, from any thread.
void abort(fz_cookie *cookie);
// Makes a cookie usable again, before its recording is tried again.
void clearAbort(fz_cookie *cookie);
bool aborted(const fz_cookie *cookie);

// Runs f(ctx) under a guard of its own and returns its result. Code that
// keeps C++ objects alive between MuPDF calls makes each call through this,
// so a MuPDF error unwinds it as an ordinary exception.
template <class F> auto call(F &&f)
{
    using Result = decltype(f(ctx()));
    if constexpr (std::is_void_v<Result>) {
        guard(std::forward<F>(f));
    } else {
        Result result{};
        guard([&](fz_context *c) { result = f(c); });
        return result;
    }
}

// Runs C++ code that may allocate (lists, maps) where MuPDF's error handling
// is open: memory running out becomes a MuPDF error, so it unwinds through
// MuPDF's own clean-up instead of jumping over it as a C++ exception.
template <class F> auto cxx(fz_context *c, F &&f) -> decltype(f())
{
    try {
        return f();
    } catch (const std::bad_alloc &) {
    }
    fz_throw(c, FZ_ERROR_MEMORY, "out of memory");
}

// Holds one reference to a MuPDF object and drops it when it goes.
class Obj {
public:
    Obj() = default;
    explicit Obj(pdf_obj *taken) : obj_(taken) {}
    ~Obj()
    {
        mu::release([this](fz_context *c) { pdf_drop_obj(c, obj_); });
    }
    Obj(Obj &&other) noexcept : obj_(std::exchange(other.obj_, nullptr)) {}
    Obj &operator=(Obj &&other) noexcept
    {
        std::swap(obj_, other.obj_);
        return *this;
    }
    Obj(const Obj &) = delete;
    Obj &operator=(const Obj &) = delete;
    pdf_obj *get() const { return obj_; }
    // Gives up the reference without dropping it.
    pdf_obj *release() { return std::exchange(obj_, nullptr); }
    explicit operator bool() const { return obj_ != nullptr; }

private:
    pdf_obj *obj_ = nullptr;
};

// Puts `value` (its reference is taken over) into `dict` under a key that has
// no predefined name; MuPDF's own pdf_dict_puts_drop leaks the value when
// making the key runs out of memory.
void putsDrop(fz_context *c, pdf_obj *dict, const char *key, pdf_obj *value);

} // namespace mu
