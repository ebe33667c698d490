// The Linux stand-ins' process side: /proc read by hand, and CreateProcessA's program search.
#include "os/os_linux_p.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>

namespace os::linux_detail {

static std::string baseName(const std::string &path)
{
    const auto slash = path.rfind('/');
    return slash == std::string::npos ? path : path.substr(slash + 1);
}

// Plain reads rather than streams: iostreams would pull libstdc++'s locale machinery into
// every process for a handful of /proc files.
static std::string readWholeFile(const std::string &path)
{
    std::string text;
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return text;
    char buffer[4096];
    for (;;) {
        const ssize_t n = read(fd, buffer, sizeof(buffer));
        if (n > 0)
            text.append(buffer, static_cast<std::size_t>(n));
        else if (n == 0 || errno != EINTR)
            break;
    }
    close(fd);
    return text;
}

std::vector<std::string> splitText(const std::string &text, const char *separators, bool skipEmpty)
{
    std::vector<std::string> fields;
    std::size_t start = 0;
    for (;;) {
        const std::size_t end = text.find_first_of(separators, start);
        std::string field = text.substr(start, end == std::string::npos ? end : end - start);
        if (!skipEmpty || !field.empty())
            fields.push_back(std::move(field));
        if (end == std::string::npos)
            return fields;
        start = end + 1;
    }
}

std::string processExeName(const std::string &pidDir)
{
    char target[4096];
    const ssize_t n = readlink((pidDir + "/exe").c_str(), target, sizeof(target) - 1);
    if (n > 0) {
        target[n] = '\0';
        std::string path(target);
        // A binary replaced on disk keeps running under "<path> (deleted)".
        const std::string deleted = " (deleted)";
        if (path.size() > deleted.size() &&
            path.compare(path.size() - deleted.size(), deleted.size(), deleted) == 0)
            path.resize(path.size() - deleted.size());
        return baseName(path);
    }
    const std::string cmdline = readWholeFile(pidDir + "/cmdline");
    if (!cmdline.empty()) {
        const std::string argv0(cmdline.c_str());
        if (!argv0.empty())
            return baseName(argv0);
    }
    std::string comm = readWholeFile(pidDir + "/comm");
    while (!comm.empty() && comm.back() == '\n')
        comm.pop_back();
    return comm;
}

bool hasEnded(const std::string &pidDir)
{
    const std::string stat = readWholeFile(pidDir + "/stat");
    const auto close = stat.rfind(')');
    if (close == std::string::npos || close + 2 >= stat.size())
        return true;
    const char state = stat[close + 2];
    return state == 'Z' || state == 'X';
}

static std::string ownDirectory()
{
    char target[4096];
    const ssize_t n = readlink("/proc/self/exe", target, sizeof(target) - 1);
    if (n <= 0)
        return std::string();
    target[n] = '\0';
    std::string path(target);
    return path.substr(0, path.rfind('/'));
}

static bool isExecutableFile(const std::string &path)
{
    struct stat st;
    return stat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode) && access(path.c_str(), X_OK) == 0;
}

std::string findProgram(const std::string &name)
{
    if (name.find('/') != std::string::npos)
        return isExecutableFile(name) ? name : std::string();
    std::vector<std::string> dirs{ownDirectory(), "."};
    if (const char *path = std::getenv("PATH")) {
        for (const std::string &dir : splitText(path, ":", false))
            dirs.push_back(dir.empty() ? "." : dir);
    }
    for (const std::string &dir : dirs) {
        if (dir.empty())
            continue;
        std::string candidate = dir;
        candidate += '/';
        candidate += name;
        if (isExecutableFile(candidate))
            return candidate;
    }
    return std::string();
}

} // namespace os::linux_detail

namespace os {

bool isProcessAlive(ProcessId id)
{
    const auto pid = static_cast<pid_t>(id);
    return pid > 0 && (kill(pid, 0) == 0 || errno == EPERM) &&
           !linux_detail::hasEnded("/proc/" + std::to_string(pid));
}

} // namespace os
