// Shared test fixtures: a clean platform for every test and capture of the
// library's diagnostics.
#ifndef ZUL_TEST_SUPPORT_H
#define ZUL_TEST_SUPPORT_H

#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include <czulcryptcontext.h>

namespace zultest {

struct ErrorReport {
    std::string file;
    unsigned int line;
    std::string text;
    bool fatal;
};

struct Trace {
    std::string text;
    unsigned int level;
};

// Installs callbacks for HandleError and HandleDebug while alive; records what they get.
class Diagnostics {
public:
    Diagnostics();
    ~Diagnostics();
    Diagnostics(const Diagnostics&) = delete;
    Diagnostics& operator=(const Diagnostics&) = delete;

    std::vector<ErrorReport> errors;
    std::vector<Trace> traces;

    // Traces of exactly this level, in order.
    std::vector<std::string> TracesAt(unsigned int level) const;
    // The error texts so far, each checked (non-fatally) to be an unfatal
    // report of the given source file; clears errors and traces.
    std::vector<std::string> TakeErrors(const std::string& file);
    void Clear();
};

// Every test starts with an unarmed platform (context handed out, host not in
// FIPS mode, log level 0) and its diagnostics captured; it is all undone after.
class PlatformTest : public ::testing::Test {
protected:
    void SetUp() override;
    void TearDown() override;

    Diagnostics* diagnostics = nullptr;
    long liveObjects = 0;
};

// A PlatformTest with a usable crypto context made before each test; the VKL
// error queue (per thread, it outlives earlier tests) starts empty and the
// context's own start-up reports are cleared.
class ContextTest : public PlatformTest {
protected:
    void SetUp() override;
    void TearDown() override;

    std::unique_ptr<CZulCryptContext> context;
    VKL_t* vkl = nullptr;
};

// Every entry of VKL's error queue as text, oldest first; the queue is empty after.
std::vector<std::string> TakeQueue(VKL_t* vkl);

std::string Hex(const unsigned char* data, size_t length);
std::string Hex(const std::vector<unsigned char>& data);
// Throws std::invalid_argument on a malformed hex text.
std::vector<unsigned char> FromHex(const std::string& hex);

// Hands data to feed in pieces of the given sizes, cycling through them; the last piece
// takes what is left. A size of SIZE_MAX stands for all that is left.
void InPieces(const std::vector<unsigned char>& data, const std::vector<size_t>& pieces,
              const std::function<void(const unsigned char*, size_t)>& feed);

// The VKL call log as a list of names.
std::vector<std::string> CallLog();

}  // namespace zultest

#endif  // ZUL_TEST_SUPPORT_H
