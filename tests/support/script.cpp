#include "script.h"

#include <algorithm>
#include <sstream>
#include <stdexcept>

#include <gtest/gtest.h>

#include <vkl_testing.h>
#include <wexcrypt.h>
#include <wexcrypt_testing.h>

#include "test_support.h"
#include "vector_file.h"

namespace zultest {
namespace {

std::string Unescape(std::string text) {
    for (size_t at = 0; (at = text.find("\\n", at)) != std::string::npos; ++at) text.replace(at, 2, "\n");
    return text;
}

// Splits a line into arguments; a quoted text is one, blanks and all.
Args Split(const std::string& line) {
    Args args;
    std::string current;
    bool quoted = false, any = false;
    for (char c : line) {
        if (c == '"') quoted = !quoted;
        if (c == ' ' && !quoted) {
            if (any) args.push_back({current});
            current.clear();
            any = false;
            continue;
        }
        current += c;
        any = true;
    }
    if (any) args.push_back({current});
    return args;
}

std::string Quoted(const std::string& value) {
    return value.size() >= 2 && value.front() == '"' && value.back() == '"' ? value.substr(1, value.size() - 2)
                                                                           : value;
}

// Reports and traces since the last call, each kind checked where the script asks.
struct Expected {
    std::vector<std::string> reports;
    std::map<unsigned, std::vector<std::string>> traces;
};

}  // namespace

std::map<std::string, std::string>& Vars() {
    static std::map<std::string, std::string> vars;
    return vars;
}

std::vector<unsigned char> Arg::Bytes() const {
    std::string value = raw;
    size_t copies = 1;
    const size_t star = raw.rfind('*');
    if (star != std::string::npos && raw.back() != '"') {
        copies = std::stoul(raw.substr(star + 1));
        value = raw.substr(0, star);
    }
    std::vector<unsigned char> unit;
    if (value.size() >= 2 && value.front() == '"') {
        const std::string text = Unescape(Quoted(value));
        unit.assign(text.begin(), text.end());
    } else {
        unit = FromHex(value);
    }
    std::vector<unsigned char> bytes;
    for (size_t i = 0; i < copies; ++i) bytes.insert(bytes.end(), unit.begin(), unit.end());
    return bytes;
}

std::string Arg::Text() const { return Unescape(Quoted(raw)); }

long Arg::Number() const { return std::stol(raw); }

Outcome Ok(bool ok) { return {ok, 0, "", {}}; }

Outcome Number(long number) { return {true, number, "", {}}; }

Outcome Text(const char* text, bool ok) { return {ok, 0, text != nullptr ? text : "NULL", {}}; }

Outcome Bytes(bool ok, const unsigned char* data, size_t length) {
    return {ok, 0, "", ok && data != nullptr ? std::vector<unsigned char>(data, data + length)
                                                                     : std::vector<unsigned char>()};
}

void RunScripts(const std::string& file, const Driver& driver) {
    const std::vector<VectorCase> cases = ReadVectors(file);
    ASSERT_FALSE(cases.empty()) << file;
    for (const VectorCase& script : cases) {
        SCOPED_TRACE(script.Where());
        VKLTest_Reset();
        WEXTest_SetGetContextResult(script.Has("NoVkl") ? 0 : -3);
        Diagnostics diagnostics;
        const long live = VKLTest_LiveObjects();
        auto context = std::make_unique<CZulCryptContext>();
        WEXTest_SetGetContextResult(-3);
        VKL_t* vkl = nullptr;
        WEXCryptGetContext(&vkl);
        TakeQueue(vkl);
        std::ostringstream address;
        address << static_cast<const void*>(context.get());
        diagnostics.Clear();
        VKLTest_Reset();
        const std::string reportFile = script.Has("File") ? script.Text("File") : "";

        Outcome outcome;
        Expected expected;
        std::string where = script.Where();
        // Checks what the previous call reported against what the script said.
        auto settle = [&] {
            SCOPED_TRACE(where);
            std::vector<std::string> reports;
            for (const ErrorReport& report : diagnostics.errors) {
                reports.push_back(report.text);
                if (!reportFile.empty()) {
                    EXPECT_EQ(report.file, reportFile) << report.text;
                }
            }
            EXPECT_EQ(reports, expected.reports);
            for (const auto& level : expected.traces) {
                EXPECT_EQ(diagnostics.TracesAt(level.first), level.second);
            }
            diagnostics.Clear();
            expected = Expected();
        };
        {
            // The objects are made at the first call, after the faults armed before it and with
            // what they report checked against the lines before it. "Call = End" destroys
            // them, so that the lines after it check their destructors.
            Vars() = {{"$ctx", address.str()}};
            std::unique_ptr<Calls> calls;
            bool made = false;
            for (size_t i = 0; i < script.lines.size(); ++i) {
                // "Yes = call" and "No = call" are a call with its Ok = 1 or Ok = 0.
                const std::string& given = script.lines[i].first;
                const bool yesNo = given == "Yes" || given == "No";
                const std::string key = yesNo ? "Call" : given;
                const std::string& value = script.lines[i].second;
                const std::string here = file + ":" + std::to_string(script.lineNumbers[i]);
                SCOPED_TRACE(here);
                if (key == "Call" && !made) calls = std::make_unique<Calls>(driver(*context));
                made = made || key == "Call";
                std::string expanded = value;
                for (const auto& var : Vars()) {
                    for (size_t at; (at = expanded.find(var.first)) != std::string::npos;) {
                        expanded.replace(at, var.first.size(), var.second);
                    }
                }
                const Arg arg{expanded};
                if (key == "Call") {
                    settle();
                    where = here;
                    Args args = Split(expanded);
                    const std::string name = args.front().raw;
                    args.erase(args.begin());
                    if (name == "End") {
                        calls.reset();
                        continue;
                    }
                    ASSERT_TRUE(calls != nullptr && calls->count(name) == 1u) << "no call " << name;
                    outcome = calls->at(name)(args);
                    if (yesNo) {
                        EXPECT_EQ(outcome.ok, given == "Yes");
                    }
                } else if (key == "Ok") {
                    EXPECT_EQ(outcome.ok, arg.Number() != 0);
                } else if (key == "Result") {
                    EXPECT_EQ(outcome.number, arg.Number());
                } else if (key == "Text") {
                    EXPECT_EQ(outcome.text, arg.Text());
                } else if (key == "Out") {
                    // Long outputs are compared whole but shown by their length and start.
                    const std::vector<unsigned char> want = arg.Bytes();
                    if (outcome.out != want) {
                        ADD_FAILURE() << "Out: got " << outcome.out.size() << " bytes "
                                      << Hex(outcome.out).substr(0, 96) << ", want " << want.size() << " bytes "
                                      << Hex(want).substr(0, 96);
                    }
                } else if (key == "OutHas") {
                    const std::vector<unsigned char> part = arg.Bytes();
                    EXPECT_NE(std::search(outcome.out.begin(), outcome.out.end(), part.begin(), part.end()),
                              outcome.out.end())
                        << Hex(outcome.out);
                } else if (key == "Report") {
                    expected.reports.push_back(arg.Text());
                } else if (key.rfind("Trace", 0) == 0) {
                    expected.traces[static_cast<unsigned>(std::stoul(key.substr(5)))].push_back(arg.Text());
                } else if (key == "Fail") {
                    const Args f = Split(expanded);
                    VKLTest_FailCall(f[0].raw.c_str(), f.size() > 1 ? static_cast<unsigned>(f[1].Number()) : 0,
                                     f.size() > 3 ? static_cast<int>(f[3].Number()) : 1,
                                     f.size() > 2 ? f[2].Number() : -2);
                } else if (key == "Wex") {
                    WEXTest_SetGetContextResult(arg.Number());
                } else if (key == "Host") {
                    WEXTest_SetSystemFips(static_cast<int>(arg.Number()));
                } else if (key == "Force") {
                    const Args f = Split(expanded);
                    VKLTest_SetStatus(f[0].raw.c_str(), static_cast<int>(f[1].Number()), static_cast<int>(f[2].Number()),
                                      f[3].Text().c_str());
                } else if (key == "Count") {
                    const Args c = Split(expanded);
                    EXPECT_EQ(VKLTest_CallCount(c[0].raw.c_str()), static_cast<unsigned long>(c[1].Number()))
                        << c[0].raw;
                } else if (key == "Length") {
                    const Args c = Split(expanded);
                    EXPECT_EQ(VKLTest_LastLength(c[0].raw.c_str()), c[1].Number()) << c[0].raw;
                }
            }
            // The objects go here, so that what their destructors report is checked too.
        }
        settle();
        // The reset below would hide an entry a failure left behind.
        EXPECT_EQ(TakeQueue(vkl), std::vector<std::string>{}) << "left on VKL's error queue";
        VKLTest_Reset();
        WEXTest_SetSystemFips(0);
        CZulCryptContext::SetLogLevel(0);
        context.reset();
        EXPECT_EQ(VKLTest_LiveObjects(), live)
            << "VKL handles left alive";
        diagnostics.Clear();
    }
}

}  // namespace zultest
