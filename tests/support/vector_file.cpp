#include "vector_file.h"

#include <fstream>
#include <stdexcept>

#include <gtest/gtest.h>

#include "script.h"
#include "test_support.h"

namespace zultest {
namespace {

std::string Trim(const std::string& text) {
    size_t begin = text.find_first_not_of(" \t\r");
    if (begin == std::string::npos) return "";
    size_t end = text.find_last_not_of(" \t\r");
    return text.substr(begin, end - begin + 1);
}

}  // namespace

// Values read as script arguments read: hex or "text", x*N repeats.
std::vector<unsigned char> VectorCase::Bytes(const std::string& name) const { return Arg{fields.at(name)}.Bytes(); }

std::string VectorCase::Text(const std::string& name) const { return Arg{fields.at(name)}.Text(); }

long VectorCase::Number(const std::string& name) const { return std::stol(fields.at(name)); }

std::vector<VectorCase> ReadVectors(const std::string& name) {
    std::vector<VectorCase> cases;
    // Outside known-answer data lives in tests/vectors, the cases of our own in tests/data.
    std::string path = std::string(ZUL_TEST_DIR) + "/vectors/" + name;
    std::ifstream in(path);
    if (!in) in.open(path = std::string(ZUL_TEST_DIR) + "/data/" + name);
    if (!in) {
        ADD_FAILURE() << "cannot read " << path;
        return cases;
    }
    std::map<std::string, std::string> defaults;
    VectorCase current;
    auto flush = [&] {
        if (!current.fields.empty()) {
            for (const auto& field : defaults) current.fields.insert(field);
            cases.push_back(current);
        }
        current = VectorCase();
    };
    int lineNumber = 0;
    for (std::string raw; std::getline(in, raw);) {
        ++lineNumber;
        std::string line = Trim(raw);
        if (line.empty()) {
            flush();
            continue;
        }
        if (line[0] == '#') continue;
        bool header = line.front() == '[' && line.back() == ']';
        if (header) line = line.substr(1, line.size() - 2);
        size_t equals = line.find('=');
        if (equals == std::string::npos) {
            ADD_FAILURE() << path << ":" << lineNumber << ": no '=' in '" << raw << "'";
            continue;
        }
        std::string key = Trim(line.substr(0, equals));
        std::string value = Trim(line.substr(equals + 1));
        if (header) {
            defaults[key] = value;
            continue;
        }
        if (current.fields.empty()) {
            current.line = lineNumber;
            current.where = name + ":" + std::to_string(lineNumber);
        }
        current.fields[key] = value;
        current.lines.emplace_back(key, value);
        current.lineNumbers.push_back(lineNumber);
    }
    flush();
    return cases;
}

VectorCase RsaSha256Signature() {
    // The shortest key: the tests that repeat this signature for every allocation pay for its length.
    VectorCase best;
    for (const VectorCase& row : ReadVectors("rsa_signature.vec"))
        if (row.Text("Digest") == "SHA256" && row.Number("Valid") == 1 && row.Has("E") &&
            (!best.Has("N") || row.Bytes("N").size() < best.Bytes("N").size()))
            best = row;
    return best;
}

}  // namespace zultest
