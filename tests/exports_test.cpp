// libwexcryptcpp.so.1 exports the library's classes and ZulVkl functions, nothing else.
#include <cstdio>
#include <memory>
#include <regex>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace {

std::vector<std::string> ExportedSymbols() {
    std::vector<std::string> symbols;
    std::string command = std::string("nm -D --defined-only -C '") + ZUL_LIBRARY_FILE + "' 2>/dev/null";
    std::unique_ptr<FILE, int (*)(FILE*)> pipe(popen(command.c_str(), "r"), pclose);
    if (!pipe) return symbols;
    char line[4096];
    while (std::fgets(line, sizeof line, pipe.get()) != nullptr) {
        std::string text(line);
        if (!text.empty() && text.back() == '\n') text.pop_back();
        // "<address> <type> <name>"
        size_t name = text.find(' ', text.find(' ') + 1);
        if (name != std::string::npos) symbols.push_back(text.substr(name + 1));
    }
    return symbols;
}

bool Allowed(const std::string& symbol) {
    static const std::regex kAllowed(
        "(CZulCrypt|ZulVkl|(vtable|typeinfo|typeinfo name) for CZulCrypt|operator<<\\(std::ostream&, ZulVkl).*");
    return std::regex_match(symbol, kAllowed);
}

TEST(ExportsTest, OnlyLibraryClassesAndProceduralFunctionsAreExported) {
    std::vector<std::string> symbols = ExportedSymbols();
    ASSERT_FALSE(symbols.empty()) << "nm found no symbols in " << ZUL_LIBRARY_FILE;
    bool context = false;
    for (const std::string& symbol : symbols) {
        EXPECT_TRUE(Allowed(symbol)) << "exported: " << symbol;
        context = context || symbol == "CZulCryptContext::GetContext()";
    }
    EXPECT_TRUE(context) << "CZulCryptContext::GetContext() must be exported";
}

}  // namespace
