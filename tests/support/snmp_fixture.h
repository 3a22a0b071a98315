// A fixture for the procedural SNMPv3 interface: a context handle, one handle
// of each kind and a status record, all released after the test.
#ifndef ZUL_SNMP_FIXTURE_H
#define ZUL_SNMP_FIXTURE_H

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <vkl_testing.h>
#include <zulcryptimpl.h>

#include "test_support.h"

namespace zultest {

class SnmpTest : public PlatformTest {
protected:
    void SetUp() override {
        PlatformTest::SetUp();
        ctx = ZulVklCtxCreate();
        ASSERT_NE(ctx, nullptr);
        vkl = ZulVklWrapConvert(ctx);
        // The error queue is per thread and outlives earlier tests.
        zultest::TakeQueue(vkl);
        md = ZulVklMdCtxCreate(ctx);
        hmac = ZulVklHmacCtxCreate(ctx);
        cipher = ZulVklCipherCtxCreate(ctx);
        status = ZulVklStatusCreate();
        ASSERT_TRUE(md != nullptr && hmac != nullptr && cipher != nullptr && status != nullptr);
    }
    void TearDown() override {
        ZulVklMdCtxDestroy(ctx, md);
        ZulVklHmacCtxDestroy(ctx, hmac);
        ZulVklCipherCtxDestroy(ctx, cipher);
        ZulVklStatusDestroy(status);
        ZulVklCtxDestroy(ctx);
        PlatformTest::TearDown();
    }

    std::string Msg() const { return status->errorMsg; }
    std::string Description() const { return status->status.description; }
    // A fresh status record, for tests that check what one failure leaves.
    void FreshStatus() {
        ZulVklStatusDestroy(status);
        status = ZulVklStatusCreate();
        ASSERT_NE(status, nullptr);
    }

    static ZulVklConstBuffer In(const std::vector<unsigned char>& bytes) {
        return ZulVklConstBuffer{bytes.data(), static_cast<uint32_t>(bytes.size())};
    }
    static ZulVklConstBuffer In(const std::string& text) {
        return ZulVklConstBuffer{reinterpret_cast<const unsigned char*>(text.data()),
                                 static_cast<uint32_t>(text.size())};
    }

    ZulVklCtxWrap* ctx = nullptr;
    VKL_t* vkl = nullptr;
    ZulVklMdCtxWrap* md = nullptr;
    ZulVklHmacCtxWrap* hmac = nullptr;
    ZulVklCipherCtxWrap* cipher = nullptr;
    ZulVklStatusWrap* status = nullptr;
};

}  // namespace zultest

#endif  // ZUL_SNMP_FIXTURE_H
