// A fixture for the procedural SNMPv3 interface: a context handle, one handle
// of each kind and a status record, all released after the test.
#ifndef ZUL_SNMP_FIXTURE_H
#define ZUL_SNMP_FIXTURE_H

#include <algorithm>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <vkl_testing.h>
#include <zulcryptimpl.h>

#include "test_support.h"

namespace zultest {

// Data cut into pieces of the given sizes (the last one takes the rest), as
// the gathering calls take them: `list` points into `pieces`.
struct Gathered {
    Gathered(const std::vector<unsigned char>& data, const std::vector<size_t>& sizes) {
        size_t at = 0;
        for (size_t i = 0; i < sizes.size(); ++i) {
            const size_t length = i + 1 == sizes.size() ? data.size() - at : std::min(sizes[i], data.size() - at);
            pieces.push_back({data.data() + at, static_cast<uint32_t>(length)});
            at += length;
        }
        for (ZulVklConstBuffer& piece : pieces) list.push_back(&piece);
    }
    Gathered(const Gathered&) = delete;
    Gathered& operator=(const Gathered&) = delete;

    std::vector<ZulVklConstBuffer> pieces;
    std::vector<ZulVklConstBuffer*> list;
};

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
