// Error reports of the library gathered while a command runs, so that the
// command can print them its own way instead of the library's stderr format.
#ifndef ZULCRYPT_REPORTS_H
#define ZULCRYPT_REPORTS_H

#include <string>
#include <vector>

namespace zulcrypt {

// Installs an error callback for its lifetime (restoring the previous one
// after); one at a time.
class ErrorCapture {
public:
    ErrorCapture();
    ~ErrorCapture();
    ErrorCapture(const ErrorCapture&) = delete;
    ErrorCapture& operator=(const ErrorCapture&) = delete;

    const std::vector<std::string>& Texts() const { return m_texts; }

private:
    static void Collect(const char* file, unsigned int line, const char* text, bool fatal);

    std::vector<std::string> m_texts;
    void (*m_previous)(const char*, unsigned int, const char*, bool);
};

}  // namespace zulcrypt

#endif  // ZULCRYPT_REPORTS_H
