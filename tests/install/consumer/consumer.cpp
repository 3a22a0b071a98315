// An application built against the installed package, its headers named as
// <wexcryptcpp/...> (they reach vkl.h themselves): it starts a context.
#include <wexcryptcpp/czulcryptciphercontext.h>
#include <wexcryptcpp/zulcryptimpl.h>

int main() {
    CZulCryptContext context;
    return context.GetStatus() ? 0 : 1;
}
