// An application built against the installed package: it starts a context
// and checks that the test-control headers are reachable too.
#include <czulcryptcontext.h>
#include <vkl_testing.h>
#include <wexcrypt_testing.h>

int main() {
    VKLTest_Reset();
    WEXTest_SetSystemFips(0);
    CZulCryptContext context;
    return context.GetStatus() && VKLTest_CallCount("VKL_SelfTest") == 1 ? 0 : 1;
}
