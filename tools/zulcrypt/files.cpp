#include "files.h"

#include <atomic>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <istream>
#include <system_error>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "commands.h"

namespace zulcrypt {
namespace {

// What the signal handler undoes; plain data, as a handler may only read that.
// Each flag is cleared while its data changes, so the handler never reads it half written.
termios g_terminal{};
volatile sig_atomic_t g_hasTerminal = 0;
char g_temp[PATH_MAX] = "";
volatile sig_atomic_t g_hasTemp = 0;
bool g_installed = false;
// A hangup (a dropped SSH session) and a quit leave the same mess as an interrupt.
const int kSignals[] = {SIGINT, SIGTERM, SIGHUP, SIGQUIT};
constexpr int kCount = sizeof kSignals / sizeof kSignals[0];
struct sigaction g_previous[kCount];
bool g_handling[kCount] = {};

void OnSignal(int signal) {
    // Nothing is left to do if one fails.
    if (g_hasTerminal != 0) tcsetattr(STDIN_FILENO, TCSAFLUSH, &g_terminal);
    if (g_hasTemp != 0) unlink(g_temp);
    static_cast<void>(std::signal(signal, SIG_DFL));
    static_cast<void>(std::raise(signal));
}

// Handlers only while there is something to undo, the caller's back after. A
// signal ignored when we started (Ctrl-C in a background job) stays ignored.
void Install() {
    const bool wanted = g_hasTerminal != 0 || g_hasTemp != 0;
    if (wanted == g_installed) return;
    struct sigaction action {};
    action.sa_handler = OnSignal;
    sigemptyset(&action.sa_mask);
    for (int signal : kSignals) sigaddset(&action.sa_mask, signal);
    for (int i = 0; i < kCount; ++i) {
        if (!wanted) {
            if (g_handling[i]) sigaction(kSignals[i], &g_previous[i], nullptr);
            g_handling[i] = false;
            continue;
        }
        sigaction(kSignals[i], nullptr, &g_previous[i]);
        g_handling[i] = (g_previous[i].sa_flags & SA_SIGINFO) != 0 || g_previous[i].sa_handler != SIG_IGN;
        if (g_handling[i]) sigaction(kSignals[i], &action, nullptr);
    }
    g_installed = wanted;
}

std::string Why(const char* what, const std::string& path, int error) {
    return std::string(what) + " " + path + ": " + std::generic_category().message(error);
}

// A new OUT may be a symlink to nothing yet: what is made on Commit is its target,
// relative to the link's folder, and the link stays. True with path set to the
// name to make; false, errno set, when a link cannot be read or the links loop.
bool FollowDangling(std::string& path) {
    struct stat status {};
    for (int hops = 0; lstat(path.c_str(), &status) == 0 && S_ISLNK(status.st_mode); ++hops) {
        // The kernel's own limit, which open already applied unless the links changed since.
        if (hops == 40) {
            errno = ELOOP;
            return false;
        }
        std::string target(PATH_MAX, '\0');
        const ssize_t length = readlink(path.c_str(), &target[0], target.size());
        if (length < 0) return false;
        target.resize(static_cast<size_t>(length));
        const size_t slash = path.rfind('/');
        if (target.compare(0, 1, "/") != 0 && slash != std::string::npos) target.insert(0, path, 0, slash + 1);
        path = target;
    }
    return true;
}

}  // namespace

void GuardTerminal(const termios* saved) {
    g_hasTerminal = 0;
    std::atomic_signal_fence(std::memory_order_seq_cst);
    if (saved != nullptr) g_terminal = *saved;
    std::atomic_signal_fence(std::memory_order_seq_cst);
    g_hasTerminal = saved != nullptr;
    Install();
}

void GuardTemporary(const char* path) {
    g_hasTemp = 0;
    std::atomic_signal_fence(std::memory_order_seq_cst);
    // A name too long to keep is left behind, as before this guard.
    const size_t length = path != nullptr ? std::strlen(path) : sizeof g_temp;
    const bool kept = length < sizeof g_temp;
    if (kept) std::memcpy(g_temp, path, length + 1);
    std::atomic_signal_fence(std::memory_order_seq_cst);
    g_hasTemp = kept;
    Install();
}

Input::~Input() {
    if (m_owned) close(m_fd);
}

bool Input::Open(const std::string& path, const Streams& io, std::string& why) {
    if (path == "-") {
        m_path = "standard input";
        m_fd = io.inFd;
        if (m_fd < 0) m_stream = &io.in;
        return true;
    }
    m_path = path;
    m_fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    m_owned = m_fd >= 0;
    if (m_fd < 0) why = Why("cannot read", path, errno);
    return m_owned;
}

long Input::Read(unsigned char* data, size_t size, std::string& why) {
    if (m_stream != nullptr) {
        m_stream->read(reinterpret_cast<char*>(data), static_cast<std::streamsize>(size));
        if (m_stream->bad()) why = "cannot read standard input";
        return m_stream->bad() ? -1 : static_cast<long>(m_stream->gcount());
    }
    ssize_t got = 0;
    while ((got = read(m_fd, data, size)) < 0 && errno == EINTR) {
    }
    if (got < 0) why = Why("cannot read", m_path, errno);
    return static_cast<long>(got);
}

Output::~Output() {
    if (m_fd >= 0) close(m_fd);
    if (!m_temp.empty()) {
        unlink(m_temp.c_str());
        GuardTemporary(nullptr);
    }
}

bool Output::Open(const std::string& path, std::string& why) {
    // Opened once, not truncated, and judged by what was opened, so that nothing
    // swapped in after a check by name is truncated, written or replaced.
    const int flags = O_WRONLY | O_NOCTTY | O_CLOEXEC;
    int fd = open(path.c_str(), flags | O_NONBLOCK);
    // A FIFO with no reader yet: wait for one, as a program writing to it expects.
    if (fd < 0 && errno == ENXIO) fd = open(path.c_str(), flags);
    if (fd < 0 && errno != ENOENT) {
        why = Why("cannot write", path, errno);
        return false;
    }
    struct stat status {};
    if (fd >= 0 && (fstat(fd, &status) != 0 || fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) & ~O_NONBLOCK) != 0)) {
        why = Why("cannot write", path, errno);
        close(fd);
        return false;
    }
    if (fd >= 0 && !S_ISREG(status.st_mode)) {
        m_fd = fd;
        return true;
    }
    m_path = path;
    const bool replacing = fd >= 0;
    if (replacing) {
        // The file opened is the one renamed over, through a symlink if OUT is one.
        char* target = realpath(path.c_str(), nullptr);
        struct stat found {};
        const bool same = target != nullptr && lstat(target, &found) == 0 && found.st_dev == status.st_dev &&
                          found.st_ino == status.st_ino;
        if (target != nullptr) m_path = target;
        std::free(target);
        close(fd);
        if (!same) {
            why = "cannot write " + path + ": it changed while being opened";
            return false;
        }
    } else if (!FollowDangling(m_path)) {
        why = Why("cannot write", path, errno);
        return false;
    }
    std::string name = m_path + ".XXXXXX";
    m_fd = mkstemp(&name[0]);
    if (m_fd < 0 || (replacing && fchmod(m_fd, status.st_mode & 07777) != 0)) {
        why = Why("cannot write", path, errno);
        if (m_fd >= 0) unlink(name.c_str());
        return false;
    }
    m_temp = name;
    GuardTemporary(m_temp.c_str());
    return true;
}

bool Output::Write(const unsigned char* data, size_t length) {
    while (length > 0) {
        const ssize_t done = write(m_fd, data, length);
        if (done < 0 && errno == EINTR) continue;
        if (done <= 0) return false;
        data += done;
        length -= static_cast<size_t>(done);
    }
    return true;
}

bool Output::Commit() {
    // Only a file being replaced needs to be on disk first; a FIFO cannot be synced.
    const bool synced = m_temp.empty() || fsync(m_fd) == 0;
    const bool closed = close(m_fd) == 0;
    m_fd = -1;
    if (!synced || !closed) return false;
    if (m_temp.empty()) return true;
    if (rename(m_temp.c_str(), m_path.c_str()) != 0) return false;
    m_temp.clear();
    GuardTemporary(nullptr);
    return true;
}

}  // namespace zulcrypt
