// ThreadSanitizer build only: GLib's GMutex and GCond wait on futexes on
// Linux, which the sanitizer does not see, so it would take everything a
// GMutex protects (the GStreamer object lock among it) for a race. These
// wrappers, exported by the test binary, stand in front of GLib's and tell
// the sanitizer what the locks order; the real GLib functions still do the
// locking.
#include <glib.h>

#include <dlfcn.h>

extern "C" {
void __tsan_acquire(void *addr);
void __tsan_release(void *addr);
}

namespace {
template <typename F>
F real(const char *name) {
    return reinterpret_cast<F>(dlsym(RTLD_NEXT, name));
}
}  // namespace

extern "C" {

void g_mutex_lock(GMutex *m) {
    static auto f = real<void (*)(GMutex *)>("g_mutex_lock");
    f(m);
    __tsan_acquire(m);
}

gboolean g_mutex_trylock(GMutex *m) {
    static auto f = real<gboolean (*)(GMutex *)>("g_mutex_trylock");
    const gboolean r = f(m);
    if (r) __tsan_acquire(m);
    return r;
}

void g_mutex_unlock(GMutex *m) {
    static auto f = real<void (*)(GMutex *)>("g_mutex_unlock");
    __tsan_release(m);
    f(m);
}

void g_cond_wait(GCond *c, GMutex *m) {
    static auto f = real<void (*)(GCond *, GMutex *)>("g_cond_wait");
    __tsan_release(m);
    f(c, m);
    __tsan_acquire(m);
}

gboolean g_cond_wait_until(GCond *c, GMutex *m, gint64 end) {
    static auto f = real<gboolean (*)(GCond *, GMutex *, gint64)>("g_cond_wait_until");
    __tsan_release(m);
    const gboolean r = f(c, m, end);
    __tsan_acquire(m);
    return r;
}

}  // extern "C"
