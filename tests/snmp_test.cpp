// The procedural SNMPv3 interface: the outside vectors of tests/vectors/snmp_*.vec through one
// set of handles reused from case to case, whole and in pieces; then what a caller sees of a
// refused argument or input, a failed VKL call, its handles and its status record.
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
using S = std::string; using V = std::vector<S>;
using CB = ZulVklConstBuffer;

// Empty bytes go in with no address, as an empty input may.
CB In(const B& b) { return {b.empty() ? nullptr : b.data(), uint32_t(b.size())}; }

struct SnmpTest : PlatformTest {
    void SetUp() override {
        PlatformTest::SetUp();
        ctx = ZulVklCtxCreate(), vkl = ZulVklWrapConvert(ctx), st = ZulVklStatusCreate();
        md = ZulVklMdCtxCreate(ctx), hmac = ZulVklHmacCtxCreate(ctx), cipher = ZulVklCipherCtxCreate(ctx);
    }
    void TearDown() override {
        ZulVklMdCtxDestroy(ctx, md), ZulVklHmacCtxDestroy(ctx, hmac), ZulVklCipherCtxDestroy(ctx, cipher);
        ZulVklStatusDestroy(st), ZulVklCtxDestroy(ctx), PlatformTest::TearDown();
    }
    ZulVklCtxWrap* ctx;
    VKL_t* vkl;
    ZulVklStatusWrap* st;
    ZulVklMdCtxWrap* md;
    ZulVklHmacCtxWrap* hmac;
    ZulVklCipherCtxWrap* cipher;
};

const B kNone, kPw(1, 1), kKey(20, 1), kEngine(12, 2), kDes(8, 3), kIn(24, 4);

// One call's arguments, good unless a row changes them. The argument numbered `bad` comes out
// broken: null, or with `nowhere` a handle holding nothing, a record with a length but no bytes,
// an output area that is not there.
struct A {
    A(SnmpTest& s, int b = -1) : t(s), bad(b) {}
    SnmpTest& t;
    // blank: that input empty; len: that input this long, at an address with 1 byte
    int bad, n = 0, method = 1, blank = -1, padding = 0;
    bool nowhere = false, gap = false, lost = false;
    const char* name = nullptr;
    long size = -1;
    const B* in[3] = {};
    uint32_t len[2] = {};
    std::vector<B> pieces{B(5), B(19)};
    std::deque<CB> ins;
    std::vector<CB*> ps;
    B area, done;
    ZulVklBuffer out{};
    bool Bad() { return n++ == bad || bad < -1; }
    template <class H>
    H* Hd(H* h) { static H none{nullptr}; return Bad() ? nowhere ? &none : nullptr : h; }
    ZulVklCipherCtxWrap* C() { return Hd(t.cipher); }
    ZulVklCtxWrap* Ctx() { return Bad() ? nullptr : t.ctx; }
    ZulVklStatusWrap* St() { return (lost = Bad()) ? nullptr : t.st; }
    const char* Nm(const char* d) { return Bad() ? nullptr : name ? name : d; }
    CB* Rec(const B& b, bool bad, uint32_t length = 0) {
        static const unsigned char one = 0;
        return &ins.emplace_back(bad ? CB{nullptr, 1} : length ? CB{&one, length} : In(b));
    }
    CB* I(int i, const B& b) {
        const bool bad = Bad();
        return bad && !nowhere ? nullptr : Rec(i == blank ? kNone : in[i] ? *in[i] : b, bad, i < 2 ? len[i] : 0);
    }
    // The pieces of a message, with a null one after the first when `gap`.
    CB** P() {
        const bool bad = Bad();
        for (const B& b : pieces) ps.push_back(Rec(b, bad));
        if (gap) ps.insert(ps.begin() + 1, nullptr);
        ps.push_back(nullptr);  // an array however few the pieces
        return bad && !nowhere ? nullptr : ps.data();
    }
    // The output: an area of ee bytes, or (mine false) a record the operation fills.
    ZulVklBuffer* O(long def, bool mine = true) {
        const bool bad = Bad();
        done = Got();
        area.assign(size_t(size < 0 ? def : size), 0xee);
        out = {bad || !mine ? nullptr : area.data(), uint32_t(area.size())};
        return bad && (!nowhere || !mine) ? nullptr : &out;
    }
    // What the calls wrote.
    B Got() {
        B got = done;
        got.insert(got.end(), out.data, out.data + (out.data ? out.length : 0));
        if (out.data != area.data()) std::free(out.data);
        out = {};
        return got;
    }
};

// Every operation on good arguments; a call that is not `first` follows the calls before it.
struct Op { const char* name; int (*call)(A&); bool first; };
#define OPT(text, f, first, ...) {"ZulVkl" #text, [](A& a) { return ZulVkl##f(a.Ctx(), __VA_ARGS__, a.St()); }, first}
#define OP(f, first, ...) OPT(f, f, first, __VA_ARGS__)
const Op kOps[] = {
    OPT(DigestGenerateKey, MdGenerateKey, 1, a.Hd(a.t.md), a.Nm("SHA1"), a.I(0, kPw), a.O(20)),
    OPT(DigestLocaliseKey, MdLocaliseKey, 1, a.Hd(a.t.md), a.Nm("SHA1"), a.I(0, kEngine), a.I(1, kKey), a.O(20)),
    OP(MdKeyChangeDigest, 1, a.Hd(a.t.md), a.Nm("SHA1"), a.I(0, kKey), a.I(1, kKey), a.O(0, false)),
    OP(MdExtendKey, 1, a.Hd(a.t.md), a.Nm("SHA1"), a.method, a.I(0, kEngine), a.I(1, kKey), a.O(24)),
    OP(CipherRequiredKeySize, 1, a.Nm("DES-CBC")),
    OP(CipherRequiredIvSize, 1, a.Nm("DES-CBC")),
    OP(CipherEncryptInit, 1, a.C(), a.Nm("DES-CBC"), a.I(0, kDes), a.I(1, kDes)),
    OP(CipherSetPadding, 0, a.C(), 5),
    OP(CipherSetPadding, 0, a.C(), a.padding),
    OP(CipherEncryptUpdate, 0, a.C(), a.Nm("DES-CBC"), a.P(), unsigned(a.pieces.size()), a.O(64)),
    OP(CipherEncryptFinalise, 0, a.C(), a.Nm("DES-CBC"), a.O(8)),
    OP(CipherDecryptInit, 1, a.C(), a.Nm("DES-CBC"), a.I(0, kDes), a.I(1, kDes)),
    OP(CipherDecryptUpdate, 0, a.C(), a.Nm("DES-CBC"), a.I(2, kIn), a.O(64)),
    OP(CipherDecryptFinalise, 0, a.C(), a.Nm("DES-CBC"), a.O(8)),
    OP(HmacGenerateDigest, 1, a.Hd(a.t.hmac), a.Nm("SHA1"), a.P(), unsigned(a.pieces.size()), a.I(1, kKey), a.O(20)),
    {"ZulVklMdExtendKey", [](A& a) { a.method = 2; return kOps[3].call(a); }, 1},
};
enum { Key, Localise, Chain, Extend, KeySize, IvSize, EncInit, Pad5, Pad0, EncUpdate, EncFinal, DecInit, DecUpdate, DecFinal, Hmac, Reeder };

// Runs an operation after the calls it follows; the last one's result.
int Go(int op, A& a) {
    int from = op, result = 0;
    while (!kOps[from].first) --from;
    for (; from <= op; ++from) result = kOps[from].call(a);
    return result;
}

// Each operation on the outside vectors of tests/vectors/snmp_*.vec, through one set of handles
// reused from case to case; a message whole, and in pieces of 1 and 5 bytes.
TEST_F(SnmpTest, Vectors) {
    const struct { int op; const char *in[3], *message, *want; } rows[] = {
        {Key, {"Password"}, "", "Ku"},
        {Localise, {"Engine", "Ku"}, "", "Kul"},
        {Chain, {"First", "Second"}, "", "Chained"},
        {Extend, {"Engine", "Kul"}, "", "Blumenthal"},
        {Reeder, {"Engine", "Kul"}, "", "Reeder"},
        {Hmac, {"Key", "Key"}, "Data", "Mac"},
        {KeySize, {"Crypt"}, "", "Key"},
        {IvSize, {"Crypt"}, "", "IV"},
        {EncFinal, {"Key", "IV"}, "Plain", "Crypt"},
        {DecFinal, {"Key", "IV", "Crypt"}, "", "Back"},
    };
    for (const char* file : {"keys", "hmac", "cipher"}) {
        for (const VectorCase& v : ReadVectors("snmp_" + S(file) + ".vec")) {
            for (auto& r : rows) {
                bool has = v.Has(r.want) && (!*r.message || v.Has(r.message));
                for (const char* f : r.in) has = has && (!f || v.Has(f));
                const S name = v.Text(v.Has("Name") ? "Name" : "Digest");
                B x[3], want = has ? v.Bytes(r.want) : B(), message = *r.message && has ? v.Bytes(r.message) : B();
                for (int whole = 1; has && whole >= !*r.message; --whole) {
                    SCOPED_TRACE(v.Where());
                    A a(*this);
                    for (int i = 0; i < 3; ++i) a.in[i] = r.in[i] ? &(x[i] = v.Bytes(r.in[i])) : nullptr;
                    a.name = name.c_str(), a.size = long(want.size()), a.padding = v.Has("Padding") ? 5 : 0;
                    a.pieces.assign(!whole, B());  // an empty piece, with no address
                    InPieces(message, {whole ? message.size() : 1, 5}, [&](auto p, size_t n) { a.pieces.push_back(B(p, p + n)); });
                    const bool sizes = r.op == KeySize || r.op == IvSize;
                    EXPECT_EQ(Go(r.op, a), sizes ? int(want.size()) : 1);
                    EXPECT_EQ(a.Got(), sizes ? B() : want);
                    EXPECT_STREQ(st->errorMsg, "");
                    EXPECT_TRUE(r.op != Key || ZulVklMdDigestLength(ctx, a.name) == int(want.size()));
                }
            }
        }
    }
    // A key cut where it lies, one byte on.
    const B kul = ReadVectors("snmp_keys.vec")[1].Bytes("Kul");
    B key = kul;
    CB k = In(key);
    ZulVklBuffer same{key.data() + 1, 16};
    EXPECT_EQ(ZulVklMdExtendKey(ctx, md, "SHA1", 1, &k, &k, &same, st), 1);
    EXPECT_EQ(B(key.begin() + 1, key.begin() + 17), B(kul.begin(), kul.begin() + 16));
}

// Each argument of each operation null, or pointing nowhere, is refused with the operation's
// text before any VKL call; with no status record the text is reported.
TEST_F(SnmpTest, NullArguments) {
    for (const Op& op : kOps) {
        A all(*this, -2);
        op.call(all);
        diagnostics->Clear();
        for (int bad = 0; bad < all.n * 2; ++bad) {
            SCOPED_TRACE(op.name + S(" argument ") + std::to_string(bad));
            A a(*this, bad / 2);
            a.nowhere = bad % 2;
            VKLTest_Reset();
            st->errorMsg[0] = 0;
            EXPECT_EQ(op.call(a), 0);
            const S text = S("Invalid NULL arg to ") + op.name;
            EXPECT_EQ(diagnostics->TakeErrors("zulcryptimpl"), V(a.lost, text));
            EXPECT_EQ(st->errorMsg, a.lost ? "" : text);
            EXPECT_EQ(CallLog(), V());
        }
    }
}

// The operation refused or failed with its text, VKL's status record taken when told, nothing
// left on VKL's queue, and the caller's output as it was (unless ok: the failure only told);
// the next call does what a call before did.
void Check(SnmpTest& t, int op, const std::function<void(A&)>& twist, const S& text, bool told = 0, bool ok = 0) {
    SCOPED_TRACE(text);
    A good(t), a(t), again(t);
    const int result = Go(op, good);
    const B want = good.Got();
    *t.st = ZulVklStatusWrap(), twist(a);
    EXPECT_EQ(Go(op, a), ok ? result : 0);
    EXPECT_EQ(t.st->errorMsg, text);
    EXPECT_EQ(t.st->status.description, S(told ? "lost" : ""));
    EXPECT_EQ(TakeQueue(t.vkl), V());
    if (ok) {
        EXPECT_EQ(a.Got(), want);
    } else {
        EXPECT_EQ(a.out.data, a.area.empty() ? nullptr : a.area.data());
        EXPECT_EQ(a.area, B(a.area.size(), 0xee));
        // An update's length then means nothing.
        EXPECT_TRUE(op == EncUpdate || a.out.length == a.area.size());
    }
    EXPECT_EQ(Go(op, again), result);
    EXPECT_EQ(again.Got(), want);
}

// The VKL function (after VKL_EVP_, or VKL_ for HMAC_), the operation's own text for VKL's
// result 0 (none: VKL's text, for -2), and the calls to skip.
struct Fault { int op; const char *function, *text; unsigned skip = 0; };
const Fault kFaults[] = {
    {Key, "DigestInit", nullptr},
    {Key, "DigestInit", "key digest initialisation failed "},
    {Key, "DigestUpdate", "key digest update failed ", 99},
    {Key, "DigestFinal", "key digest finalisation failed "},
    {Key, "MD_size", nullptr},
    {Localise, "DigestInit", "localised key digest initialisation failed "},
    {Localise, "DigestUpdate", "localised key digest update failed "},
    {Localise, "DigestFinal", "localised key digest finalisation failed "},
    {Localise, "MD_size", nullptr},
    {Chain, "DigestInit", "key change digest initialisation failed "},
    {Chain, "DigestUpdate", "key change digest update failed ", 1},
    {Chain, "DigestFinal", "key change digest update failed "},
    {Chain, "MD_size", nullptr},
    {Extend, "DigestInit", "key extension digest initialisation failed "},
    {Extend, "DigestUpdate", "key extension digest update failed "},
    {Extend, "DigestFinal", "key extension digest finalisation failed "},
    {EncInit, "EncryptInit", nullptr},
    {EncInit, "EncryptInit", "Encryption initialisation failed "},
    {EncInit, "CIPHER_block_size", nullptr},
    {Pad5, "CIPHER_CTX_set_padding", "Failed to enable padding\n"},
    {Pad0, "CIPHER_CTX_set_padding", "Failed to disable padding\n", 1},
    {EncUpdate, "EncryptUpdate", "Encryption update failed ", 1},
    {EncFinal, "EncryptFinal", "Encryption finalisation failed "},
    {EncFinal, "CIPHER_CTX_cleanup", "Failed to cleanup the cipher context after applying encryption algorithmDES-CBC\n"},
    {DecInit, "DecryptInit", "Decryption initialisation failed "},
    {DecInit, "CIPHER_CTX_set_padding", "Failed to disable padding with algorithm: DES-CBC\n"},
    {DecUpdate, "DecryptUpdate", "Decryption update failed "},
    {DecFinal, "DecryptFinal", "Decryption finalisation failed "},
    {DecFinal, "CIPHER_CTX_cleanup", "Failed to cleanup the cipher context after applying decryption algorithmDES-CBC\n"},
    {Hmac, "HMAC_Init", nullptr},
    {Hmac, "HMAC_Init", "HMAC initialisation failed "},
    {Hmac, "HMAC_Update", "HMAC update failed ", 1},
    {Hmac, "HMAC_Final", "HMAC finalisation failed "},
    {Hmac, "HMAC_Init", "HMAC re-arm failed ", 1},
    {Hmac, "MD_size", nullptr},
};

// Each VKL failure once per operation. A size VKL cannot give is refused with VKL's reason;
// a failed clean-up is only told.
TEST_F(SnmpTest, VklFailures) {
    VKLTest_SetStatus("VKL_GetStatus", 2, 6, "lost");
    for (const Fault& f : kFaults) {
        const S function = S(f.function[0] == 'H' ? "VKL_" : "VKL_EVP_") + f.function;
        const bool told = f.text && function.find("cleanup") == S::npos;
        Check(*this, f.op, [&](A&) { VKLTest_FailCall(function.c_str(), f.skip, 1, f.text ? 0 : -2); },
              f.text ? f.text : function + ": injected failure", told, f.text && !told);
    }
}

// Inputs refused before the work, each with its text; a Reeder step fails as password to key does.
TEST_F(SnmpTest, Refusals) {
    const struct { int op; const char *text, *name; void (*twist)(A&) = nullptr; } rows[] = {
        {Key, "Currently will not generate a digest with an empty password", "MD77", [](A& a) { a.blank = 0; }},
        {Key, "Failed to get the MD77 message digest for key generation\n", "MD77"},
        {Key, "Incorrect buffer size for SHA1 digest key generation", nullptr, [](A& a) { a.size = 21; }},
        {Localise, "Failed to get the MD77 message digest for local key generation", "MD77"},
        {Localise, "Incorrect buffer size for SHA1 digest local key generation", nullptr, [](A& a) { a.size = 19; }},
        {Localise, "Key and engine ID too long for SHA1 digest local key generation: 4294967296 bytes", nullptr,
         [](A& a) { a.blank = 0, a.len[1] = 1u << 31; }},
        {Chain, "Failed to get the MD77 message digest for key change digest", "MD77"},
        {Extend, "Unknown key extension method for SHA1 digest key extension: 3", nullptr, [](A& a) { a.method = 3; }},
        {Extend, "Incorrect extended key length for SHA1 digest key extension: 65, 1 to 64 allowed", nullptr, [](A& a) { a.size = 65; }},
        {Extend, "Currently will not extend an empty localised key", nullptr, [](A& a) { a.blank = 1; }},
        {Extend, "Failed to get the MD77 message digest for key extension", "MD77"},
        {Reeder, "Failed to get the SHA1 message digest for key generation\n", nullptr,
         [](A&) { VKLTest_FailCall("VKL_EVP_get_digestbyname", 1, 1, 0); }},
        {KeySize, "Failed to get cipher for algorithm: DES-XYZ", "DES-XYZ"},
        {IvSize, "Failed to get cipher for algorithm: DES-XYZ", "DES-XYZ"},
        {EncInit, "Failed to get cipher by name for algorithm: DES-XYZ\n", "DES-XYZ"},
        {EncInit, "Incorrect iv length for DES-CBC encryption/decryption. Required 8 but got 7\n", nullptr, [](A& a) { a.len[1] = 7; }},
        {DecInit, "Incorrect key length for DES-CBC encryption/decryption. Required 8 but got 7\n", nullptr, [](A& a) { a.len[0] = 7; }},
        {EncUpdate, "Invalid buffer passed in for SNMPv3 msg encryption", nullptr, [](A& a) { a.gap = true; }},
        {Hmac, "Invalid buffer passed in for SNMPv3 msg authentication", nullptr, [](A& a) { a.gap = true; }},
        {Hmac, "Failed to get the MD77 message digest", "MD77"},
        {Hmac, "Key too long for the SHA1 message digest", nullptr, [](A& a) { a.len[1] = 1u << 31; }},
    };
    for (auto& row : rows) Check(*this, row.op, [&](A& a) { a.name = row.name, row.twist ? row.twist(a) : void(); }, row.text);
    // A name too long for the message area is cut on a character boundary and marked, so the
    // text keeps its end.
    auto rep = [](const S& s, int n) { S r; while (n-- > 0) r += s; return r; };
    const std::pair<S, S> cuts[] = {{rep("n", 459), rep("n", 455) + "..."}, {rep("\xc3\xa9", 300), rep("\xc3\xa9", 227) + "..."},
                                    {rep("\x80", 600), "..."}};
    for (auto& [name, kept] : cuts) Check(*this, Key, [&](A& a) { a.name = name.c_str(); }, "Failed to get the " + kept + " message digest for key generation\n");
}

// A status record takes a text that fits with its terminator in the room after msgLen; another
// goes to the error report. After a failed VKL call 0 takes VKL's record, -2 its oldest queued
// text, any other result nothing; VKL's queue is left empty.
TEST_F(SnmpTest, StatusRecord) {
    ZulVklStatusWrap& r = *st;
    std::ostringstream out;
    out << st << "|" << (ZulVklStatusWrap*)nullptr;
    r.Set(S(511, 'x').c_str()), r.Set("short");
    r.msgLen = 500;
    r.Set("12345678901"), r.Set("123456789012");
    VKLTest_SetStatus("VKL_GetStatus", 3, 12, "gone");
    VKLTest_FailCall("VKL_RAND_bytes", 0, -1, 0);
    for (int result : {1, -2, 0, -2}) {
        VKL_RAND_bytes(vkl, nullptr, 1), VKL_RAND_bytes(vkl, nullptr, 1), r.Set(*vkl, result);
        EXPECT_EQ(TakeQueue(vkl), V());
        out << "|" << r.status.description << "|" << r.errorMsg + 500;
        if (!result) r.msgLen = 4000;
    }
    r.Set("");
    out << "|" << st;
    ZulVklLogErrMsg(st), ZulVklLogErrMsg(nullptr);
    EXPECT_EQ(out.str(), "|NULL VKL status wrapper||12345678901||VKL_RAND_by|gone|VKL_RAND_by|gone|VKL_RAND_by|gone errorMsg: short");
    EXPECT_EQ(diagnostics->TracesAt(0), (V{"short", "gone"}));
    EXPECT_EQ(diagnostics->TakeErrors("zulcryptimpl"), (V{"123456789012", ""}));
}

// A context handle needs a VKL context, and the other handles a context handle; released without
// one they stay usable. VKL out of memory gives no handle; a failed init of one is dropped.
TEST_F(SnmpTest, Handles) {
    WEXTest_SetGetContextResult(0);
    EXPECT_FALSE(ZulVklCtxCreate() || ZulVklMdCtxCreate(nullptr) || ZulVklHmacCtxCreate(nullptr) || ZulVklCipherCtxCreate(nullptr) ||
                 ZulVklMdDigestLength(nullptr, "SHA1") || ZulVklMdDigestLength(ctx, nullptr));
    EXPECT_EQ(diagnostics->errors.at(0).text, "VKL Context not started.");
    EXPECT_FALSE(ZulVklMdCtxDestroy(nullptr, md) || ZulVklHmacCtxDestroy(nullptr, hmac) || ZulVklCipherCtxDestroy(nullptr, cipher) ||
                 ZulVklMdCtxDestroy(ctx, nullptr) || ZulVklHmacCtxDestroy(ctx, nullptr) || ZulVklCipherCtxDestroy(ctx, nullptr) ||
                 ZulVklCtxDestroy(nullptr) || ZulVklStatusDestroy(nullptr));
    A a(*this);
    EXPECT_EQ(Go(Key, a) + Go(Hmac, a) + Go(EncInit, a), 10);
    for (S f : {"EVP_MD_CTX_new", "HMAC_CTX_new", "EVP_CIPHER_CTX_new", "EVP_MD_CTX_init", "EVP_CIPHER_CTX_init"}) {
        VKLTest_FailCall(("VKL_" + f).c_str(), 0, 1, 0);
        auto m = ZulVklMdCtxCreate(ctx);
        auto h = ZulVklHmacCtxCreate(ctx);
        auto c = ZulVklCipherCtxCreate(ctx);
        EXPECT_EQ(!m + !h + !c, f.find("new") != S::npos) << f;
        EXPECT_EQ(TakeQueue(vkl), V());
        ZulVklMdCtxDestroy(ctx, m), ZulVklHmacCtxDestroy(ctx, h), ZulVklCipherCtxDestroy(ctx, c);
    }
}

}  // namespace
