// Scripted cases: a case of a tests/data/*.vec file read as a program of calls on
// one capability's objects, each call followed by what it must give and report.
//
//   Call = SetType "SHA1"        runs the driver's call with its arguments;
//                                Call = End destroys the case's objects
//   Yes = call / No = call       a call whose success must be 1 / 0
//   Ok = 1                       its success; Result = N, Text = "..", Out = hex,
//                                OutHas = "text" (Out holds that text somewhere)
//   Report = "text"              each error reported since the call, in order;
//                                none may be reported when no Report line follows
//   Trace3 = "text"              traces of that level since the call, when given
//   Fail = VKL_fn skip result    arms a VKL fault (once) before the next call
//   Count = VKL_fn N             calls of a VKL function since the case began;
//                                Length = VKL_fn N, the length argument of its latest call
//   Wex = N / Host = N           from here on, what WEXCryptGetContext returns and the host's
//                                FIPS mode; Force = VKL_fn major minor "text" forces a record
//   NoVkl = 1                    before the first call: the case's context has no VKL context
// A VKL entry left on the queue, or a VKL handle left alive, at a case's end fails it.
// Arguments are hex, "text" (\n for a line break), a number, - for null; a
// value followed by *N stands for N copies of it. $ctx in a text is the
// context's address as streams print it. A header line [File = name] names the
// source file every report must come from.
#ifndef ZUL_SCRIPT_H
#define ZUL_SCRIPT_H

#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include <czulcryptcontext.h>

namespace zultest {

struct Arg {
    std::string raw;
    bool IsNull() const { return raw == "-"; }
    std::vector<unsigned char> Bytes() const;
    std::string Text() const;
    long Number() const;
};
using Args = std::vector<Arg>;

// What a call gave, for the check lines after it.
struct Outcome {
    bool ok = true;
    long number = 0;
    std::string text;
    std::vector<unsigned char> out;
};

using Call = std::function<Outcome(const Args&)>;
using Calls = std::map<std::string, Call>;

// Makes a case's objects on the given context and returns the calls on them; the
// objects live as long as the calls (capture them in shared pointers).
using Driver = std::function<Calls(CZulCryptContext&)>;

// Names a driver may set while making a case's objects (an address in a trace,
// say): "$name" in a line of the case stands for the value. Cleared per case.
std::map<std::string, std::string>& Vars();

// Runs every case of tests/data/<file>; a failing check names file and line.
void RunScripts(const std::string& file, const Driver& driver);

// A driver's call: {"Name", [=](const Args& a) { return outcome; }}.
#define ZUL_CALL(name, ...) {name, [=](const ::zultest::Args& a) -> ::zultest::Outcome { (void)a; return __VA_ARGS__; }}

// Shorthands for drivers.
Outcome Ok(bool ok);
Outcome Number(long number);
Outcome Text(const char* text, bool ok = true);  // null gives "NULL"
Outcome Bytes(bool ok, const unsigned char* data, size_t length);

}  // namespace zultest

#endif  // ZUL_SCRIPT_H
