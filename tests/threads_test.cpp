// Every capability from 8 threads at once on one crypto context, every result checked.
// Run under ThreadSanitizer by the tsan preset.
#include <atomic>
#include <thread>

#include "test_support.h"

namespace zultest {

const std::vector<std::pair<const char*, std::function<bool(CZulCryptContext&, std::vector<std::string>&)>>>& CapabilityRows();

class ThreadsTest : public PlatformTest {};

TEST_F(ThreadsTest, EveryCapabilityAgreesWithItsVectors) {
    CZulCryptContext context;
    // The capturing callbacks of the fixture are not for several threads: errors go to standard error.
    CZulCryptContext::SetDebugResponseFn(nullptr), CZulCryptContext::SetErrorResponseFn(nullptr);
    std::atomic<int> wrong{0};
    std::vector<std::thread> threads(8);
    for (auto& thread : threads) {
        thread = std::thread([&] {
            std::vector<std::string> reports;
            for (int round = 0; round < 20; ++round) {
                for (const auto& row : CapabilityRows()) wrong += !row.second(context, reports);
            }
        });
    }
    for (auto& thread : threads) thread.join();
    EXPECT_TRUE(context.GetStatus() && wrong == 0);
}

}  // namespace zultest
