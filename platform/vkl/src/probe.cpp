#include "memory.h"
#include "probe.h"

#include <array>
#include <cstring>
#include <memory>
#include <mutex>
#include <unordered_map>
#include <vector>

#include <openssl/err.h>

#include <vkl_testing.h>

#include "errors.h"
#include "handles.h"
#include "testing_state.h"

namespace vkl {
namespace {

struct ForcedRecord {
    bool set = false;
    VKL_STATUS_t record{};
};

// One lock for the registry, the fault counters and the forced records: all of
// it is touched only when a probe is made, a fault is armed or fires, or a test
// asks; never on an unarmed call.
struct Registry {
    std::mutex lock;
    // Names to their probes; the keys keep the names of probes made by Named.
    std::unordered_map<std::string, Probe*> probes;
    std::vector<std::unique_ptr<Probe>> made;
    std::unordered_map<std::string, ForcedRecord> forced;
    std::string logText;
};

Registry& TheRegistry() {
    static Registry* registry = new Registry;  // outlives every static destructor that might call VKL
    return *registry;
}

}  // namespace

std::array<std::atomic<const char*>, kLogSize> g_log{};
std::atomic<unsigned long> g_logNext{0};
std::atomic<unsigned long> g_resets{0};

Probe& Probe::Named(const char* function) {
    Registry& registry = TheRegistry();
    std::lock_guard<std::mutex> guard(registry.lock);
    auto entry = registry.probes.try_emplace(function, nullptr).first;
    if (entry->second == nullptr) {
        registry.made.push_back(std::make_unique<Probe>(entry->first.c_str()));
        entry->second = registry.made.back().get();
        entry->second->m_state.store(kQuiet, std::memory_order_relaxed);
    }
    return *entry->second;
}

bool Probe::Attend() {
    if (m_state.load(std::memory_order_relaxed) == kNew) {
        Registry& registry = TheRegistry();
        std::lock_guard<std::mutex> guard(registry.lock);
        if (m_state.load(std::memory_order_relaxed) == kNew) {
            Probe*& slot = registry.probes[m_name];
            // A test may have armed this name before its first call.
            if (slot != nullptr && slot->m_state.load(std::memory_order_relaxed) == kArmed) {
                Arm(slot->m_skip, slot->m_times, slot->m_result);
            } else {
                m_state.store(kQuiet, std::memory_order_relaxed);
            }
            slot = this;
        }
    }
    return m_state.load(std::memory_order_relaxed) == kArmed && Fire();
}

bool Probe::Fire() {
    {
        std::lock_guard<std::mutex> guard(TheRegistry().lock);
        if (m_state.load(std::memory_order_relaxed) != kArmed) return false;
        if (m_skip > 0) {
            --m_skip;
            return false;
        }
        if (m_times > 0 && --m_times == 0) m_state.store(kQuiet, std::memory_order_relaxed);
    }
    QueueError(std::string(m_name) + ": injected failure");
    return true;
}

void Probe::Arm(unsigned skip, int times, long result) {
    m_skip = skip;
    m_times = times;
    m_result = result;
    m_state.store(times != 0 ? kArmed : kQuiet, std::memory_order_relaxed);
}

// A quiet probe never reads its skip, times or result; Arm sets all three.
void Probe::Reset() {
    m_state.store(kQuiet, std::memory_order_relaxed);
    m_count.store(0, std::memory_order_relaxed);
    m_lastLength.store(-1, std::memory_order_relaxed);
}

bool ForcedStatus(const char* function, VKL_STATUS_t* status) {
    Registry& registry = TheRegistry();
    std::lock_guard<std::mutex> guard(registry.lock);
    auto it = registry.forced.find(function);
    if (it == registry.forced.end() || !it->second.set) return false;
    *status = it->second.record;
    return true;
}

}  // namespace vkl

using vkl::Probe;

extern "C" {

void VKLTest_Reset(void) {
    {
        vkl::Registry& registry = vkl::TheRegistry();
        std::lock_guard<std::mutex> guard(registry.lock);
        for (auto& entry : registry.probes) entry.second->Reset();
        registry.forced.clear();
    }
    // The log is read up to g_logNext only, so older names need no clearing.
    vkl::g_logNext.store(0, std::memory_order_relaxed);
    vkl::g_resets.fetch_add(1, std::memory_order_relaxed);
    vkl::ResetAllocations();
    ERR_clear_error();
}

void VKLTest_FailCall(const char* function, unsigned skip, int times, long result) {
    if (function == nullptr) return;
    Probe& probe = Probe::Named(function);
    std::lock_guard<std::mutex> guard(vkl::TheRegistry().lock);
    probe.Arm(skip, times, result);
}

void VKLTest_SetStatus(const char* function, int major, int minor, const char* description) {
    if (function == nullptr) return;
    vkl::ForcedRecord forced;
    forced.set = true;
    forced.record.major = major;
    forced.record.minor = minor;
    if (description != nullptr) {
        std::strncpy(forced.record.description, description, sizeof forced.record.description - 1);
    }
    vkl::Registry& registry = vkl::TheRegistry();
    std::lock_guard<std::mutex> guard(registry.lock);
    registry.forced[function] = forced;
}

long VKLTest_LiveObjects(void) { return vkl::Live::Count().load(std::memory_order_relaxed); }

unsigned long VKLTest_CallCount(const char* function) {
    return function == nullptr ? 0 : Probe::Named(function).Count();
}

long VKLTest_LastLength(const char* function) {
    return function == nullptr ? -1 : Probe::Named(function).LastLength();
}

const char* VKLTest_CallLog(void) {
    unsigned long end = vkl::g_logNext.load(std::memory_order_relaxed);
    unsigned long begin = end > vkl::kLogSize ? end - vkl::kLogSize : 0;
    std::string text;
    for (unsigned long i = begin; i < end; ++i) {
        const char* name = vkl::g_log[i % vkl::kLogSize].load(std::memory_order_relaxed);
        if (name == nullptr) continue;
        text += name;
        text += '\n';
    }
    vkl::Registry& registry = vkl::TheRegistry();
    std::lock_guard<std::mutex> guard(registry.lock);
    registry.logText = std::move(text);
    return registry.logText.c_str();
}

}  // extern "C"
