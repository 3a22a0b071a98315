// The procedural SNMPv3 interface: the outside vectors of tests/vectors/snmp_*.vec through one
// set of handles reused from case to case, whole and in pieces; then what a caller sees of a
// refused argument, a refused input and a failed VKL call, and of its handles and status record.
#include <cstdlib>
#include <deque>
#include <functional>
#include <sstream>

#include <gtest/gtest.h>

#include <vkl_testing.h>
#include <wexcrypt_testing.h>
#include <zulcryptimpl.h>

#include "test_support.h"
#include "vector_file.h"

namespace {

using namespace zultest;
using B = std::vector<unsigned char>;
using S = std::string;

// Empty bytes go in with no address, as an empty input may.
ZulVklConstBuffer In(const B& b) { return {b.empty() ? nullptr : b.data(), uint32_t(b.size())}; }

struct SnmpTest : PlatformTest {
    void SetUp() override {
        PlatformTest::SetUp();
        ctx = ZulVklCtxCreate();
        st = ZulVklStatusCreate();
        md = ZulVklMdCtxCreate(ctx);
        hmac = ZulVklHmacCtxCreate(ctx);
        cipher = ZulVklCipherCtxCreate(ctx);
    }
    void TearDown() override {
        ZulVklMdCtxDestroy(ctx, md);
        ZulVklHmacCtxDestroy(ctx, hmac);
        ZulVklCipherCtxDestroy(ctx, cipher);
        ZulVklStatusDestroy(st);
        ZulVklCtxDestroy(ctx);
        PlatformTest::TearDown();
    }
    // What a call that must succeed wrote into an area of `size` bytes.
    template <class F>
    B Out(size_t size, F call) {
        B area(size, 0xee);
        ZulVklBuffer out{area.data(), uint32_t(size)};
        EXPECT_EQ(call(&out), 1) << st->errorMsg;
        area.resize(out.length);
        return area;
    }
    ZulVklCtxWrap* ctx;
    ZulVklStatusWrap* st;
    ZulVklMdCtxWrap* md;
    ZulVklHmacCtxWrap* hmac;
    ZulVklCipherCtxWrap* cipher;
};

TEST_F(SnmpTest, KeyVectors) {
    const char* method[] = {"", "Blumenthal", "Reeder"};
    for (const VectorCase& v : ReadVectors("snmp_keys.vec")) {
        SCOPED_TRACE(v.Where());
        const S name = v.Text("Digest");
        const char* d = name.c_str();
        const B ku = v.Has("Ku") ? v.Bytes("Ku") : B(), kul = v.Has("Kul") ? v.Bytes("Kul") : B(),
                engine = v.Has("Engine") ? v.Bytes("Engine") : B();
        ZulVklConstBuffer e = In(engine), k = In(ku), l = In(kul);
        if (v.Has("Password")) {
            const B pw = v.Bytes("Password");
            ZulVklConstBuffer p = In(pw);
            EXPECT_EQ(Hex(Out(ku.size(), [&](auto o) { return ZulVklMdGenerateKey(ctx, md, d, &p, o, st); })), Hex(ku));
            EXPECT_EQ(ZulVklMdDigestLength(ctx, d), int(ku.size()));
        }
        if (v.Has("Password") && v.Has("Kul")) {
            EXPECT_EQ(Hex(Out(kul.size(), [&](auto o) { return ZulVklMdLocaliseKey(ctx, md, d, &e, &k, o, st); })),
                      Hex(kul));
        }
        for (int m : {1, 2}) {
            if (!v.Has(method[m])) continue;
            const B x = v.Bytes(method[m]);
            EXPECT_EQ(Hex(Out(x.size(), [&](auto o) { return ZulVklMdExtendKey(ctx, md, d, m, &e, &l, o, st); })), Hex(x));
        }
        if (!v.Has("Chained")) continue;
        // The two parts are one message, however it is cut.
        const B first = v.Bytes("First"), second = v.Bytes("Second");
        B both = first;
        both.insert(both.end(), second.begin(), second.end());
        const size_t cut[][2] = {{first.size(), both.size() - first.size()}, {0, both.size()}, {both.size(), 0}};
        for (auto [a, b] : cut) {
            const B one(both.begin(), both.begin() + long(a)), two(both.begin() + long(a), both.end());
            ZulVklConstBuffer x = In(one), y = In(two);
            ZulVklBuffer out{nullptr, 0};
            EXPECT_EQ(ZulVklMdKeyChangeDigest(ctx, md, d, &x, &y, &out, st), 1);
            EXPECT_EQ(Hex(out.data, out.length), Hex(v.Bytes("Chained")));
            std::free(out.data);
        }
    }
    // A key cut where it lies, one byte on.
    B key = ReadVectors("snmp_keys.vec")[1].Bytes("Kul"), engine(1);
    ZulVklConstBuffer e = In(engine), k = In(key);
    ZulVklBuffer same{key.data() + 1, 16};
    EXPECT_EQ(ZulVklMdExtendKey(ctx, md, "SHA1", 1, &e, &k, &same, st), 1);
    EXPECT_EQ(Hex(key.data() + 1, 16), Hex(ReadVectors("snmp_keys.vec")[1].Bytes("Kul").data(), 16));
}

// The message whole, and cut in pieces of 1 and 5 bytes after an empty one.
std::vector<std::vector<ZulVklConstBuffer>> Pieces(const B& data) {
    static const unsigned char none = 0;
    std::vector<ZulVklConstBuffer> cut{{&none, 0}};
    InPieces(data, {1, 5}, [&](const unsigned char* p, size_t n) { cut.push_back({p, uint32_t(n)}); });
    return {data.empty() ? cut : std::vector<ZulVklConstBuffer>{In(data)}, cut};
}

TEST_F(SnmpTest, HmacVectors) {
    for (const VectorCase& v : ReadVectors("snmp_hmac.vec")) {
        SCOPED_TRACE(v.Where());
        const B key = v.Bytes("Key"), data = v.Bytes("Data");
        ZulVklConstBuffer k = In(key);
        for (auto pieces : Pieces(data)) {
            std::vector<ZulVklConstBuffer*> p;
            for (auto& piece : pieces) p.push_back(&piece);
            // No pieces at all are the empty message.
            const unsigned n = data.empty() ? 0 : unsigned(p.size());
            EXPECT_EQ(Hex(Out(64, [&](auto o) {
                          return ZulVklHmacGenerateDigest(ctx, hmac, v.Text("Digest").c_str(), p.data(), n, &k, o, st);
                      })),
                      Hex(v.Bytes("Mac")));
        }
    }
}

TEST_F(SnmpTest, CipherVectors) {
    for (const VectorCase& v : ReadVectors("snmp_cipher.vec")) {
        SCOPED_TRACE(v.Where());
        const S name = v.Text("Name");
        const char* c = name.c_str();
        const B key = v.Bytes("Key"), iv = v.Has("IV") ? v.Bytes("IV") : B(), crypt = v.Bytes("Crypt");
        B plain = v.Bytes("Plain");
        ZulVklConstBuffer k = In(key), i = In(iv), x = In(crypt);
        EXPECT_EQ(ZulVklCipherRequiredKeySize(ctx, c, st), int(key.size()));
        EXPECT_EQ(ZulVklCipherRequiredIvSize(ctx, c, st), int(iv.size()));
        for (auto pieces : Pieces(plain)) {
            std::vector<ZulVklConstBuffer*> p;
            for (auto& piece : pieces) p.push_back(&piece);
            EXPECT_GT(ZulVklCipherEncryptInit(ctx, cipher, c, &k, &i, st), 0);
            EXPECT_EQ(ZulVklCipherSetPadding(ctx, cipher, v.Has("Padding") ? 5 : 0, st), 1);
            B all = Out(128, [&](auto o) { return ZulVklCipherEncryptUpdate(ctx, cipher, c, p.data(), unsigned(p.size()), o, st); });
            const B last = Out(16, [&](auto o) { return ZulVklCipherEncryptFinalise(ctx, cipher, c, o, st); });
            all.insert(all.end(), last.begin(), last.end());
            EXPECT_EQ(Hex(all), Hex(crypt));
        }
        // Decryption keeps padding off: the pad comes back.
        plain.resize(crypt.size(), (unsigned char)(crypt.size() - plain.size()));
        EXPECT_GT(ZulVklCipherDecryptInit(ctx, cipher, c, &k, &i, st), 0);
        EXPECT_EQ(Hex(Out(128, [&](auto o) { return ZulVklCipherDecryptUpdate(ctx, cipher, c, &x, o, st); })), Hex(plain));
        EXPECT_EQ(Out(16, [&](auto o) { return ZulVklCipherDecryptFinalise(ctx, cipher, c, o, st); }), B());
    }
}

// One call's arguments, good unless a row changes them. The argument numbered `bad` comes out
// broken: null, or with `nowhere` a handle holding nothing, a record with a length but no bytes, an
// output area that is not there. Inputs are numbered by the operation.
struct A {
    A(SnmpTest& s, int b = -1) : t(s), bad(b) {}
    SnmpTest& t;
    int bad, n = 0, method = 1, blank = -1;
    bool nowhere = false, gap = false, lost = false;
    const char* name = nullptr;
    long size = -1;
    uint32_t len[2] = {};
    std::deque<B> keep;
    std::deque<ZulVklConstBuffer> ins;
    std::vector<ZulVklConstBuffer*> ps;
    B area;
    ZulVklBuffer out{};
    bool Bad() { return n++ == bad || bad < -1; }
    template <class H>
    H* Pick(H* h, H* none) { return Bad() ? nowhere ? none : nullptr : h; }
    ZulVklCtxWrap* Ctx() { return Bad() ? nullptr : t.ctx; }
    ZulVklMdCtxWrap* Md() { static ZulVklMdCtxWrap none{nullptr}; return Pick(t.md, &none); }
    ZulVklHmacCtxWrap* Mac() { static ZulVklHmacCtxWrap none{nullptr}; return Pick(t.hmac, &none); }
    ZulVklCipherCtxWrap* Ci() { static ZulVklCipherCtxWrap none{nullptr}; return Pick(t.cipher, &none); }
    ZulVklStatusWrap* St() { return (lost = Bad()) ? nullptr : t.st; }
    const char* Nm(const char* d) { return Bad() ? nullptr : name ? name : d; }
    ZulVklConstBuffer* Rec(const B& b, bool bad, uint32_t length = 0) {
        static const unsigned char never = 0;
        ins.push_back(bad ? ZulVklConstBuffer{nullptr, 1} : length ? ZulVklConstBuffer{&never, length} : In(keep.emplace_back(b)));
        return &ins.back();
    }
    ZulVklConstBuffer* I(int i, const B& b) {
        const bool bad = Bad();
        return bad && !nowhere ? nullptr : Rec(i == blank ? B() : b, bad, len[i]);
    }
    // Pieces of a message, with a null one in the middle when `gap`.
    ZulVklConstBuffer** P(std::vector<B> bs) {
        const bool bad = Bad();
        for (const B& b : bs) ps.push_back(Rec(b, bad));
        if (gap) ps.insert(ps.begin() + 1, nullptr);
        return bad && !nowhere ? nullptr : ps.data();
    }
    // The output: an area of ee bytes, or (mine false) a record the operation fills.
    ZulVklBuffer* O(long def, bool mine = true) {
        const bool bad = Bad();
        area.assign(size_t(size < 0 ? def : size), 0xee);
        out = {bad || !mine ? nullptr : area.data(), uint32_t(area.size())};
        return bad && (!nowhere || !mine) ? nullptr : &out;
    }
    // What the call wrote.
    B Got() {
        const B got(out.data, out.data + (out.data ? out.length : 0));
        if (out.data != area.data()) std::free(out.data);
        return got;
    }
};

const B kKey(20, 1), kEngine(12, 2), kDes(8, 3);
const B kPlain(24, 4);

// Every operation on good arguments; a cipher call follows those before it from the last `first`.
struct Op {
    const char* name;
    int (*call)(A&);
    bool first = true;
};
const Op kOps[] = {
    {"ZulVklDigestGenerateKey",
     [](A& a) { return ZulVklMdGenerateKey(a.Ctx(), a.Md(), a.Nm("SHA1"), a.I(0, B{'p', 'w'}), a.O(20), a.St()); }},
    {"ZulVklDigestLocaliseKey",
     [](A& a) { return ZulVklMdLocaliseKey(a.Ctx(), a.Md(), a.Nm("SHA1"), a.I(0, kEngine), a.I(1, kKey), a.O(20), a.St()); }},
    {"ZulVklMdKeyChangeDigest",
     [](A& a) { return ZulVklMdKeyChangeDigest(a.Ctx(), a.Md(), a.Nm("SHA1"), a.I(0, kKey), a.I(1, kKey), a.O(0, false), a.St()); }},
    {"ZulVklMdExtendKey",
     [](A& a) { return ZulVklMdExtendKey(a.Ctx(), a.Md(), a.Nm("SHA1"), a.method, a.I(0, kEngine), a.I(1, kKey), a.O(24), a.St()); }},
    {"ZulVklCipherRequiredKeySize", [](A& a) { return ZulVklCipherRequiredKeySize(a.Ctx(), a.Nm("DES-CBC"), a.St()); }},
    {"ZulVklCipherRequiredIvSize", [](A& a) { return ZulVklCipherRequiredIvSize(a.Ctx(), a.Nm("DES-CBC"), a.St()); }},
    {"ZulVklCipherEncryptInit",
     [](A& a) { return ZulVklCipherEncryptInit(a.Ctx(), a.Ci(), a.Nm("DES-CBC"), a.I(0, kDes), a.I(1, kDes), a.St()); }},
    {"ZulVklCipherSetPadding", [](A& a) { return ZulVklCipherSetPadding(a.Ctx(), a.Ci(), 5, a.St()); }, false},
    {"ZulVklCipherSetPadding", [](A& a) { return ZulVklCipherSetPadding(a.Ctx(), a.Ci(), 0, a.St()); }, false},
    {"ZulVklCipherEncryptUpdate",
     [](A& a) { return ZulVklCipherEncryptUpdate(a.Ctx(), a.Ci(), a.Nm("DES-CBC"), a.P({B(5, 4), B(19, 4)}), 2, a.O(64), a.St()); },
     false},
    {"ZulVklCipherEncryptFinalise",
     [](A& a) { return ZulVklCipherEncryptFinalise(a.Ctx(), a.Ci(), a.Nm("DES-CBC"), a.O(8), a.St()); }, false},
    {"ZulVklCipherDecryptInit",
     [](A& a) { return ZulVklCipherDecryptInit(a.Ctx(), a.Ci(), a.Nm("DES-CBC"), a.I(0, kDes), a.I(1, kDes), a.St()); }},
    {"ZulVklCipherDecryptUpdate",
     [](A& a) { return ZulVklCipherDecryptUpdate(a.Ctx(), a.Ci(), a.Nm("DES-CBC"), a.I(0, kPlain), a.O(64), a.St()); }, false},
    {"ZulVklCipherDecryptFinalise",
     [](A& a) { return ZulVklCipherDecryptFinalise(a.Ctx(), a.Ci(), a.Nm("DES-CBC"), a.O(8), a.St()); }, false},
    {"ZulVklHmacGenerateDigest",
     [](A& a) { return ZulVklHmacGenerateDigest(a.Ctx(), a.Mac(), a.Nm("SHA1"), a.P({kKey, kKey}), 2, a.I(0, kKey), a.O(20), a.St()); }},
    {"ZulVklMdExtendKey", [](A& a) { a.method = 2; return kOps[3].call(a); }},
};
enum { Key, Localise, Chain, Extend, KeySize, IvSize, EncInit, Pad5, Pad0, EncUpdate, EncFinal, DecInit, DecUpdate, DecFinal, Hmac, Reeder };

// Runs an operation after the calls its chain starts with; the last one's result.
int Go(int op, A& a) {
    int from = op, result = 0;
    while (!kOps[from].first) --from;
    for (; from <= op; ++from) result = kOps[from].call(a);
    return result;
}

// Each argument of each operation null, and a record pointing nowhere, is refused with the
// operation's text, before any VKL call; with no status record the text is reported.
TEST_F(SnmpTest, NullArguments) {
    for (const Op& op : kOps) {
        A all{*this, -2};
        op.call(all);
        diagnostics->Clear();
        for (int bad = 0; bad < all.n * 2; ++bad) {
            SCOPED_TRACE(op.name + S(" argument ") + std::to_string(bad));
            A a{*this, bad / 2};
            a.nowhere = bad % 2;
            VKLTest_Reset();
            st->errorMsg[0] = 0;
            EXPECT_EQ(op.call(a), 0);
            const S text = S("Invalid NULL arg to ") + op.name;
            EXPECT_EQ(diagnostics->TakeErrors("zulcryptimpl"), std::vector<S>(a.lost, text));
            EXPECT_EQ(st->errorMsg, a.lost ? "" : text);
            EXPECT_EQ(CallLog(), std::vector<S>());
        }
    }
}

// The operation refused or failed with its text (VKL's own when none is given), VKL's status
// record taken when told, and the caller's output as it was (unless ok, the failure being only
// told); the next call does what it did before.
void Check(SnmpTest& t, int op, const std::function<void(A&)>& twist, const S& text, bool told = false, bool ok = false) {
    SCOPED_TRACE(text);
    A good(t), a(t), again(t);
    const int result = Go(op, good);
    const B want = good.Got();
    *t.st = ZulVklStatusWrap();
    twist(a);
    EXPECT_EQ(Go(op, a), ok ? result : 0);
    EXPECT_EQ(t.st->errorMsg, text);
    EXPECT_EQ(t.st->status.description, S(told ? "lost" : ""));
    EXPECT_TRUE(a.area.empty() || a.out.data == a.area.data());
    if (ok) {
        EXPECT_EQ(Hex(a.Got()), Hex(want));
    } else {
        EXPECT_EQ(Hex(a.area), Hex(B(a.area.size(), 0xee)));
        // An update's length then means nothing.
        EXPECT_EQ(Hex(op == EncUpdate ? a.area : a.Got()), Hex(a.area));
    }
    EXPECT_EQ(Go(op, again), result);
    EXPECT_EQ(Hex(again.Got()), Hex(want));
}

struct Fault {
    int op;
    const char* function;  // after VKL_
    unsigned skip;
    const char* text;      // the operation's own, for VKL's result 0; none: VKL's text, for -2
};
const Fault kFaults[] = {
    {Key, "EVP_DigestInit", 0, nullptr},
    {Key, "EVP_DigestInit", 0, "key digest initialisation failed "},
    {Key, "EVP_DigestUpdate", 99, "key digest update failed "},
    {Key, "EVP_DigestFinal", 0, "key digest finalisation failed "},
    {Localise, "EVP_DigestInit", 0, "localised key digest initialisation failed "},
    {Localise, "EVP_DigestUpdate", 0, "localised key digest update failed "},
    {Localise, "EVP_DigestFinal", 0, "localised key digest finalisation failed "},
    {Chain, "EVP_DigestInit", 0, "key change digest initialisation failed "},
    {Chain, "EVP_DigestUpdate", 1, "key change digest update failed "},
    {Chain, "EVP_DigestFinal", 0, "key change digest update failed "},
    {Chain, "EVP_MD_size", 0, nullptr},
    {Extend, "EVP_DigestInit", 0, "key extension digest initialisation failed "},
    {Extend, "EVP_DigestUpdate", 0, "key extension digest update failed "},
    {Extend, "EVP_DigestFinal", 0, "key extension digest finalisation failed "},
    {EncInit, "EVP_EncryptInit", 0, nullptr},
    {EncInit, "EVP_EncryptInit", 0, "Encryption initialisation failed "},
    {Pad5, "EVP_CIPHER_CTX_set_padding", 0, "Failed to enable padding\n"},
    {Pad0, "EVP_CIPHER_CTX_set_padding", 1, "Failed to disable padding\n"},
    {EncUpdate, "EVP_EncryptUpdate", 1, "Encryption update failed "},
    {EncFinal, "EVP_EncryptFinal", 0, "Encryption finalisation failed "},
    {EncFinal, "EVP_CIPHER_CTX_cleanup", 0, "Failed to cleanup the cipher context after applying encryption algorithmDES-CBC\n"},
    {DecInit, "EVP_DecryptInit", 0, "Decryption initialisation failed "},
    {DecInit, "EVP_CIPHER_CTX_set_padding", 0, "Failed to disable padding with algorithm: DES-CBC\n"},
    {DecUpdate, "EVP_DecryptUpdate", 0, "Decryption update failed "},
    {DecFinal, "EVP_DecryptFinal", 0, "Decryption finalisation failed "},
    {DecFinal, "EVP_CIPHER_CTX_cleanup", 0, "Failed to cleanup the cipher context after applying decryption algorithmDES-CBC\n"},
    {Hmac, "HMAC_Init", 0, nullptr},
    {Hmac, "HMAC_Init", 0, "HMAC initialisation failed "},
    {Hmac, "HMAC_Update", 1, "HMAC update failed "},
    {Hmac, "HMAC_Final", 0, "HMAC finalisation failed "},
    {Hmac, "HMAC_Init", 1, "HMAC re-arm failed "},
    {Hmac, "EVP_MD_size", 0, nullptr},
};

// Each VKL failure once per operation. A size VKL cannot give is refused with VKL's reason;
// a failed clean-up is only told.
TEST_F(SnmpTest, VklFailures) {
    VKLTest_SetStatus("VKL_GetStatus", 2, 6, "lost");
    for (const Fault& f : kFaults) {
        const S function = "VKL_" + S(f.function);
        const bool told = f.text && function.find("cleanup") == S::npos;
        Check(*this, f.op, [&](A&) { VKLTest_FailCall(function.c_str(), f.skip, 1, f.text ? 0 : -2); },
              f.text ? f.text : function + ": injected failure", told, f.text && !told);
    }
}

// Inputs refused before the work, each with its text; a Reeder step fails as password to key.
TEST_F(SnmpTest, Refusals) {
    const std::pair<int, void (*)(A&)> rows[] = {
        {Key, [](A& a) { a.name = "MD77", a.blank = 0; }},
        {Key, [](A& a) { a.name = "MD77"; }},
        {Key, [](A& a) { a.size = 21; }},
        {Localise, [](A& a) { a.name = "MD77"; }},
        {Localise, [](A& a) { a.size = 19; }},
        {Localise, [](A& a) { a.blank = 0, a.len[1] = 1u << 31; }},
        {Chain, [](A& a) { a.name = "MD77"; }},
        {Extend, [](A& a) { a.method = 3; }},
        {Extend, [](A& a) { a.size = 65; }},
        {Extend, [](A& a) { a.blank = 1; }},
        {Extend, [](A& a) { a.name = "MD77"; }},
        {Reeder, [](A&) { VKLTest_FailCall("VKL_EVP_get_digestbyname", 1, 1, 0); }},
        {KeySize, [](A& a) { a.name = "DES-XYZ"; }},
        {IvSize, [](A& a) { a.name = "DES-XYZ"; }},
        {EncInit, [](A& a) { a.name = "DES-XYZ"; }},
        {EncInit, [](A& a) { a.len[1] = 7; }},
        {DecInit, [](A& a) { a.len[0] = 7; }},
        {EncUpdate, [](A& a) { a.gap = true; }},
        {Hmac, [](A& a) { a.gap = true; }},
        {Hmac, [](A& a) { a.name = "MD77"; }},
        {Hmac, [](A& a) { a.len[0] = 1u << 31; }},
    };
    const char* texts[] = {
        "Currently will not generate a digest with an empty password",
        "Failed to get the MD77 message digest for key generation\n",
        "Incorrect buffer size for SHA1 digest key generation",
        "Failed to get the MD77 message digest for local key generation",
        "Incorrect buffer size for SHA1 digest local key generation",
        "Key and engine ID too long for SHA1 digest local key generation: 4294967296 bytes",
        "Failed to get the MD77 message digest for key change digest",
        "Unknown key extension method for SHA1 digest key extension: 3",
        "Incorrect extended key length for SHA1 digest key extension: 65, 1 to 64 allowed",
        "Currently will not extend an empty localised key",
        "Failed to get the MD77 message digest for key extension",
        "Failed to get the SHA1 message digest for key generation\n",
        "Failed to get cipher for algorithm: DES-XYZ",
        "Failed to get cipher for algorithm: DES-XYZ",
        "Failed to get cipher by name for algorithm: DES-XYZ\n",
        "Incorrect iv length for DES-CBC encryption/decryption. Required 8 but got 7\n",
        "Incorrect key length for DES-CBC encryption/decryption. Required 8 but got 7\n",
        "Invalid buffer passed in for SNMPv3 msg encryption",
        "Invalid buffer passed in for SNMPv3 msg authentication",
        "Failed to get the MD77 message digest",
        "Key too long for the SHA1 message digest",
    };
    for (size_t i = 0; i < std::size(rows); ++i) Check(*this, rows[i].first, rows[i].second, texts[i]);
    // A name too long for the message area is cut on a character boundary and marked, so the
    // text keeps its end; 511 bytes are not cut.
    auto rep = [](const S& s, int n) { S r; while (n-- > 0) r += s; return r; };
    const S e = "\xc3\xa9";
    const std::pair<S, S> cuts[] = {{rep("n", 458), rep("n", 458)}, {rep("n", 459), rep("n", 455) + "..."},
                                    {rep(e, 300), rep(e, 227) + "..."}, {rep("\x80", 600), "..."}};
    for (auto& [name, kept] : cuts) {
        Check(*this, Key, [&](A& a) { a.name = name.c_str(); }, "Failed to get the " + kept + " message digest for key generation\n");
    }
}

// A status record takes texts that fit with their terminator in the room after msgLen; others go
// to the error report. After a failed VKL call 0 takes VKL's record, -2 its oldest queued text,
// any other result nothing; VKL's queue is left empty.
TEST_F(SnmpTest, StatusRecord) {
    ZulVklStatusWrap& r = *st;
    std::ostringstream printed;
    printed << st << "|" << (ZulVklStatusWrap*)nullptr;
    r.Set(S(511, 'x').c_str());
    r.Set("short");
    r.msgLen = 500;
    r.Set("12345678901");
    r.Set("123456789012");
    EXPECT_EQ(printed.str() + r.errorMsg + "|" + (r.errorMsg + 500), "|NULL VKL status wrapper" "short|12345678901");
    VKL_t* vkl = ZulVklWrapConvert(ctx);
    VKLTest_SetStatus("VKL_GetStatus", 3, 12, "gone");
    VKLTest_FailCall("VKL_RAND_bytes", 0, -1, 0);
    auto fail = [&](int result) {
        unsigned char b[2];
        VKL_RAND_bytes(vkl, b, 1);
        VKL_RAND_bytes(vkl, b, 1);
        r.Set(*vkl, result);
        EXPECT_EQ(TakeQueue(vkl), std::vector<S>());
        return S(r.status.description) + "|" + (r.errorMsg + 500);
    };
    EXPECT_EQ(fail(1), "|12345678901");
    EXPECT_EQ(fail(-2), "|VKL_RAND_by");
    EXPECT_EQ(fail(0), "gone|VKL_RAND_by");
    r.msgLen = 4000;
    fail(-2);
    r.Set("");
    EXPECT_EQ(diagnostics->TakeErrors("zulcryptimpl"), (std::vector<S>{"123456789012", ""}));
    std::ostringstream now;
    now << st;
    ZulVklLogErrMsg(st);
    ZulVklLogErrMsg(nullptr);
    EXPECT_EQ(now.str(), "gone errorMsg: short");
    EXPECT_EQ(diagnostics->TracesAt(0), (std::vector<S>{"short", "gone"}));
}

// A context handle needs a VKL context, and the other handles a context handle; released without
// one they stay usable. VKL out of memory gives no handle; a failed init of one is dropped.
TEST_F(SnmpTest, Handles) {
    WEXTest_SetGetContextResult(0);
    EXPECT_EQ(ZulVklCtxCreate(), nullptr);
    EXPECT_EQ(diagnostics->errors.at(0).text, "VKL Context not started.");
    EXPECT_TRUE(!ZulVklMdCtxCreate(nullptr) && !ZulVklHmacCtxCreate(nullptr) && !ZulVklCipherCtxCreate(nullptr));
    EXPECT_EQ(ZulVklMdDigestLength(nullptr, "SHA1") + ZulVklMdDigestLength(ctx, nullptr), 0);
    EXPECT_EQ(ZulVklMdCtxDestroy(nullptr, md) + ZulVklHmacCtxDestroy(nullptr, hmac) + ZulVklCipherCtxDestroy(nullptr, cipher) +
                  ZulVklMdCtxDestroy(ctx, nullptr) + ZulVklHmacCtxDestroy(ctx, nullptr) + ZulVklCipherCtxDestroy(ctx, nullptr) +
                  ZulVklCtxDestroy(nullptr) + ZulVklStatusDestroy(nullptr), 0);
    A a(*this);
    EXPECT_EQ(Go(Key, a) + Go(Hmac, a) + Go(EncInit, a), 10);
    for (const char* f : {"VKL_EVP_MD_CTX_new", "VKL_HMAC_CTX_new", "VKL_EVP_CIPHER_CTX_new", "VKL_EVP_MD_CTX_init", "VKL_EVP_CIPHER_CTX_init"}) {
        VKLTest_FailCall(f, 0, 1, 0);
        ZulVklMdCtxWrap* m = ZulVklMdCtxCreate(ctx);
        ZulVklHmacCtxWrap* h = ZulVklHmacCtxCreate(ctx);
        ZulVklCipherCtxWrap* c = ZulVklCipherCtxCreate(ctx);
        EXPECT_EQ(!m + !h + !c, S(f).find("new") != S::npos) << f;
        EXPECT_EQ(TakeQueue(ZulVklWrapConvert(ctx)), std::vector<S>());
        ZulVklMdCtxDestroy(ctx, m);
        ZulVklHmacCtxDestroy(ctx, h);
        ZulVklCipherCtxDestroy(ctx, c);
    }
}

}  // namespace
