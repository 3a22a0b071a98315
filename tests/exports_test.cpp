// libwexcryptcpp.so.1 exports the library's classes and ZulVkl functions, nothing else.
#include <cstdio>
#include <regex>

#include <gtest/gtest.h>

TEST(ExportsTest, OnlyLibraryClassesAndProceduralFunctionsAreExported) {
    const std::regex allowed("(CZulCrypt|ZulVkl|(vtable|typeinfo|typeinfo name) for CZulCrypt|operator<<\\(std::ostream&, ZulVkl).*");
    FILE* pipe = popen((std::string("nm -D --defined-only -C '") + ZUL_LIBRARY_FILE + "'").c_str(), "r");
    ASSERT_NE(pipe, nullptr);
    bool context = false;
    char line[4096], name[4096];
    // "<address> <type> <name>"
    while (std::fgets(line, sizeof line, pipe) && std::sscanf(line, "%*s %*s %4095[^\n]", name) == 1) {
        EXPECT_TRUE(std::regex_match(name, allowed)) << "exported: " << name;
        context = context || std::string(name) == "CZulCryptContext::GetContext()";
    }
    pclose(pipe);
    EXPECT_TRUE(context) << "CZulCryptContext::GetContext() must be exported";
}
