// Per-function instrumentation of the VKL stand-in: call counts, the call log,
// the last length argument and armed faults. Each VKL entry point opens with
// VKL_ENTER or VKL_ENTER_LEN, which returns the injected result when a fault fires.
#ifndef VKL_PROBE_H
#define VKL_PROBE_H

#include <array>
#include <atomic>
#include <cstddef>
#include <type_traits>

namespace vkl {

// The call log: a ring of name pointers (probe names live for the whole process).
constexpr size_t kLogSize = 8192;
extern std::array<std::atomic<const char*>, kLogSize> g_log;
extern std::atomic<unsigned long> g_logNext;

class Probe {
public:
    // The probe of an entry point, a static of constant initialisation (no guard on the
    // hot path); it joins the registry on its first call, taking over a fault armed by name before.
    constexpr explicit Probe(const char* name) : m_name(name) {}

    // The probe registered under a name, made (already joined) when there is none yet; never released.
    static Probe& Named(const char* function);

    // Records one call; true when an armed fault fires for it (the error is already queued).
    bool Enter() { return !Pass() && Attend(); }
    bool Enter(long length) { return !Pass(length) && Attend(); }

    // Records one call; true when it goes on without a second look, false when Attend
    // must say whether a fault fires. For the hottest entry points, which keep the second
    // look out of line.
    bool Pass() {
        Record();
        return m_state.load(std::memory_order_relaxed) == kQuiet;
    }
    bool Pass(long length) {
        m_lastLength.store(length, std::memory_order_relaxed);
        return Pass();
    }
    // Joins the registry on the first call; then true when an armed fault fires.
    bool Attend();

    // For checks inside a function (a self-test step, on a probe from Named): true when
    // an armed fault fires, without counting a call or logging one.
    bool Fires() { return m_state.load(std::memory_order_relaxed) == kArmed && Fire(); }

    long Result() const { return m_result; }

    // Fault and counter control, used by the test-control interface under the registry's lock.
    void Arm(unsigned skip, int times, long result);
    void Reset();
    unsigned long Count() const { return m_count.load(std::memory_order_relaxed); }
    long LastLength() const { return m_lastLength.load(std::memory_order_relaxed); }
    const char* Name() const { return m_name; }

private:
    enum State : unsigned char { kNew, kQuiet, kArmed };

    // Plain loads and stores rather than locked read-modify-writes: a locked add
    // costs as much as a small digest update. Counts and the log are exact for
    // calls made one at a time, which is how tests read them; concurrent calls
    // may lose a count, never corrupt one.
    void Record() {
        m_count.store(m_count.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
        unsigned long index = g_logNext.load(std::memory_order_relaxed);
        g_logNext.store(index + 1, std::memory_order_relaxed);
        g_log[index % kLogSize].store(m_name, std::memory_order_relaxed);
    }
    bool Fire();

    // An entry point's name (its __func__) or a name kept by the registry.
    const char* const m_name;
    std::atomic<unsigned long> m_count{0};
    std::atomic<long> m_lastLength{-1};
    std::atomic<State> m_state{kNew};
    // Guarded by the registry's lock; read only after m_state was seen armed.
    unsigned m_skip = 0;
    int m_times = 0;
    long m_result = 0;
};

// What an injected failure returns, converted to the function's return type.
template <class T>
T Injected(const Probe& probe) {
    if constexpr (std::is_void_v<T>) {
        (void)probe;  // cppcheck-suppress missingReturn ; a void T returns nothing
    } else if constexpr (std::is_pointer_v<T>) {
        (void)probe;
        return nullptr;
    } else {
        return static_cast<T>(probe.Result());
    }
}

}  // namespace vkl

// `__func__` is the exported name, so the test-control interface addresses a
// function by exactly the name callers link against.
#define VKL_ENTER(ReturnType)                                                          \
    static ::vkl::Probe vklProbe_{__func__};                                           \
    if (vklProbe_.Enter()) return ::vkl::Injected<ReturnType>(vklProbe_)

#define VKL_ENTER_LEN(ReturnType, length)                                              \
    static ::vkl::Probe vklProbe_{__func__};                                           \
    if (vklProbe_.Enter(static_cast<long>(length))) return ::vkl::Injected<ReturnType>(vklProbe_)

#endif  // VKL_PROBE_H
