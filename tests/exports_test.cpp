// libwexcryptcpp.so.1 exports the library's classes and ZulVkl functions, nothing else.
#include <regex>

#include <gtest/gtest.h>

TEST(ExportsTest, OnlyLibraryClassesAndProceduralFunctionsAreExported) {
    const std::regex allowed("(CZulCrypt|ZulVkl|(vtable|typeinfo( name)?) for CZulCrypt|operator<<\\(std::ostream&, ZulVkl).*");
    FILE* pipe = popen((std::string("nm -D --defined-only -C '") + ZUL_LIBRARY_FILE + "'").c_str(), "r");
    char name[4096];
    int context = 0;
    // "<address> <type> <name>"
    while (pipe && std::fscanf(pipe, "%*s %*s %4095[^\n]", name) == 1) {
        EXPECT_TRUE(std::regex_match(name, allowed)) << "exported: " << name;
        context += std::string(name) == "CZulCryptContext::GetContext()";
    }
    EXPECT_TRUE(pipe && pclose(pipe) == 0 && context == 1) << "nm found no CZulCryptContext::GetContext()";
}
