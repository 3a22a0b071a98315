// CZulCryptMDContext: the known answers of tests/vectors/digest.vec, and the
// cases of tests/data/digest_scripts.vec (traces, states, failures).
#include <czulcryptmdcontext.h>

#include "script.h"
#include "test_support.h"
#include "vector_file.h"

namespace zultest {

using Buf = std::vector<unsigned char>;
class DigestTest : public ContextTest {};

// The digest of `in` fed in pieces of the given sizes (cycling), after an empty one.
static Buf Hash(CZulCryptMDContext& md, const Buf& in, const std::vector<size_t>& pieces) {
    bool ok = md.AddData(const_cast<unsigned char*>(in.data()), 0);
    InPieces(in, pieces, [&](const unsigned char* p, size_t n) { ok = md.AddData(const_cast<unsigned char*>(p), n) && ok; });
    unsigned char out[64];
    unsigned int n = 0;
    return md.GetMessageDigest(out, &n) && ok ? Buf(out, out + n) : Buf();
}

// Each vector whole; after a reset in pieces that straddle the block; restarted by SetType over stale data.
TEST_F(DigestTest, Vectors) {
    CZulCryptMDContext md(*context);
    for (const auto& v : ReadVectors("digest.vec")) {
        SCOPED_TRACE(v.Where());
        const Buf in = v.Bytes("In"), out = v.Bytes("Out");
        const char* name = v.fields.at("Digest").c_str();
        EXPECT_TRUE(md.SetType(name) && Hash(md, in, {SIZE_MAX}) == out);
        md.ResetMessageDigest();
        EXPECT_TRUE(md.SetType(name) && Hash(md, in, {63, 1, 64, 65, 4097}) == out);
        EXPECT_TRUE(md.SetType(name) && md.AddData(const_cast<char*>("junk"), 4) && md.SetType(name) && Hash(md, in, {1, 135}) == out);
    }
    EXPECT_EQ(diagnostics->errors.size(), 0u);
}

TEST_F(DigestTest, Scripts) {
    RunScripts("digest_scripts.vec", [](CZulCryptContext& context) -> Calls {
        auto md = std::make_shared<CZulCryptMDContext>(context);
        // Final [- for a null buffer]
        auto final = [=](bool buffer) { unsigned char out[64]; unsigned int n = 0; const bool ok = md->GetMessageDigest(buffer ? out : nullptr, &n); return Bytes(ok, out, n); };
        return {ZUL_CALL("SetType", Ok(md->SetType(a[0].IsNull() ? nullptr : a[0].Text().c_str()))), ZUL_CALL("AddData", Ok(md->AddData(a[0].Bytes().data(), a[0].Bytes().size()))),
                ZUL_CALL("Final", final(a.empty())), ZUL_CALL("Reset", (md->ResetMessageDigest(), Ok(true))),
                ZUL_CALL("Initialise", (md->Initialise(), Ok(true))), ZUL_CALL("Type", Text(md->GetType())),
                ZUL_CALL("Size", Number(md->GetDigestSize())), ZUL_CALL("Block", Number(md->GetDigestBlockSize())), ZUL_CALL("Status", Ok(md->GetStatus()))};
    });
}

}  // namespace zultest
