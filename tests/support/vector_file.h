// Reader of the test vector files: tests/vectors (outside data), else tests/data.
//
// A file is a list of cases separated by blank lines. Each case is a set of
// "Name = value" lines; a value is hex, or text in double quotes. "#" starts a
// comment line (the source of the vectors). A line "[Name = value]" sets a
// field for every later case of the file until another such line for the
// same name.
#ifndef ZUL_VECTOR_FILE_H
#define ZUL_VECTOR_FILE_H

#include <map>
#include <string>
#include <vector>

namespace zultest {

class VectorCase {
public:
    int line = 0;  // where the case starts, for failure messages
    std::map<std::string, std::string> fields;
    // Every line of the case in file order, repeated names included (not the headers).
    std::vector<std::pair<std::string, std::string>> lines;
    std::vector<int> lineNumbers;

    bool Has(const std::string& name) const { return fields.count(name) != 0; }
    // The value as bytes: hex decoded, or a quoted text's characters.
    std::vector<unsigned char> Bytes(const std::string& name) const;
    // The value as written, quotes removed.
    std::string Text(const std::string& name) const;
    long Number(const std::string& name) const;
    // "file:line" for failure messages.
    std::string Where() const { return where; }

    std::string where;
};

// Reads tests/vectors/<name>, or tests/data/<name> when there is none; fails the calling test (ADD_FAILURE) when the file cannot be read.
std::vector<VectorCase> ReadVectors(const std::string& name);

// A valid SHA-256 signature of a message in rsa_signature.vec (made by the openssl command line),
// with its key's N, E and D, the key the shortest; a case without "Out" when there is none.
VectorCase RsaSha256Signature();

}  // namespace zultest

#endif  // ZUL_VECTOR_FILE_H
