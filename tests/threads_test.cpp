// Every capability from 8 threads at once on one crypto context, every result checked.
// Run under ThreadSanitizer by the tsan preset.
#include <atomic>
#include <functional>
#include <thread>

#include "test_support.h"

namespace zultest {

const std::vector<std::pair<const char*, std::function<bool(CZulCryptContext&, std::vector<std::string>&)>>>& CapabilityRows();

namespace {
std::atomic<int> errors{0};
void CountError(const char*, unsigned int, const char*, bool) { ++errors; }
}  // namespace

class ThreadsTest : public PlatformTest {};

TEST_F(ThreadsTest, EveryCapabilityAgreesWithItsVectors) {
    CZulCryptContext context;
    ASSERT_TRUE(context.GetStatus());
    // The capturing callbacks of the fixture are not for several threads.
    CZulCryptContext::SetDebugResponseFn(nullptr);
    CZulCryptContext::SetErrorResponseFn(CountError);
    std::atomic<int> wrong{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 8; ++t) {
        threads.emplace_back([&] {
            std::vector<std::string> reports;
            for (int round = 0; round < 20; ++round) {
                for (const auto& row : CapabilityRows()) wrong += row.second(context, reports) ? 0 : 1;
            }
        });
    }
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(wrong.load(), 0);
    EXPECT_EQ(errors.load(), 0);
}

}  // namespace zultest
