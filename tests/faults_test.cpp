// The object classes' failure rows of tests/data/*_faults.vec: arm one VKL
// fault, run one operation on a freshly made (and, where the operation needs
// it, keyed) object, and check its result, the exact reports and what is left.
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <czulcryptciphercontext.h>
#include <vkl_testing.h>

#include "test_support.h"
#include "vector_file.h"

namespace {

using Texts = std::vector<std::string>;

// One operation on the object under test: `prepare` must succeed before the
// fault is armed; `run` gives the operation's result.
template <class Object>
struct Operation {
    std::function<bool(Object&)> prepare;
    std::function<bool(Object&)> run;
};

class FaultsTest : public zultest::ContextTest {
protected:
    // Runs every row of the file; `size` is the object's size query.
    template <class Object>
    void RunRows(const std::string& file, const std::map<std::string, Operation<Object>>& operations,
                 const std::function<int(Object&)>& size) {
        const auto rows = zultest::ReadVectors(file);
        ASSERT_FALSE(rows.empty());
        for (const zultest::VectorCase& row : rows) {
            SCOPED_TRACE(row.Where());
            const std::string name = row.Text("Operation");
            ASSERT_EQ(operations.count(name), 1u) << "no operation " << name;
            const Operation<Object>& operation = operations.at(name);
            VKLTest_Reset();
            diagnostics->Clear();
            // "New" rows fail the object's own creation.
            const bool failsCreation = name == "New";
            if (failsCreation) Arm(row);
            auto object = std::make_unique<Object>(*context);
            if (operation.prepare) {
                ASSERT_TRUE(operation.prepare(*object));
            }
            if (!failsCreation) {
                diagnostics->Clear();
                Arm(row);
            }
            EXPECT_EQ(operation.run(*object), row.Number("Ok") != 0);
            Texts expected;
            for (const char* field : {"Report", "Report2"}) {
                if (row.Has(field)) expected.push_back(row.Text(field));
            }
            EXPECT_EQ(diagnostics->TakeErrors(row.Text("File")), expected);
            if (row.Has("Usable")) {
                EXPECT_EQ(object->GetStatus(), row.Number("Usable") != 0);
            }
            if (row.Has("Size")) {
                EXPECT_EQ(size(*object), row.Number("Size"));
            }
            // Counted after the object is gone, so that its destructor's calls count too.
            object.reset();
            if (row.Has("Count")) {
                const std::string count = row.Text("Count");
                const size_t blank = count.find(' ');
                EXPECT_EQ(VKLTest_CallCount(count.substr(0, blank).c_str()), std::stoul(count.substr(blank + 1)))
                    << count;
            }
        }
    }

    static void Arm(const zultest::VectorCase& row) {
        VKLTest_FailCall(row.Text("Function").c_str(), static_cast<unsigned>(row.Has("Skip") ? row.Number("Skip") : 0),
                         1, row.Number("Result"));
    }
};

// NIST SP 800-38A F.2.1's AES-128 key and IV: the faults do not depend on them.
const std::vector<unsigned char> kKey = zultest::FromHex("2b7e151628aed2a6abf7158809cf4f3c");
const std::vector<unsigned char> kIv = zultest::FromHex("000102030405060708090a0b0c0d0e0f");

TEST_F(FaultsTest, CipherObject) {
    using Cipher = CZulCryptCipherContext;
    static unsigned char data[32], out[64];
    static int written;
    auto encrypting = [](Cipher& c) { return c.SetEncryptType("AES-128-CBC", kKey.data(), 16, kIv.data(), 16); };
    auto decrypting = [](Cipher& c) { return c.SetDecryptType("AES-128-CBC", kKey.data(), 16, kIv.data(), 16); };
    const std::map<std::string, Operation<Cipher>> operations = {
        {"New", {nullptr, [](Cipher& c) { return c.GetStatus(); }}},
        {"SetEncryptType", {nullptr, encrypting}},
        {"SetDecryptType", {nullptr, decrypting}},
        // RC4 takes any length: a non-default one is set after the init.
        {"SetEncryptTypeRC4Of5", {nullptr, [](Cipher& c) { return c.SetEncryptType("RC4", kKey.data(), 5); }}},
        {"SetPadding", {encrypting, [](Cipher& c) { return c.SetPadding(true); }}},
        {"SetKeyLength", {encrypting, [](Cipher& c) { return c.SetKeyLength(8); }}},
        {"EncryptData", {encrypting, [](Cipher& c) { return c.EncryptData(data, 16, out, &written); }}},
        {"EncryptFinal", {encrypting, [](Cipher& c) { return c.EncryptFinal(out, &written); }}},
        {"DecryptData", {decrypting, [](Cipher& c) { return c.DecryptData(data, 16, out, &written); }}},
        {"DecryptFinal", {decrypting, [](Cipher& c) { return c.DecryptFinal(out, &written); }}},
        // Setting a type again resets the cipher first.
        {"ResetCipher", {encrypting, encrypting}},
    };
    RunRows<Cipher>("cipher_faults.vec", operations, [](Cipher& c) { return c.GetKeySize(); });
}

}  // namespace
