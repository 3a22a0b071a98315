// The procedural SNMPv3 interface driven call by call from tests/data/snmp_*.vec:
// one context handle, status record and handle of each kind per case.
//
// A call's arguments follow the C operation's, without the handles and the status
// record: names and buffers are "text" or hex ("" has no address), - for null, #N for
// N bytes at an address (refused before any read when N is large), @N for N bytes at no
// address. Flags among them: !ctx !md !hmac !cipher !status !in !out pass null instead,
// ~md ~hmac ~cipher a handle holding nothing, ~out an output record pointing nowhere,
// =key an Extend whose output overlaps its own key. Result is what the operation returned, Text the status record's
// errorMsg, Out what it wrote. Every call must leave VKL's error queue empty.
#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <memory>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <vkl_testing.h>
#include <wexcrypt_testing.h>
#include <zulcryptimpl.h>

#include "script.h"
#include "test_support.h"

namespace {

using zultest::Args;
using zultest::Outcome;
using Bytes = std::vector<unsigned char>;

struct Session {
    ZulVklCtxWrap* ctx = ZulVklCtxCreate();
    VKL_t* vkl = ZulVklWrapConvert(ctx);
    ZulVklStatusWrap* status = ZulVklStatusCreate();
    ZulVklMdCtxWrap* md = ZulVklMdCtxCreate(ctx);
    ZulVklHmacCtxWrap* hmac = ZulVklHmacCtxCreate(ctx);
    ZulVklCipherCtxWrap* cipher = ZulVklCipherCtxCreate(ctx);
    ZulVklMdCtxWrap emptyMd{nullptr};
    ZulVklHmacCtxWrap emptyHmac{nullptr};
    ZulVklCipherCtxWrap emptyCipher{nullptr};
    const size_t made = zultest::CallLog().size();  // VKL calls that made the above
    ~Session() {
        ZulVklMdCtxDestroy(ctx, md);
        ZulVklHmacCtxDestroy(ctx, hmac);
        ZulVklCipherCtxDestroy(ctx, cipher);
        ZulVklStatusDestroy(status);
        ZulVklCtxDestroy(ctx);
    }
};

// One call's arguments, flags taken out; what the buffers point to lives as long as it does.
struct Call {
    Call(Session& session, const Args& all) : s(session) {
        for (const zultest::Arg& a : all) {
            if (a.raw[0] == '!' || a.raw[0] == '~' || a.raw[0] == '=') flags.insert(a.raw);
            else args.push_back(a);
        }
    }
    template <class T>
    T* Pick(T* real, T* empty, const std::string& name) const {
        return flags.count("!" + name) ? nullptr : flags.count("~" + name) ? empty : real;
    }
    ZulVklCtxWrap* Ctx() const { return Pick<ZulVklCtxWrap>(s.ctx, nullptr, "ctx"); }
    ZulVklMdCtxWrap* Md() { return Pick(s.md, &s.emptyMd, "md"); }
    ZulVklHmacCtxWrap* Hmac() { return Pick(s.hmac, &s.emptyHmac, "hmac"); }
    ZulVklCipherCtxWrap* Cipher() { return Pick(s.cipher, &s.emptyCipher, "cipher"); }
    ZulVklStatusWrap* Status() const { return Pick<ZulVklStatusWrap>(s.status, nullptr, "status"); }
    template <class T>
    T* Out(T& out) const {
        if (flags.count("~out")) out.data = nullptr;
        return flags.count("!out") ? nullptr : &out;
    }
    std::string Str(size_t i) const { const Bytes b = args.at(i).Bytes(); return std::string(b.begin(), b.end()); }
    const char* Name(size_t i) { return args.at(i).IsNull() ? nullptr : texts.emplace_back(Str(i)).c_str(); }
    ZulVklConstBuffer* Buf(size_t i) {
        static const unsigned char never = 0;
        const std::string& raw = args.at(i).raw;
        if (raw == "-") return nullptr;
        const bool sized = raw[0] == '#' || raw[0] == '@';
        const auto claimed = static_cast<uint32_t>(sized ? std::stoul(raw.substr(1)) : 0);
        if (sized) return &buffers.emplace_back(ZulVklConstBuffer{raw[0] == '#' ? &never : nullptr, claimed});
        const Bytes& b = bytes.emplace_back(args.at(i).Bytes());
        return &buffers.emplace_back(ZulVklConstBuffer{b.data(), static_cast<uint32_t>(b.size())});
    }
    ZulVklConstBuffer** Pieces(size_t from) {
        for (size_t i = from; i < args.size(); ++i) pieces.push_back(Buf(i));
        pieces.push_back(nullptr);
        return flags.count("!in") ? nullptr : pieces.data();
    }
    int Int(size_t i) const { return static_cast<int>(args.at(i).Number()); }
    unsigned Count(size_t from) const { return static_cast<unsigned>(args.size() - from); }
    // The outcome: what the operation returned (-1 when it moved the output record's data
    // away from area), the status record's text, and what it wrote at area.
    Outcome Result(long result, const Bytes& area = {}, const unsigned char* at = nullptr, size_t length = 0) const {
        const bool moved = at != nullptr && at != area.data();
        Outcome o = zultest::Number(moved ? -1 : result);
        o.ok = result != 0;
        o.text.assign(s.status->errorMsg, strnlen(s.status->errorMsg, sizeof s.status->errorMsg));
        if (!moved) o.out.assign(area.begin(), area.begin() + static_cast<long>(std::min(length, area.size())));
        return o;
    }
    // The status record's text after the caller's prefix (msgLen), for the status calls.
    Outcome Record(long result) const {
        const ZulVklStatusWrap& r = *s.status;
        const size_t at = r.msgLen < sizeof r.errorMsg ? static_cast<size_t>(r.msgLen) : sizeof r.errorMsg;
        const Bytes tail(r.errorMsg + at, r.errorMsg + at + strnlen(r.errorMsg + at, sizeof r.errorMsg - at));
        return Result(result, tail, tail.data(), tail.size());
    }

    Session& s;
    std::set<std::string> flags;
    Args args;
    std::deque<std::string> texts;
    std::deque<Bytes> bytes;
    std::deque<ZulVklConstBuffer> buffers;
    std::vector<ZulVklConstBuffer*> pieces;
};

template <class H>
Outcome Remake(Call& c, H*& handle, H* (*create)(ZulVklCtxWrap*), int (*destroy)(ZulVklCtxWrap*, H*)) {
    destroy(c.s.ctx, handle);
    handle = create(c.Ctx());
    return c.Result(handle != nullptr);
}

// Without a context handle the handle stays, as it does when another one is released.
template <class H>
Outcome Release(Call& c, H*& handle, H* picked, int (*destroy)(ZulVklCtxWrap*, H*)) {
    const int result = destroy(c.Ctx(), picked);
    if (c.Ctx() != nullptr && picked == handle) handle = nullptr;
    return c.Result(result);
}

zultest::Calls SnmpCalls(CZulCryptContext&) {
    auto s = std::make_shared<Session>();
    // Key and Localise take an output of the digest's size unless a size is given; it starts as ee bytes.
    auto keyOut = [s](Call& c, size_t sizeAt) {
        const int size = c.args.size() > sizeAt ? static_cast<int>(c.args[sizeAt].Number())
                                                : ZulVklMdDigestLength(s->ctx, c.Name(0));
        return Bytes(static_cast<size_t>(std::max(size, 0)), 0xee);
    };
    using F = std::function<Outcome(Call&)>;
    // The two directions of a cipher step share their arguments.
    auto init = [](auto step) -> F {
        return [=](Call& c) { return c.Result(step(c.Ctx(), c.Cipher(), c.Name(0), c.Buf(1), c.Buf(2), c.Status())); };
    };
    auto finalise = [](auto step) -> F {
        return [=](Call& c) {
            Bytes area(64);
            ZulVklBuffer out{area.data(), 999};
            const int r = step(c.Ctx(), c.Cipher(), c.Name(0), c.Out(out), c.Status());
            return c.Result(r, area, out.data, out.length);
        };
    };
    const std::vector<std::pair<std::string, F>> calls = {
        {"Length", [=](Call& c) { return c.Result(ZulVklMdDigestLength(c.Ctx(), c.Name(0))); }},
        {"Key", [=](Call& c) {
             Bytes area = keyOut(c, 2);
             ZulVklBuffer key{area.data(), static_cast<uint32_t>(area.size())};
             const int r = ZulVklMdGenerateKey(c.Ctx(), c.Md(), c.Name(0), c.Buf(1), c.Out(key), c.Status());
             return c.Result(r, area, key.data, key.length);
         }},
        {"Localise", [=](Call& c) {
             Bytes area = keyOut(c, 3);
             ZulVklBuffer key{area.data(), static_cast<uint32_t>(area.size())};
             const int r = ZulVklMdLocaliseKey(c.Ctx(), c.Md(), c.Name(0), c.Buf(1), c.Buf(2), c.Out(key), c.Status());
             return c.Result(r, area, key.data, key.length);
         }},
        {"Extend", [=](Call& c) {
             if (c.flags.count("=key")) {  // the caller cuts its key where it lies, one byte on
                 ZulVklConstBuffer* in = c.Buf(3);
                 ZulVklBuffer same{const_cast<unsigned char*>(in->data) + 1, static_cast<uint32_t>(c.Int(4))};
                 const int r = ZulVklMdExtendKey(c.Ctx(), c.Md(), c.Name(0), c.Int(1), c.Buf(2), in, &same, c.Status());
                 const Bytes now(same.data, same.data + same.length);
                 return c.Result(r, now, nullptr, now.size());
             }
             Bytes area(static_cast<size_t>(c.Int(4)), 0xee);
             ZulVklBuffer key{area.data(), static_cast<uint32_t>(area.size())};
             const int r = ZulVklMdExtendKey(c.Ctx(), c.Md(), c.Name(0), c.Int(1), c.Buf(2), c.Buf(3), c.Out(key),
                                             c.Status());
             return c.Result(r, area, key.data, key.length);
         }},
        {"Chain", [=](Call& c) {
             ZulVklBuffer out{nullptr, 0};
             const int r =
                 ZulVklMdKeyChangeDigest(c.Ctx(), c.Md(), c.Name(0), c.Buf(1), c.Buf(2), c.Out(out), c.Status());
             const Bytes block = out.data != nullptr ? Bytes(out.data, out.data + out.length) : Bytes{};
             std::free(out.data);
             return c.Result(r, block, block.data(), block.size());
         }},
        {"KeySize", [=](Call& c) { return c.Result(ZulVklCipherRequiredKeySize(c.Ctx(), c.Name(0), c.Status())); }},
        {"IvSize", [=](Call& c) { return c.Result(ZulVklCipherRequiredIvSize(c.Ctx(), c.Name(0), c.Status())); }},
        {"Padding", [=](Call& c) {
             return c.Result(ZulVklCipherSetPadding(c.Ctx(), c.Cipher(), c.Int(0), c.Status()));
         }},
        {"EncInit", init(ZulVklCipherEncryptInit)},
        {"DecInit", init(ZulVklCipherDecryptInit)},
        {"EncUpdate", [=](Call& c) {
             Bytes area(1024);
             ZulVklBuffer out{area.data(), 12345};
             ZulVklConstBuffer** in = c.Pieces(1);
             const int r =
                 ZulVklCipherEncryptUpdate(c.Ctx(), c.Cipher(), c.Name(0), in, c.Count(1), c.Out(out), c.Status());
             return c.Result(r, area, out.data, out.length);
         }},
        {"DecUpdate", [=](Call& c) {
             Bytes area(1024);
             ZulVklBuffer out{area.data(), 12345};
             const int r = ZulVklCipherDecryptUpdate(c.Ctx(), c.Cipher(), c.Name(0), c.Buf(1), c.Out(out), c.Status());
             return c.Result(r, area, out.data, out.length);
         }},
        {"EncFinal", finalise(ZulVklCipherEncryptFinalise)},
        {"DecFinal", finalise(ZulVklCipherDecryptFinalise)},
        {"Hmac", [=](Call& c) {
             Bytes area(64);
             ZulVklBuffer out{area.data(), 7};
             ZulVklConstBuffer** in = c.Pieces(2);
             const int r = ZulVklHmacGenerateDigest(c.Ctx(), c.Hmac(), c.Name(0), in, c.Count(2), c.Buf(1), c.Out(out),
                                                    c.Status());
             return c.Result(r, area, out.data, out.length);
         }},
        // Handles: New KIND makes the case's handle anew, Free KIND releases it (ctx and status: a null one).
        {"New", [=](Call& c) {
             const std::string kind = c.args.at(0).raw;
             return kind == "md"     ? Remake(c, s->md, ZulVklMdCtxCreate, ZulVklMdCtxDestroy)
                    : kind == "hmac" ? Remake(c, s->hmac, ZulVklHmacCtxCreate, ZulVklHmacCtxDestroy)
                                     : Remake(c, s->cipher, ZulVklCipherCtxCreate, ZulVklCipherCtxDestroy);
         }},
        {"Free", [=](Call& c) {
             const std::string kind = c.args.at(0).raw;
             if (kind == "ctx") return c.Result(ZulVklCtxDestroy(nullptr));
             if (kind == "status") return c.Result(ZulVklStatusDestroy(nullptr));
             return kind == "md"     ? Release(c, s->md, c.Md(), ZulVklMdCtxDestroy)
                    : kind == "hmac" ? Release(c, s->hmac, c.Hmac(), ZulVklHmacCtxDestroy)
                                     : Release(c, s->cipher, c.Cipher(), ZulVklCipherCtxDestroy);
         }},
        {"NoContext", [=](Call& c) {
             WEXTest_SetGetContextResult(0);
             ZulVklCtxWrap* none = ZulVklCtxCreate();
             WEXTest_SetGetContextResult(-3);
             return c.Result(none != nullptr);
         }},
        // The status record: Fresh replaces it, Set and MsgLen write it, SetVkl hands it two VKL
        // failures (armed by the script on VKL_RAND_bytes) and gives how many stay queued.
        {"Fresh", [=](Call& c) {
             ZulVklStatusDestroy(s->status);
             s->status = ZulVklStatusCreate();
             const ZulVklStatusWrap& r = *s->status;
             const Bytes zero(sizeof r.errorMsg, 0);
             return c.Result(r.msgLen == 0 && std::memcmp(&r.status, zero.data(), sizeof r.status) == 0 &&
                             std::memcmp(r.errorMsg, zero.data(), sizeof r.errorMsg) == 0);
         }},
        {"Set", [=](Call& c) { s->status->Set(c.Name(0)); return c.Record(1); }},
        {"MsgLen", [=](Call& c) { s->status->msgLen = static_cast<uint64_t>(c.Int(0)); return c.Result(1); }},
        {"SetVkl", [=](Call& c) {
             unsigned char byte = 0;
             VKL_RAND_bytes(s->vkl, &byte, 1);
             VKL_RAND_bytes(s->vkl, &byte, 1);
             s->status->Set(*s->vkl, c.Int(0));
             return c.Record(static_cast<long>(zultest::TakeQueue(s->vkl).size()));
         }},
        {"VklStatus", [=](Call& c) {
             VKLTest_SetStatus("VKL_GetStatus", c.Int(0), c.Int(1), c.Name(2));
             return c.Result(1);
         }},
        {"Print", [=](Call& c) {
             std::ostringstream printed;
             printed << c.Status();
             return zultest::Text(printed.str().c_str());
         }},
        {"Log", [=](Call& c) { ZulVklLogErrMsg(c.Status()); return c.Result(1); }},
        // The VKL functions called since the case's handles were made, blank-separated; those of
        // the error queue, which the driver empties after each call, left out.
        {"VklLog", [=](Call&) {
             std::string log;
             const std::vector<std::string> names = zultest::CallLog();
             for (size_t i = s->made; i < names.size(); ++i) {
                 if (names[i].rfind("VKL_ERR_", 0) != 0) log += (log.empty() ? "" : " ") + names[i];
             }
             return zultest::Text(log.c_str());
         }},
    };
    zultest::Calls out;
    for (const auto& [name, call] : calls) {
        // No call leaves an entry on VKL's queue, where a later failure would be blamed on it.
        out[name] = [s, call = call](const Args& args) {
            Call c(*s, args);
            const Outcome outcome = call(c);
            EXPECT_EQ(zultest::TakeQueue(s->vkl), std::vector<std::string>{}) << "left on VKL's error queue";
            return outcome;
        };
    }
    return out;
}

class SnmpTest : public zultest::PlatformTest {};

TEST_F(SnmpTest, Handles) { zultest::RunScripts("snmp_handles.vec", SnmpCalls); }
TEST_F(SnmpTest, Keys) { zultest::RunScripts("snmp_keys.vec", SnmpCalls); }
TEST_F(SnmpTest, Ciphers) { zultest::RunScripts("snmp_cipher.vec", SnmpCalls); }
TEST_F(SnmpTest, Hmac) { zultest::RunScripts("snmp_hmac.vec", SnmpCalls); }

}  // namespace
